#!/usr/bin/env bash
# Runs a fuzzer, or every one, two at a time. Builds it first.
# Usage: scripts/fuzz.sh TARGET|all SECONDS
#        scripts/fuzz.sh TARGET FILE [OPTION...]    runs one input, with options of libFuzzer
# New inputs that reach new code stay in build/fuzz/corpus/TARGET for the next run. An input that
# brings something to light is kept in build/fuzz/findings/TARGET, and the exit status is 1.
set -euo pipefail
[[ ${1:-} != @(-h|--help) ]] || exec sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
cd "$(dirname "$0")/.."

targets=(received_message file_service diagnostic_config gnss_coex_config)
if [ $# -lt 2 ] || [[ " all ${targets[*]} " != *" $1 "* ]] ||
    ! { [ $# -eq 2 ] && [[ "$2" =~ ^[1-9][0-9]*$ ]]; } && ! { [ "$1" != all ] && [ -f "$2" ]; }; then
    echo "fuzz.sh: expected TARGET|all SECONDS or TARGET FILE, got '$*'; the targets are ${targets[*]}" >&2
    exit 2
fi
[ "$1" = all ] || targets=("$1")

cmake --preset asan >/dev/null
cmake --build --preset asan --target "${targets[@]/#/fuzz_}" -- --quiet

# The phones' files, in memory where that can be had.
TMPDIR=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")" velmar-fuzz-XXXXXX)
trap 'rm -rf "$TMPDIR"' EXIT
export TMPDIR
export ASAN_OPTIONS="quarantine_size_mb=32:malloc_context_size=8${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

if [ -f "$2" ]; then
    build/asan/bin/fuzz_"$1" "${@:3}" "$2"
    exit
fi

# run TARGET SECONDS: returns 1 for a finding.
run() {
    local seeds=$TMPDIR/seeds/$1 corpus=build/fuzz/corpus/$1 findings=build/fuzz/findings/$1 log=build/fuzz/$1.log
    mkdir -p "$seeds" "$corpus" "$findings"
    cp fuzz/corpus/"$1"/* "$seeds"
    # Seeds of the messages' bytes are kept as text.
    if [ "$1" = received_message ]; then
        for seed in "$seeds"/*.textproto; do
            protoc --encode=velmar_message.VelmarMessage proto/velmar_message.proto <"$seed" >"${seed%.textproto}"
            rm "$seed"
        done
    fi
    if ! build/asan/bin/fuzz_"$1" -max_total_time="$2" -timeout=10 -max_len=8192 -print_final_stats=1 \
        -dict="fuzz/dictionaries/$1.dict" -artifact_prefix="$findings/" "$corpus" "$seeds" >"$log" 2>&1; then
        grep -aE '^FINDING|ERROR:|runtime error:' "$log" >&2 || tail -n 5 "$log" >&2
        grep -a 'Test unit written to' "$log" | sed "s,.* to ,fuzz.sh: $1: finding kept in ," >&2
        echo "fuzz.sh: $1: failed, see $log" >&2
        return 1
    fi
    echo "fuzz.sh: $1: nothing found in $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") inputs," \
        "$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log") a second"
}

export -f run
printf '%s\n' "${targets[@]}" | xargs -P 2 -I {} bash -euo pipefail -c "run {} $2" || exit 1
