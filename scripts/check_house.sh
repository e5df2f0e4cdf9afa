#!/usr/bin/env bash
# The house rules that a machine can check: format, the arrows between folders, platform words,
# lengths, and clang-tidy over the service (it reads build/debug/compile_commands.json, so preset
# debug must be configured). STEWARDRY_SKIP_TIDY=1 leaves clang-tidy out.
set -euo pipefail
cd "$(dirname "$0")/.."
failed=0

echo "house: lengths, arrows, platform words"
python3 -B scripts/house_report.py || failed=1

echo "house: format"
scripts/format.sh --check || failed=1

if [ "${STEWARDRY_SKIP_TIDY:-}" = 1 ]; then
  echo "house: clang-tidy skipped, STEWARDRY_SKIP_TIDY is 1"
elif [ ! -f build/debug/compile_commands.json ]; then
  echo "house: clang-tidy can't run: preset debug isn't configured" >&2
  failed=1
else
  echo "house: clang-tidy (.clang-tidy tells which checks, and why)"
  found=$(mktemp)
  trap 'rm -f "$found"' EXIT
  if ! run-clang-tidy -quiet -j "$(nproc)" -p build/debug \
      "^$PWD/(service|sock|platform/linux)/" >"$found" 2>&1; then
    sed 's/\x1b\[[0-9;]*m//g' "$found" | grep -E '(error|warning): ' | sort -u |
      sed "s#$PWD/##; s/^/  BROKEN  /"
    failed=1
  fi
fi

[ $failed -eq 0 ] && echo "house: in order"
exit $failed
