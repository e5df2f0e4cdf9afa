#!/usr/bin/env bash
# Builds preset release with the benchmarks and runs every benchmark beside its peers with short settings, in some
# five minutes after the build; one table ends the output.
#   run.sh           builds, then runs
#   run.sh --built   runs what is built already; STEWARDRY_BIN names another folder of programs
#   run.sh --growth  how cost grows instead; further options are those of growth/run.sh
set -euo pipefail
cd "$(dirname "$0")/.."

[ "${1:-}" != --growth ] || exec bench/growth/run.sh "${@:2}"
if [ "${1:-}" != --built ]; then
  options=(-DSTEWARDRY_BENCH=ON)
  command -v ccache >/dev/null && options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  cmake --preset release "${options[@]}" >/dev/null
  cmake --build --preset release --target benches >/dev/null
fi
bin=${STEWARDRY_BIN:-$PWD/build/release/bin}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
last=$(taskset -cp $$ | grep -o '[0-9]*$')

micro() {
  local name=$1
  echo "== $name"
  taskset -c "$last" "$bin/${name}_bench" --benchmark_repetitions=5 --benchmark_min_time=0.05 \
    --benchmark_enable_random_interleaving=true --benchmark_display_aggregates_only=true \
    --benchmark_out="$out/$name.json" --benchmark_out_format=json >"$out/$name.txt" 2>&1 || {
    cat "$out/$name.txt" >&2
    exit 1
  }
}

micro selector
micro log
micro kvm
micro batch
micro name_search
micro base64
micro text
micro packing
micro wsman
echo "== relay"
STEWARDRY_BIN=$bin bench/relay/run.sh 7 --json "$out/relay.json"
STEWARDRY_BIN=$bin bench/relay/run.sh --calls
echo "== service"
STEWARDRY_BIN=$bin bench/service_cost.sh 7 --json "$out/service.json"
echo "== summary (met: the mark is reached; tie: within 15 % of it)"
python3 -B bench/summary.py "$out"
