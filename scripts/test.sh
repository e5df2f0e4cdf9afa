#!/usr/bin/env bash
# Builds what users build, and builds and tests everything: Linux as users get it, with
# AddressSanitizer and UBSan, with ThreadSanitizer, and the Windows programs under Wine. One ctest
# runs all of it, so its summary ends the output.
#   test.sh          everything
#   test.sh quick    the Linux unit tests with AddressSanitizer and UBSan
# STEWARDRY_SKIP_WINDOWS=1 leaves the Windows build out, STEWARDRY_SKIP_TIDY=1 clang-tidy, which
# looks at recently changed files; with STEWARDRY_TIDY=all it looks at all of them.
# STEWARDRY_SKIP_HOUSE=1 leaves the house rules out.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
mkdir -p build
# Clones in different folders share the cached objects; so do builds with precompiled headers.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=true CCACHE_SLOPPINESS=pch_defines,time_macros

# phase WORDS COMMAND...: one line with the time it took; if it fails, the end of its output.
phase() {
  local words=$1 began=$SECONDS log=build/phase.log
  shift
  printf '== %-44s' "$words"
  if "$@" >"$log" 2>&1 </dev/null; then
    printf '%4d s\n' $((SECONDS - began))
    return
  fi
  printf 'FAILED after %d s\n' $((SECONDS - began))
  tail -n 60 "$log"
  return 1
}

build() { # build PRESET TESTS [CMake options]
  local preset=$1 options=("-DSTEWARDRY_TESTS=$2" "${@:3}")
  command -v ccache >/dev/null && options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  cmake --preset "$preset" "${options[@]}" && cmake --build --preset "$preset" -j "$jobs"
}

case "${1:-}" in
  "") ;;
  quick)
    phase "packages" scripts/setup.sh quick
    phase "build of preset asan, unit tests alone" build asan UNIT
    exec python3 -B scripts/run_tests.py build/asan -j $((jobs * 4))
    ;;
  *) echo "usage: test.sh [quick]" >&2; exit 2 ;;
esac

phase "packages" scripts/setup.sh
phase "build of preset release" build release E2E
phase "build of preset asan" build asan ALL
phase "build of preset tsan" build tsan ALL
presets=(release asan tsan)

prefix=
leave() {
  [ -n "$prefix" ] || return 0
  # Ends the Wine of this prefix and no other.
  wineserver -k 2>/dev/null || true
  wineserver -w 2>/dev/null || true
  rm -rf "$prefix"
}
trap leave EXIT
prepare_wine() { timeout 300 wineboot -i && wineserver -w; }
if [ "${STEWARDRY_SKIP_WINDOWS:-}" = 1 ]; then
  echo "skipped: preset windows, STEWARDRY_SKIP_WINDOWS is 1"
else
  emulator=$(command -v wine)
  # Without random addresses, where the system allows it: Wine wants one page at a fixed address, and
  # one start in some thousands finds its heap there.
  if setarch -R true 2>/dev/null; then emulator="setarch;-R;$emulator"; fi
  phase "build of preset windows" build windows ALL "-DCMAKE_CROSSCOMPILING_EMULATOR=$emulator"
  presets+=(windows)
  prefix=$(mktemp -d)
  export WINEPREFIX=$prefix WINEDEBUG=-all WINEARCH=win64 DISPLAY=
  phase "Wine's prefix" prepare_wine
fi

house=0
if [ "${STEWARDRY_SKIP_HOUSE:-}" = 1 ]; then
  echo "skipped: house rules, STEWARDRY_SKIP_HOUSE is 1"
else
  phase "house rules" scripts/check_house.sh || house=1
fi

printf 'subdirs(%s)\n' "${presets[*]}" >build/CTestTestfile.cmake
[ $house -eq 0 ] || echo "the house rules are BROKEN (above): the run fails whatever the tests say"
# Most tests wait most of the time, so four times as many run as there are processors.
tests=0
python3 -B scripts/run_tests.py build -j $((jobs * 4)) || tests=1
exit $((tests || house))
