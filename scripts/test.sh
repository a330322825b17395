#!/usr/bin/env bash
# Builds everything and runs every test. Ends with ctest's summary.
# Usage: scripts/test.sh [--all]
#   --all  also keeps the service busy for a minute, runs each fuzzer for 20 s, checks format, lint and
#          portability, plays both commands of the README on a fresh Debian 13, and runs the tests
#          again on the phone's processor (in an emulator) and under sanitizers
set -euo pipefail
[[ ${1:-} != @(-h|--help) ]] || exec sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
cd "$(dirname "$0")/.."

if [ $# -gt 1 ] || { [ $# -eq 1 ] && [ "$1" != --all ]; }; then
    echo "test.sh: unexpected arguments '$*': expected nothing or '--all'" >&2
    exit 2
fi

build() {
    echo "test.sh: building preset $1"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" -- --quiet
}

# Most of the tests wait rather than compute.
run_tests() {
    ctest --preset "$1" --parallel "$(($(nproc) * 4))"
}

if [ $# -eq 0 ]; then
    scripts/setup.sh build
    build release
    run_tests release
    exit
fi

scripts/setup.sh all
for preset in release aarch64 asan tsan; do
    build "$preset"
done
scripts/check_portability.sh
scripts/check_android.sh
# Beside the tests, since most of those wait.
nice scripts/lint.sh build/asan &
lint=$!
trap 'kill $lint 2>/dev/null || true' EXIT
run_tests release
run_tests aarch64
run_tests asan
build/release/bin/soak_test
wait "$lint"
scripts/fuzz.sh all 20
scripts/check_debian.sh 13
run_tests tsan
