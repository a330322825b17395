#!/usr/bin/env bash
# Checks that src/ needs nothing that the phone's libraries lack: compiles it with clang and libc++,
# the compiler and the C++ library of the phone, then holds every header that it includes and every
# call that it makes against the lists below. Only links what can be: the workstation's platform
# libraries are built for another C++ library.
# Usage: scripts/check_portability.sh
set -euo pipefail
[[ ${1:-} != @(-h|--help) ]] || exec sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
[ $# -eq 0 ] || { echo "check_portability.sh: unexpected arguments '$*': expected none" >&2; exit 2; }
cd "$(dirname "$0")/.."

# What the phone has at API level 32. Look a name up there before you add it.
c_headers='dlfcn errno fcntl getopt limits poll pthread signal stdio string sys/ioctl sys/select
sys/sendfile sys/stat sys/time time unistd'
platform_headers='android-base/file android-base/stringprintf android-base/strings
android-base/unique_fd cutils/properties log/log log/log_radio sys/system_properties'
c_calls='chmod close fchmod fclose fflush fopen fread fseeko ftello fwrite getopt_long getpid
gettimeofday ioctl kill localtime_r lseek memcpy memmove memset open poll printf
pthread_cond_clockwait pthread_create pthread_join pthread_mutex_destroy pthread_mutex_init
pthread_mutex_lock pthread_mutex_unlock pthread_sigmask puts read remove rename sched_yield select
sendfile sigaction sigaddset sigemptyset signal sleep sscanf stat strftime strlen strtok_r unlink usleep write'
platform_calls='__android_log_buf_print __android_log_print __system_property_find dlopen dlsym
property_get property_set
android::base::ReadFileToString android::base::Split android::base::StringPrintf
android::base::WriteFully android::base::WriteStringToFd
google::protobuf::MessageLite::ParseFromArray google::protobuf::MessageLite::SerializeToArray'
# What the compiler, the C++ library and generated headers make of other things.
hidden='_Unwind_\w+|__cxa_\w+|__dso_handle|__errno_location|__gxx_personality_v0|operator .*'
hidden+='|velmar_message::.*|((vtable for|virtual thunk to) )?(std|__cxxabiv1)::.*'
hidden+='|.*google::protobuf::Arena::CreateMaybeMessage<.*'
hidden+='|google::protobuf::internal::ArenaStringPtr::Set'

# Fails, naming WHAT, if the standard input has a line that is not one of the WORDS.
refuse_all_but() {
    local what=$1 words=$2
    if grep -vxF -f <(tr -s ' \n' '\n' <<<"$words") >&2; then
        echo "check_portability.sh: the $what above are not known to exist on the phone" >&2
        exit 1
    fi
}

git ls-files 'src/*.cpp' 'src/*.h' | xargs sed -nE 's/^#include <(.*)\.h>.*/\1/p' | sort -u |
    refuse_all_but headers "$c_headers $platform_headers"

cmake --preset libcxx >/dev/null
cmake --build --preset libcxx -- --quiet
# Linked into one object, the parts leave open what they need from elsewhere.
service=build/libcxx/service.o
ld -r -o "$service" --whole-archive build/libcxx/src/libvelmar_core.a \
    build/libcxx/src/CMakeFiles/velmar.dir/main/main.cpp.o
nm -uC "$service" | sed -E 's/^ *[Uvw] //; s/^__isoc99_//; s/\(.*//' | sort -u |
    { grep -vxE "$hidden" || true; } | refuse_all_but calls "$c_calls $platform_calls"
echo "check_portability.sh: src/ compiles with libc++ and needs nothing that the phone lacks"
