#!/usr/bin/env bash
# Formats every source of the project in place. `format.sh --check` only looks, and fails where a
# file would change.
set -euo pipefail
cd "$(dirname "$0")/.."

folders=()
for folder in service sock cim platform lablink lab tools tests bench; do
  [ -d "$folder" ] && folders+=("$folder")
done
mapfile -d '' -t sources < <(find "${folders[@]}" -type f \( -name '*.cpp' -o -name '*.h' \
                                                          -o -name '*.c' \) -print0 | sort -z)
if [ "${1:-}" = --check ]; then
  found=$(clang-format --dry-run -Werror --ferror-limit=1 "${sources[@]}" 2>&1) && exit
  sed -nE 's/^([^ ]+):[0-9]+: error: .*/  BROKEN  \1: scripts\/format.sh would change it/p' <<<"$found"
  exit 1
fi
exec clang-format -i "${sources[@]}"
