#!/usr/bin/env bash
# Checks what goes into an Android tree: the build file, the init script and the SELinux policy, each
# against the sources and, as far as a workstation can, against the platform.
# Usage: scripts/check_android.sh
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "check_android.sh: $*" >&2
    exit 1
}

# Fails with MESSAGE and the differing lines unless FILE and the standard input have the same lines.
require_same() {
    diff "$1" <(sort) >&2 || fail "$2"
}

# bpfmt's exit status is 0 even for a file that it would change.
unformatted=$(bpfmt -d Android.bp 2>&1)
[ -z "$unformatted" ] || fail "Android.bp is not formatted: $unformatted"
git ls-files 'src/*.cpp' | sort >"$work/sources"
shopt -s globstar nullglob
for pattern in $(grep -oE '"src/[^"]*\.cpp"' Android.bp | tr -d '"'); do
    printf '%s\n' $pattern
done | sort -u | require_same "$work/sources" "Android.bp does not list the files of src/"
grep -oE '[a-z_]+/[a-z_]+\.cpp' src/CMakeLists.txt | sed 's|^|src/|' |
    require_same "$work/sources" "src/CMakeLists.txt does not list the files of src/"

# Paths on disk that the service's code names, and the directories that they lie in.
git ls-files 'src/*.cpp' | xargs grep -ohE '"/(data|mnt|dev|sys)/[^"]*"' | tr -d '"' | sort -u \
    >"$work/paths"
[ -s "$work/paths" ] || fail "found no path in src/"
rc=android/velmar.rc
unknown=$(grep -vE '^$|^ *#' $rc | grep -vE '^(on|service) |^    (mkdir|chown|chmod|class|user|group|capabilities|oom_score_adjust|rlimit)\b' || true)
[ -z "$unknown" ] || fail "$rc has lines that init does not know: $unknown"
grep -E '^/(data|mnt)/' "$work/paths" | sed 's|/[^/]*$||' | sort -u >"$work/directories"
sed -nE 's/^    mkdir ([^ ]+) 0770 radio radio$/\1/p' $rc |
    require_same "$work/directories" "$rc does not make the directories of src/, with mode 0770"

policy=android/sepolicy
# Compiles the policy with RULE added.
compile() {
    m4 tests/sepolicy/platform.conf $policy/*.te <(echo "$1") tests/sepolicy/contexts.conf \
        $policy/genfs_contexts >"$work/policy.conf"
    checkpolicy -M -o "$work/policy" "$work/policy.conf" >"$work/log" 2>&1
}
compile "" || fail "the policy does not compile: $(cat "$work/log")"
while read -r rule; do
    ! compile "$rule" || fail "the policy allows: $rule"
    grep -q 'neverallow' "$work/log" || fail "\"$rule\" was refused otherwise: $(cat "$work/log")"
done <<'RULES'
allow velmar vendor_data_file:file write;
allow velmar velmar_data_file:file create;
allow velmar vendor_data_file:dir add_name;
allow velmar velmar_transfer_file:dir create;
allow velmar velmar_transfer_file:lnk_file read;
allow velmar velmar_data_file:lnk_file create;
allow velmar sysfs:file write;
allow velmar system_file:file execute_no_trans;
allow velmar rild:process transition;
allow velmar self:tcp_socket create;
allow velmar self:capability dac_override;
allow velmar default_prop:property_service set;
allow velmar vendor_velmar_config_prop:property_service set;
allow rild velmar_channel_device:chr_file open;
allow rild velmar_boot_device:chr_file ioctl;
allow rild velmar:process transition;
RULES

# Every type of a context is declared, and every path has a context of the service's own.
for type in $(grep -ohE 'object_r:[a-z_]+' $policy/*_contexts | sed 's/.*://' | sort -u); do
    grep -qE "^type $type,|^vendor_internal_prop\($type\)" $policy/*.te ||
        fail "a context names the type $type, which is not declared"
done
grep -v '^$' $policy/file_contexts | awk '{ print $1 }' >"$work/patterns"
sed -n 's/^genfscon sysfs \([^ ]*\).*/\/sys\1/p' $policy/genfs_contexts >>"$work/patterns"
unlabelled=$(sed 's|/$||' "$work/paths" | grep -vxE -f "$work/patterns" || true)
[ -z "$unlabelled" ] || fail "no context matches: $unlabelled"
echo "check_android.sh: the build file, the init script and the policy fit the sources"
