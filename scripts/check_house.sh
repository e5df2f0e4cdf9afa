#!/usr/bin/env bash
# The rules that a machine can check: what scripts/house_report.py reads from the sources, the format,
# and clang-tidy over every tree (scripts/tidy.py, which says what STEWARDRY_TIDY means). With
# STEWARDRY_SKIP_TIDY=1 clang-tidy is left out.
set -euo pipefail
cd "$(dirname "$0")/.."
failed=0

echo "house: arrows, twins, state, lengths, documents, words"
python3 -B scripts/house_report.py || failed=1
python3 -B scripts/operations_tables.py --check || failed=1

echo "house: format"
scripts/format.sh --check || failed=1

if [ "${STEWARDRY_SKIP_TIDY:-}" = 1 ]; then
  echo "house: clang-tidy skipped, STEWARDRY_SKIP_TIDY is 1"
else
  echo "house: clang-tidy (.clang-tidy says which checks, and why)"
  python3 -B scripts/tidy.py || failed=1
fi

[ $failed -eq 0 ] && echo "house: in order"
exit $failed
