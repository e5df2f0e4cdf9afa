#!/usr/bin/env bash
# Builds what users build, and builds and tests everything: Linux plain, with AddressSanitizer and
# UBSan, with ThreadSanitizer, and the Windows programs under Wine. One ctest runs all of it, so its
# summary ends the output.
#   test.sh          everything
#   test.sh quick    the Linux unit tests only, without sanitizers
# STEWARDRY_SKIP_WINDOWS=1 leaves the Windows build out, STEWARDRY_SKIP_TIDY=1 clang-tidy.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
began=$SECONDS

say() { printf '== %3d s  %s\n' $((SECONDS - began)) "$*"; }

# What is printed of a build: that it ran, or the end of its log if it failed.
quietly() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 && return
  tail -n 60 "$log" >&2
  say "failed: $*"
  exit 1
}

build() {
  local preset=$1
  shift
  local options=("$@")
  command -v ccache >/dev/null && options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  mkdir -p "build/$preset"
  say "building preset $preset"
  quietly "build/$preset/configure.log" cmake --preset "$preset" "${options[@]}"
  quietly "build/$preset/build.log" cmake --build --preset "$preset" -j "$jobs"
}

case "${1:-}" in
  "") ;;
  quick)
    scripts/setup.sh
    build debug
    exec ctest --test-dir build/debug --output-on-failure -j "$jobs" -E '\.e2e\.'
    ;;
  *) echo "usage: test.sh [quick]" >&2; exit 2 ;;
esac

say "looking for what is missing"
scripts/setup.sh

build release  # what users build; without tests
presets=(debug asan tsan)
for preset in "${presets[@]}"; do build "$preset"; done

prefix=
leave() {
  [ -n "$prefix" ] || return 0
  # Ends the Wine of this prefix and no other.
  wineserver -k 2>/dev/null || true
  wineserver -w 2>/dev/null || true
  rm -rf "$prefix"
}
trap leave EXIT
if [ "${STEWARDRY_SKIP_WINDOWS:-}" = 1 ]; then
  say "skipped: preset windows, STEWARDRY_SKIP_WINDOWS is 1"
else
  emulator=$(command -v wine)
  # Without random addresses, where the system allows it: Wine wants one page at a fixed address, and
  # one start in some thousands finds its heap there.
  if setarch -R true 2>/dev/null; then emulator="setarch;-R;$emulator"; fi
  build windows -DCMAKE_CROSSCOMPILING_EMULATOR="$emulator"
  presets+=(windows)
  prefix=$(mktemp -d)
  export WINEPREFIX=$prefix WINEDEBUG=-all WINEARCH=win64 DISPLAY=
  say "preparing Wine"
  quietly build/windows/wineboot.log timeout 300 wineboot -i
  wineserver -w
fi

say "checking the house rules"
house=0
scripts/check_house.sh || house=$?

say "testing: ${presets[*]}"
[ $house -eq 0 ] || say "the house rules are BROKEN (above); the run fails whatever the tests say"
printf 'subdirs(%s)\n' "${presets[*]}" >build/CTestTestfile.cmake
# ctest's summary names the tests that were skipped, but not why; the reasons are printed before it,
# and how many tests ran as Windows programs. A Python program counts as its cases.
with_reasons() {
  awk -v log_file=build/Testing/Temporary/LastTest.log '
    function reasons(  line, words, n, name, take, ran, skipped, cases) {
      while ((getline line < log_file) > 0) {
        if (line ~ / Testing: /) { n = split(line, words, " "); name = words[n]; cases = 0 }
        if (take) { print "skipped: " name ": " line; take = 0 }
        if (line ~ /: Skipped$/) { take = 1; skipped += name ~ /^windows\./ }
        if (line ~ /^skipped: /) {
          print "skipped: " name ": " substr(line, 10)
          skipped += name ~ /^windows\./
        }
        if (line ~ /^ *test_.* \.\.\. skipped /) {
          split(line, words, " ")
          print "skipped: " name ": " words[1] ": " substr(line, index(line, "skipped ") + 8)
        }
        if (name !~ /^windows\./) continue
        if (line ~ /^Ran [0-9]+ tests? in /) { split(line, words, " "); cases = words[2]; ran += cases }
        if (match(line, /^(OK|FAILED) .*skipped=[0-9]+/)) {
          sub(/.*skipped=/, "", line); ran -= line + 0; skipped += line + 0
        }
        # Several cases of one GoogleTest process: "[==========] 9 tests from 2 test suites ran."
        if (line ~ /^\[=+\] [0-9]+ tests from .* ran\./) {
          split(line, words, " ")
          cases = words[2]
          ran += cases
        }
        if (line ~ /^Test (Passed|Failed)/ && cases == 0) ++ran
      }
      print "as Windows programs under Wine: " ran + 0 " tests run, " skipped + 0 " skipped"
    }
    # The log is whole once ctest has ended; the summary waits for it.
    /^[0-9]+% tests passed/ { held = 1 }
    held { summary = summary $0 "\n"; next }
    { print; fflush() }
    END { reasons(); printf "\n%s", summary }'
}
tests=0
# Most tests wait most of the time, so twice as many run as there are processors.
ctest --test-dir build --output-on-failure -j $((jobs * 2)) | with_reasons || tests=$?
exit $((tests != 0 || house != 0))
