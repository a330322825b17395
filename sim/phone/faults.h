#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>

#include "phone.h"

// Injection of the faults that PhoneState holds. While there is none, a call costs one load.
//
// Calls go by the names that phone_state.h lists: "write" is also writev, and a sendfile is a read
// of one file and a write of the other; "stat" is also lstat and fstat, "chmod" fchmod, "unlink"
// remove, "open" fopen and mkstemp. Every other redirected call goes by its own name ("mkdir",
// "truncate", "access"). What stdio reads and writes happens inside libc and is not hit once the
// stream is open; C++ file streams are. A poll or select that already waits is not hit: the fault
// awaits the next one. A poll or select is hit for devices only.
namespace velmar_phone {

// What a fault does to the call that it hits, as in Fault.
struct FaultHit {
    int error = 0;
    int length = 0;
};

// Looks for a rule that hits `call` on `path` or on `other_path` (may be null), and takes one of
// its hits or one of the calls it lets pass. Gives the hit, if there is one. Any thread.
std::optional<FaultHit> TakeFault(const Phone& phone, const char* call, const char* path,
                                  const char* other_path = nullptr);

// The same for a call on descriptor `fd`, which goes by its device's path or by its file's. Any
// thread, signal handlers included.
std::optional<FaultHit> TakeDescriptorFault(const char* call, int fd);

// What a fault does to a `call` that moves `*size` bytes, "read" or "write", before it reaches what
// is open as `fd`: it ends the call or shortens `*size`. Gives the call's result if it is over
// without being made, with errno set if that is -1. Any thread, signal handlers included.
std::optional<ssize_t> EndBefore(const char* call, int fd, size_t* size);

}  // namespace velmar_phone
