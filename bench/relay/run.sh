#!/usr/bin/env bash
# The relay beside its peers, in a network namespace of its own and on one processor.
#   run.sh [ROUNDS] [--json FILE]   times, by default 7 rounds
#   run.sh --calls                  system calls for each chunk and each trip
# The programs come from STEWARDRY_BIN, by default build/release/bin.
set -euo pipefail
exec python3 -B "$(dirname "$0")/measure.py" "$@"
