#!/usr/bin/env bash
# Builds the service and its baselines, measures one beside the other, then works of the simulator,
# and prints a table for each, which docs/performance.md explains. Takes about five minutes; the
# quieter the machine, the better.
# Usage: scripts/bench.sh [OPTION...]    (those of velmar_bench: see --help)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh build
cmake --preset release >/dev/null
echo "bench.sh: building" >&2
cmake --build --preset release --target velmar velmar_bare velmar_bench velmar_radio velmar_sim -- --quiet >&2

# As it is shipped: without symbols.
stripped=build/release/stripped
mkdir -p "$stripped"
for program in velmar velmar_bare; do
    strip -o "$stripped/$program" "build/release/bin/$program"
done
# In memory, where the phone's files cost least, so that the service's own part shows most.
[ -w /dev/shm ] && export TMPDIR=/dev/shm
# All on one processor: how fast one wakes another is not the service's doing.
processors=$(taskset -cp $$)
exec taskset -c "${processors##*[ ,-]}" build/release/bin/velmar_bench \
    --programs "$stripped" "$@"
