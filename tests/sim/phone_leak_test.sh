#!/bin/sh
# Proves that no path of the phone gets past libvelmar_phone.so to the workstation:
#  1. of the calls that take a path, work on a device or write to the log it takes over each one that
#     PROGRAM imports, or LIBRARY, which PROGRAM loads as it runs, or a library of PROGRAM;
#  2. COMMAND, run under strace, names no path of the phone to the kernel.
# COMMAND brings its phone along, as velmar_sim does, or finds it by VELMAR_PHONE_ROOT.
# For another processor than this machine's the environment names the EMULATOR.
# Usage: phone_leak_test.sh LIBVELMAR_PHONE.so PROGRAM LIBRARY [COMMAND...]
set -euf
export LC_ALL=C

fail() {
    echo "phone_leak_test: $*" >&2
    exit 1
}

[ $# -ge 3 ] || fail "usage: phone_leak_test.sh LIBVELMAR_PHONE.so PROGRAM LIBRARY [COMMAND...]"
phone=$1 program=$2 library=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The calls that take a path, or a socket's address, which may be one. NAME stands for __NAME,
# NAME64, __NAME_2 and __NAME_chk as well. Left out is sendmsg, which libbase calls on connections.
path_calls='access eaccess euidaccess faccessat acct bind bindtextdomain canonicalize_file_name catopen
chdir chflags l?chmod fchmodat l?chown fchownat chroot connect creat dlm?open exec(l|v|ve)[ep]*(at)?
fanotify_mark f(re)?open fspick ftok fts_open n?ftw futimesat glob inotify_add_watch
l?(get|set|list|remove)xattr link(at)? mk(dir|fifo|nod)(at)? mk(temp|dtemp|o?stemps?) mount umount2?
mount_setattr move_mount name_to_handle_at open(at2?|dir|_tree)? pathconf pivot_root posix_spawnp?
posix_spawn_file_actions_add(open|chdir_np) quotactl readlink(at)? realpath remove rename(at2?)?
revoke rmdir scandir(at)? sendto setmntent l?stat fstatat statx statv?fs swapo(n|ff) symlink(at)?
tempnam truncate unlink(at)? uselib updwtmpx? l?utimes? utimensat utmpx?name wordexp x?mknod(at)?
l?xstat fxstatat'

# The calls that a device answers otherwise than its socket would, that keep track of descriptors, or
# that faults hit. Left out are those that fail on a socket as on a device, such as lseek and pread.
device_calls='close(_range|from)? copy_file_range dup[23]? epoll_ctl fchmod fclose fcntl fx?stat ioctl
p?poll p?select readv? sendfile splice tee vmsplice writev?'

# The calls of liblog that write a line.
log_calls='android_log_(buf_)?(v?print|write) android_log_(assert|write_log(ger_data|_message))
android_log_(b|bt|bs|error_|security_bs?|stats_b)write'

LD_TRACE_LOADED_OBJECTS=1 ${EMULATOR:-} "$program" | grep -o '/[^ ]*' >"$work/loaded"
head -n 1 "$work/loaded" | grep -q '/libvelmar_phone\.so$' ||
    fail "$program does not load libvelmar_phone.so before its other libraries"
grep -vE '/(libc|ld-[^/]*|libvelmar_phone)\.so[^/]*$' "$work/loaded" |
    xargs nm -D --undefined-only "$program" "$library" | sed -n 's/.* [Uw] \([^@]*\).*/\1/p' |
    sort -u | sed -E 'h; s/^(__|_IO_)//; s/_(chk|2)$//; s/64$//; G; s/\n/ /' >"$work/imports"
echo $path_calls $device_calls $log_calls | tr ' ' '\n' | sed 's/.*/^(&) /' >"$work/patterns"
grep -E -f "$work/patterns" "$work/imports" | cut -d' ' -f2 | sort >"$work/required"
nm -D --defined-only "$phone" | awk '{ print $3 }' | sort >"$work/taken_over"
grep -qx read "$work/required" || fail "the imports of $program were not found"
missing=$(comm -23 "$work/required" "$work/taken_over" | tr '\n' ' ')
[ -z "$missing" ] || fail "not taken over, but imported by $program or its libraries: $missing"
echo "all $(wc -l <"$work/required") such calls of $program and its libraries are taken over"
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
