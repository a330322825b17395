#!/usr/bin/env bash
# Builds the service and the simulated phone, and plays a tour of what the modem and the phone do for
# each other. Ends with one line that says whether all went as it should.
# Usage: scripts/demo.sh
set -euo pipefail
[[ ${1:-} != @(-h|--help) ]] || exec sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
[ $# -eq 0 ] || { echo "demo.sh: unexpected arguments '$*': expected none" >&2; exit 2; }
cd "$(dirname "$0")/.."

scripts/setup.sh build
cmake --preset release >/dev/null
echo "demo.sh: building"
cmake --build --preset release --target velmar velmar_sim -- --quiet
exec build/release/bin/velmar_sim run scenarios/tour.textproto
