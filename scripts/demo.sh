#!/usr/bin/env bash
# Builds, and shows the product at work by scripts/stewardry-lab. Without an argument a management
# console (curl) talks DASH to the firmware (orrin) through the service's port 664; with `dash` a
# console that others wrote (Debian's wsl) asks what it manages, by WS-Management; with `kvm` a
# viewer sees the firmware's screen through port 22, types and drags. Runs in a network namespace of its own where it may. Exit code 0
# only if every answer was right. STEWARDRY_BUILD names another folder for the build.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
readonly show=${1:-demo}
case "$show" in
  demo | dash) packages=$show targets=(quillonsvc orrin stewardry) ;;
  kvm) packages=kvm targets=(quillonsvc orrin KVM_Agent vnc_viewer) ;;
  *)
    echo "usage: scripts/demo.sh [dash|kvm]" >&2
    exit 2
    ;;
esac
readonly build=${STEWARDRY_BUILD:-build/demo}

echo "Stewardry: building the service and the firmware simulator"
log=$(mktemp)
if ! { scripts/setup.sh "$packages" && cmake --preset release -B "$build" &&
       cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"; } >"$log" 2>&1; then
  tail -n 40 "$log" >&2
  rm -f "$log"
  echo "the build failed" >&2
  exit 1
fi
rm -f "$log"
words=${targets[*]}
printf '  %s/bin: %s\n' "$build" "${words// /, }"
export STEWARDRY_BIN=$PWD/$build/bin
case "$build" in /*) STEWARDRY_BIN=$build/bin ;; esac
if [ "$show" = demo ]; then exec bash scripts/stewardry-lab demo; fi
exec bash scripts/stewardry-lab demo "$show"
