#!/usr/bin/env bash
# How cost grows, in a network namespace of its own and on one processor:
#   run.sh [--built] [CURVE ...]   library, consoles, frames, traffic, start; by default all
#   run.sh --smoke                 the smallest sizes, half a minute
#   run.sh --hour                  the traffic for an hour; --seconds N for another time
#   run.sh --keep                  replaces growth.csv, growth.svg and the table of README.md here
# --built leaves the build out; STEWARDRY_BIN names another folder of programs.
set -euo pipefail
cd "$(dirname "$0")/../.."

if [ "${1:-}" = --built ]; then
  shift
else
  options=(-DSTEWARDRY_BENCH=ON)
  command -v ccache >/dev/null && options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  cmake --preset release "${options[@]}" >/dev/null
  cmake --build --preset release --target growth >/dev/null
fi
# The system's own Python, which has the package's matplotlib.
exec /usr/bin/python3 -B bench/growth/growth.py "$@"
