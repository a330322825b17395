#!/usr/bin/env bash
# Checks the scripts, checks the format of every C++ file and runs clang-tidy on every source.
# Usage: scripts/lint.sh BUILD_DIR    (a build by clang, already built)
set -euo pipefail
[[ ${1:-} != @(-h|--help) ]] || exec sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
cd "$(dirname "$0")/.."

if [ $# -ne 1 ] || [ ! -f "$1/compile_commands.json" ]; then
    echo "lint.sh: expected a build folder with a compile_commands.json, got '$*'" >&2
    exit 2
fi
echo "lint.sh: shellcheck"
git ls-files '*.sh' .ci/run | xargs shellcheck --severity=warning
echo "lint.sh: clang-format"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror
echo "lint.sh: clang-tidy"
git ls-files '*.cpp' | xargs -n 1 -P "$(nproc)" clang-tidy --quiet -p "$1" 2>/dev/null
