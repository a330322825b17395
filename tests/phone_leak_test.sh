#!/bin/sh
# Proves that no path of the phone gets past libvelmar_phone.so to the workstation:
#  1. every call of the C library that takes a path is taken over. The list comes from the library's
#     own headers, so that a newer one cannot add a call unnoticed;
#  2. wherever PROGRAM and its libraries make such a call, it is bound to the
#     simulated phone (or to the program's own sanitizer, which hands on to it);
#  3. COMMAND, run under strace, names no path of the phone to the kernel.
# COMMAND brings its phone along, as velmar_sim does, or finds it by VELMAR_PHONE_ROOT.
# For another processor than this machine's the environment names its tools: CC and EMULATOR.
# Usage: phone_leak_test.sh LIBVELMAR_PHONE.so [PROGRAM [COMMAND...]]
set -eu
export LC_ALL=C
cc=${CC:-gcc}
emulator=${EMULATOR:-}

fail() {
    echo "phone_leak_test: $*" >&2
    exit 1
}

[ $# -ge 1 ] && [ -f "$1" ] ||
    fail "usage: phone_leak_test.sh LIBVELMAR_PHONE.so [PROGRAM [COMMAND...]]"
phone=$(realpath "$1")
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Names that glibc's headers give to parameters that are, or look like, paths.
parameters='path|pathname|file|filename|dir|dirname|name|special|special_file|from|to|old|new
from_pathname|to_pathname|template|pattern|words|wtmp_file|wtmpx_file|cat_name|ut_file'

# Calls with such a parameter that is something else: a name of a user, a host, a variable, an
# attribute or a symbol; a message; text that is only compared or cut; memory shared by name.
no_paths='__assert.* (__xpg_)?basename dirname fnmatch glob_pattern_p re_compile_pattern regcomp
argp_help dlv?sym envz_.* (secure_)?getenv (un)?setenv f(get|set|remove)xattr (get|set)domainname
get(alias|(host|net|proto|rpc|serv)by|addrinfo|(gr|pw|sg|sp)nam).* (get|set)hostname
(get|set)login(_r)? if_nametoindex (mq|sem|shm)_(open|unlink) memfd_create openpty forkpty
pthread_setname_np rexec(_af)?'

# Calls that libc exports and its headers declare nowhere, or without such names.
undeclared='__open __open64 __open_2 __open64_2 __openat_2 __openat64_2 _IO_fopen _IO_file_fopen
_IO_file_open __xstat __xstat64 __lxstat __lxstat64 __fxstatat __fxstatat64 __xmknod __xmknodat
__statfs __readlink_chk __readlinkat_chk __realpath_chk __setmntent fts_open fts64_open pivot_root
chflags bind connect sendto sendmsg'

one_pattern() { echo "$*" | tr ' ' '|'; }

# Names of all functions that libc's headers declare with a parameter named as above.
list_declared() {
    (cd /usr/include && grep -l 'GNU C Library' ./*.h "$("$cc" -print-multiarch)"/sys/*.h) |
        sed 's|.*-gnu/||; s|^\./||; /regexp\.h\|proc_service\.h\|thread_db\.h\|sys\/elf\.h\|vm86/d' |
        sed 's|.*|#if __has_include(<&>)\n#include <&>\n#endif|' >"$work/all.c"
    "$cc" -E -P -D_GNU_SOURCE "$work/all.c" >"$work/all.i"
    tr '\n' ' ' <"$work/all.i" | tr ';{}' '\n\n\n' | sed 's/__restrict//g; s/__attribute__.*//' |
        grep -E "char *\*( *const)? *\*? *__($(one_pattern $parameters))\b" |
        grep -oE '[A-Za-z_0-9]+ *\(.*' | grep -oE '^[A-Za-z_0-9]+'
}

libc=$("$cc" -print-file-name=libc.so.6)
{ list_declared | grep -vxE "$(one_pattern $no_paths)"; echo $undeclared | tr ' ' '\n'; } |
    sort -u >"$work/path_calls"
nm -D --defined-only "$libc" | sed -n 's/.* \([^ ]*\)@@GLIBC_[0-9].*/\1/p' | sort -u |
    comm -12 - "$work/path_calls" >"$work/required"
nm -D --defined-only "$phone" | awk '{ print $3 }' | sort -u >"$work/taken_over"
[ "$(wc -l <"$work/required")" -ge 140 ] || fail "too few path calls found in the headers of libc"
missing=$(comm -23 "$work/required" "$work/taken_over" | tr '\n' ' ')
[ -z "$missing" ] || fail "not taken over: $missing"
echo "all $(wc -l <"$work/required") calls of $libc that take a path are taken over"
[ $# -ge 1 ] || exit 0

program=$(command -v "$1") || fail "no program: $1"
shift
LD_TRACE_LOADED_OBJECTS=1 LD_WARN=yes LD_BIND_NOW=yes \
    LD_DEBUG=bindings LD_DEBUG_OUTPUT="$work/bound" $emulator "$program" >/dev/null
sed -n "s/.*binding file \([^ ]*\) .* to \([^ ]*\) .* symbol \`\([^']*\)'.*/\3 \1 \2/p" \
    "$work"/bound.* | sort -u |
    awk -v program="$program" '$2 !~ /\/(libc|ld-[^\/]*|libvelmar_phone)\.so[^\/]*$/ &&
        $3 != program && $3 !~ /\/libvelmar_phone\.so$/ { print }' >"$work/elsewhere"
escaping=$(join "$work/required" "$work/elsewhere")
[ -z "$escaping" ] || fail "bound past the phone (call, caller, callee): $escaping"
grep -q 'libvelmar_phone\.so' "$work"/bound.* || fail "$program does not use libvelmar_phone.so"
echo "$program and its libraries make such calls through the phone only"
[ $# -ge 1 ] || exit 0

if ! strace -o /dev/null true 2>/dev/null; then
    echo "SKIPPED: strace is missing or not permitted here; system calls were not watched"
    exit 0
fi
# The leak check of AddressSanitizer does not work under strace.
export ASAN_OPTIONS="${ASAN_OPTIONS:-}:detect_leaks=0"
status=0
strace -f -e trace=file,connect,bind -e signal=none -s 4096 -o "$work/calls" "$@" || status=$?
# Not paths that are looked up: arguments and environments of programs, the text in a link.
sed 's/\[.*\]//; s/^\([0-9 ]*readlink[^,]*"[^"]*"\),.*/\1/; s/symlink\(at\)\{0,1\}("[^"]*"/symlink(/' \
    "$work/calls" >"$work/named"
if grep -E '"(/data|/vendor|/mnt/vendor|/sys/devices/platform/cp-tm1|/dev/oem_ipc1|/dev/umts_boot0)[/"]' \
    "$work/named" >&2; then
    fail "the calls above name paths of the phone to the kernel"
fi
[ "$status" -eq 0 ] || fail "\"$*\" failed with status $status"
echo "$(wc -l <"$work/calls") system calls of \"$*\" name no path of the phone"
