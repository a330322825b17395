#pragma once

#include <sys/uio.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "phone.h"

// Injection of the faults that PhoneState holds. While there is none, a call costs one load.
//
// Families: those that phone_state.h lists; "read" is also readv and pread with its relatives,
// "write" writev and pwrite with theirs, and a sendfile or copy_file_range is a read of one file
// and a write of the other; "stat" is also fstat, "unlink" also remove, "open" also fopen and
// opendir. Every other redirected call goes by its own name ("mkdir", "truncate", "access"). What
// stdio reads and writes happens inside libc and is not hit once the stream is open; C++ file
// streams are. A poll or select that already waits is not hit: the fault awaits the next one.
namespace velmar_phone {

struct FaultHit {
    // errno of the failure, or 0 for a short call.
    int error;
    int length;
};

// Looks for a rule that hits `call` on `path` or on `other_path` (may be null), and takes one of
// its hits or one of the calls it lets pass. Returns whether the call is hit. Any thread.
bool TakeFault(const Phone& phone, const char* call, const char* path, const char* other_path,
               FaultHit* hit);

// The same for a call on descriptor `fd`, which goes by its device's path or by its file's. Any
// thread, signal handlers included.
bool TakeDescriptorFault(const char* call, int fd, FaultHit* hit);

// For calls that can only fail: takes a fault and sets errno. Returns whether the call fails.
bool FailsByFault(const char* call, int fd);

// A fault's effect on one call that moves bytes.
class TransferLimit {
  public:
    // Takes a fault of `call` ("read" or "write") on `fd`.
    TransferLimit(const char* call, int fd) : hit_(TakeDescriptorFault(call, fd, &fault_)) {}

    // Whether the call is over without being made: -1 with errno set, or 0 bytes.
    bool Ends() const;
    ssize_t Result() const { return fault_.error != 0 ? -1 : 0; }

    bool Hit() const { return hit_; }
    size_t Length() const { return static_cast<size_t>(fault_.length); }

    // Shortens the room of the call to what the fault lets through.
    template <typename Data>
    void Shorten(Data** /*data*/, size_t* size) const {
        if (hit_) *size = std::min(*size, Length());
    }
    void Shorten(const iovec** parts, int* count);

  private:
    FaultHit fault_ = {};
    bool hit_;
    iovec first_ = {};
};

}  // namespace velmar_phone
