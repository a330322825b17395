#!/usr/bin/env bash
# Runs a fuzzer, or every one, two at a time. Builds it first.
# Usage: scripts/fuzz.sh TARGET|all SECONDS
#        scripts/fuzz.sh TARGET FILE [OPTION...]    runs one input, with options of libFuzzer
# New inputs that reach new code stay in build/fuzz/corpus/TARGET for the next run. An input that
# brings something to light is kept in build/fuzz/findings/TARGET, and the exit status is 1.
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(received_message file_service diagnostic_config gnss_coex_config)

usage() {
    echo "fuzz.sh: expected TARGET|all SECONDS or TARGET FILE, got '$*'; the targets are ${targets[*]}" >&2
    exit 2
}
[ $# -ge 2 ] && [[ " all ${targets[*]} " == *" $1 "* ]] || usage "$@"
input=
if ! [[ $# -eq 2 && "$2" =~ ^[1-9][0-9]*$ ]]; then
    input=$2
    [ "$1" != all ] && [ -f "$input" ] || usage "$@"
fi
[ "$1" = all ] || targets=("$1")

cmake --preset asan >/dev/null
cmake --build --preset asan --target "${targets[@]/#/fuzz_}" -- --quiet

# The phones' files, in memory where that can be had.
TMPDIR=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")" velmar-fuzz-XXXXXX)
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT

export ASAN_OPTIONS="quarantine_size_mb=32:malloc_context_size=8${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

if [ -n "$input" ]; then
    build/asan/bin/fuzz_"$1" "${@:3}" "$input"
    exit
fi

# Seeds of the messages' bytes are kept as text.
write_seeds() {
    mkdir -p "$TMPDIR/seeds/$1"
    cp fuzz/corpus/"$1"/* "$TMPDIR/seeds/$1"
    [ "$1" = received_message ] || return 0
    local seed
    for seed in "$TMPDIR/seeds/$1"/*.textproto; do
        protoc --encode=velmar_message.VelmarMessage proto/velmar_message.proto <"$seed" >"${seed%.textproto}"
        rm "$seed"
    done
}

# run TARGET SECONDS: returns 1 for a finding.
run() {
    local corpus=build/fuzz/corpus/$1 findings=build/fuzz/findings/$1 log=build/fuzz/$1.log
    local options=(-max_total_time="$2" -timeout=10 -max_len=8192 -print_final_stats=1)
    mkdir -p "$corpus" "$findings"
    write_seeds "$1"
    [ ! -f "fuzz/dictionaries/$1.dict" ] || options+=(-dict="fuzz/dictionaries/$1.dict")
    if ! build/asan/bin/fuzz_"$1" "${options[@]}" -artifact_prefix="$findings/" "$corpus" \
        "$TMPDIR/seeds/$1" >"$log" 2>&1; then
        grep -aE '^FINDING|ERROR:|runtime error:' "$log" >&2 || tail -n 5 "$log" >&2
        grep -a 'Test unit written to' "$log" | sed "s,.* to ,fuzz.sh: $1: finding kept in ," >&2
        echo "fuzz.sh: $1: failed, see $log" >&2
        return 1
    fi
    echo "fuzz.sh: $1: nothing found in $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") inputs," \
        "$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log") a second"
}

running=()
failed=0
for target in "${targets[@]}"; do
    if [ ${#running[@]} -eq 2 ]; then
        wait "${running[0]}" || failed=1
        running=("${running[@]:1}")
    fi
    run "$target" "$2" &
    running+=($!)
done
for pid in "${running[@]}"; do
    wait "$pid" || failed=1
done
exit "$failed"
