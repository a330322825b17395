#!/usr/bin/env bash
# Checks what an Android tree takes from here: that Android.bp has its format and builds the files
# that CMake builds, that velmar.rc makes every folder that the service expects and the manual's
# lines for ueventd open every node, and that the policy, beside what of the platform bears on it
# (tests/sepolicy), grants the service what it does to each path, no less, and refuses what must
# never hold. With --sepolicy it only names the types that DIR, policy of a tree, declares as well.
# Usage: scripts/check_android.sh [--sepolicy DIR]
set -euo pipefail
[[ ${1:-} != @(-h|--help) ]] || exec sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
if [ $# -ne 0 ] && ! [[ $# -eq 2 && $1 = --sepolicy && -d $2 ]]; then
    echo "check_android.sh: unexpected arguments '$*': expected none, or --sepolicy and a folder" >&2
    exit 2
fi
tree=${2:+$(realpath "$2")}
shopt -s globstar
cd "$(dirname "$0")/.."

policy=android/sepolicy
platform=tests/sepolicy
# Debian keeps the tools of SELinux where only root looks.
PATH+=:/usr/sbin
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "check_android.sh: $*" >&2
    exit 1
}

# Fails, naming the difference, unless FILE names the sources of src/ on the standard input.
expect_sources() {
    diff <(find src -name '*.cpp' | sort) <(sort -u) >&2 ||
        fail "$1: expected every source of src/ (<), and nothing else (>)"
}

check_build() {
    local patterns
    # Its exit status says nothing.
    [ -z "$(bpfmt -d Android.bp)" ] ||
        fail "Android.bp: expected the format of 'bpfmt -w Android.bp'"
    patterns=$(grep -oE 'src/[^"]*\.cpp' Android.bp)
    # shellcheck disable=SC2086  # The patterns are meant to be expanded.
    printf '%s\n' $patterns | expect_sources Android.bp
    grep -oE '[a-z_]+/[a-z_]+\.cpp' src/CMakeLists.txt | sed 's|^|src/|' |
        expect_sources src/CMakeLists.txt
}

# The folders in which the service's sources name something.
folders_of_sources() {
    grep -rohE '"/(data|mnt)/[^"]*/' src | sed 's|^"||; s|/$||' | sort -u
}

check_init() {
    local rc=android/velmar.rc words word dir mode owner node
    local made=' /data/vendor '
    words='on|mkdir|restorecon|restorecon_recursive|service|class|user|group|capabilities'
    words+='|oom_score_adjust|rlimit'
    if grep -vE "^( *#.*|( {4})?($words)( .*)?|)$" $rc >&2; then
        fail "$rc: expected one of '$words' at the start of the lines above"
    fi
    while read -r word dir mode owner; do
        # The root of a partition is ready as soon as it has a label.
        [ "$word" = restorecon ] && made+="$dir " && continue
        [[ $made == *" ${dir%/*} "* ]] || fail "$rc: expected the parent of $dir to be made first"
        [[ $mode =~ ^0[0-7][0-7]0$ ]] || fail "$rc: expected $dir closed to the world, got $mode"
        [ "$owner" = 'radio radio' ] || fail "$rc: expected $dir to be radio's, got '$owner'"
        made+="$dir "
    done < <(grep -E '^ +(mkdir|restorecon) ' $rc)
    for dir in $(folders_of_sources); do
        [[ $made == *" $dir "* ]] || fail "$rc: expected a mkdir for $dir, which src/ names"
    done
    for node in $(grep -rohE '"/(dev|sys)/[^"]*' src | tr -d '"'); do
        grep -qE "^ *$node +0660 radio radio$" <(sed -E 's|( /sys/[^ ]+) |\1/|' docs/porting.md) ||
            fail "docs/porting.md: expected a line for ueventd.rc for $node, which src/ names"
    done
}

# Compiles the policy with the rules in FILE added, into $work/policy; what is wrong with it goes
# into $work/errors.
compile() {
    m4 -s $platform/{classes.conf,macros.m4,platform.te} $policy/*.te "$1" \
        $platform/contexts.conf $policy/genfs_contexts >"$work/source"
    # The labels of properties are checked as if they were the labels of files.
    sed -nE 's|^([^# ]+) +(u:[^ ]+).*|genfscon proc /\1 \2|p' \
        $policy/property_contexts >>"$work/source"
    checkpolicy -M -c 30 -o "$work/policy" "$work/source" >/dev/null 2>"$work/errors"
}

# Says which type the file contexts give PATH.
type_of() {
    selabel_lookup -b file -f "$work/file_contexts" -k "$1" | sed -nE 's/.*:object_r:(.*):s0$/\1/p'
}

# A limit on what is needed must be broken by the policy: one for each permission is added.
check_granted() {
    local path class permissions permission type right
    while read -r path class permissions; do
        type=$(type_of "$path") || fail "$policy: expected a label for $path"
        for permission in $permissions; do
            echo "$path velmar $type:$class $permission"
        done
    done < <(grep -vE '^(#|$)' $platform/granted) >"$work/rights"
    sed -E 's/^[^ ]+ (.*)/neverallow \1;/' "$work/rights" >"$work/limits.te"
    ! compile "$work/limits.te" || fail "$platform/granted: expected what the policy grants"
    while read -r path right; do
        grep -qF "violated by allow ${right% *} { ${right##* } };" "$work/errors" ||
            fail "$policy: expected 'allow $right', for $path"
    done <"$work/rights"
    for path in $(grep -rohE '"/(data|dev|mnt|sys|vendor)/[^"]*' src | tr -d '"'); do
        grep -qF "$path" $platform/granted ||
            fail "$platform/granted: expected $path, which src/ names"
    done
}

# Each rule that must not hold is added on its own.
check_refused() {
    local rule
    while read -r rule; do
        echo "$rule" >"$work/extra.te"
        ! compile "$work/extra.te" || fail "$policy: expected it to refuse: $rule"
        grep -qE 'neverallow failures occurred|duplicate filename transition' "$work/errors" ||
            fail "$platform/refused.te: expected a rule, got: $rule"
    done < <(grep -vE '^(#|$)' $platform/refused.te)
}

# The rules and labels that the manual tells integrators to add go with the limits.
check_advice() {
    sed -nE '/^ *```te/,/^ *```$/p' docs/porting.md | grep -v '```' >"$work/advice.te"
    if ! compile "$work/advice.te"; then
        cat "$work/errors" >&2
        fail "docs/porting.md: expected rules that compile"
    fi
    sed -nE '/^ *```fc/,/^ *```$/p' docs/porting.md | grep -v '```' >>"$work/file_contexts"
    sefcontext_compile -p "$work/policy" -o "$work/compiled" "$work/file_contexts" ||
        fail "docs/porting.md: expected labels that its rules declare"
}

check_policy() {
    if ! compile /dev/null; then
        cat "$work/errors" >&2
        fail "$policy: expected a policy that compiles"
    fi
    {
        cat $platform/file_contexts $policy/file_contexts
        sed -nE 's|^genfscon sysfs (.*)|/sys\1|p' $policy/genfs_contexts
    } >"$work/file_contexts"
    sefcontext_compile -p "$work/policy" -o "$work/compiled" "$work/file_contexts" ||
        fail "$policy/file_contexts: expected labels that the policy knows"
    check_granted
    check_refused
    check_advice
}

# Fails, naming each, if the policy in the folder TREE declares types of this one.
check_collisions() {
    local names
    names=$(sed -nE 's/^(type|attribute) (\w+)[,;].*/\2/p; s/^\w+_prop\((\w+)\)/\1/p' $policy/*.te |
        paste -sd'|')
    if grep -rnE --include='*.te' -e "^\s*(type|attribute)\s+($names)\s*[,;]" \
        -e "^\s*\w+_prop\(\s*($names)\s*\)" "$1" >&2; then
        fail "$1: expected names other than those that $policy declares, in the lines above"
    fi
    echo "check_android.sh: $1 declares nothing that $policy declares"
}

if [ -n "$tree" ]; then
    check_collisions "$tree"
    exit
fi
check_build
check_init
check_policy
echo "check_android.sh: build file, init script and policy fit the service"
