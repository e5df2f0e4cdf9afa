#!/usr/bin/env bash
# What the service costs at rest, in a network namespace of its own: service_cost.sh [RUNS].
# The programs come from STEWARDRY_BIN, by default build/release/bin.
set -euo pipefail
exec python3 -B "$(dirname "$0")/service_cost.py" "$@"
