#!/usr/bin/env bash
# The house rules that a machine can check: format, the arrows between folders, platform words,
# lengths, and clang-tidy over the service (it reads build/release/compile_commands.json, so preset
# release must be configured). clang-tidy takes five seconds a source, so it looks at those that were
# changed within four hours, or that include a header that was; STEWARDRY_TIDY_SINCE names another
# time, in git's words. With STEWARDRY_TIDY=all it looks at every source, with STEWARDRY_SKIP_TIDY=1
# at none.
set -euo pipefail
cd "$(dirname "$0")/.."
failed=0

echo "house: lengths, arrows, platform words"
python3 -B scripts/house_report.py || failed=1

echo "house: format"
scripts/format.sh --check || failed=1

# The sources that clang-tidy looks at, one a line.
tidy_sources() {
  local all
  all=$(git ls-files 'service/*.cpp' 'sock/*.cpp' 'platform/linux/*.cpp')
  if [ "${STEWARDRY_TIDY:-}" = all ]; then
    echo "$all"
    return
  fi
  local base changed
  base=$(git rev-list -1 --before="${STEWARDRY_TIDY_SINCE:-4 hours ago}" HEAD)
  changed=$(git diff --name-only "${base:-$(git hash-object -t tree /dev/null)}" -- service sock platform)
  [ -n "$changed" ] || return 0
  {
    grep -Fxf <(echo "$changed") <<<"$all" || true
    xargs -r grep -lFf <(sed -n 's/.*\.h$/#include "&"/p' <<<"$changed") <<<"$all" || true
  } | sort -u
}

if [ "${STEWARDRY_SKIP_TIDY:-}" = 1 ]; then
  echo "house: clang-tidy skipped, STEWARDRY_SKIP_TIDY is 1"
elif [ ! -f build/release/compile_commands.json ]; then
  echo "house: clang-tidy can't run: preset release isn't configured" >&2
  failed=1
else
  mapfile -t sources < <(tidy_sources)
  echo "house: clang-tidy over ${#sources[@]} sources (.clang-tidy tells which checks, and why)"
  found=$(mktemp)
  trap 'rm -f "$found"' EXIT
  if [ ${#sources[@]} -gt 0 ] && ! printf '%s\0' "${sources[@]}" |
      xargs -0 -n 4 -P "$(nproc)" clang-tidy -quiet -p build/release >"$found" 2>&1; then
    sed 's/\x1b\[[0-9;]*m//g' "$found" | grep -E '(error|warning): ' | sort -u |
      sed "s#$PWD/##; s/^/  BROKEN  /"
    failed=1
  fi
fi

[ $failed -eq 0 ] && echo "house: in order"
exit $failed
