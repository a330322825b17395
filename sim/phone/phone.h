#pragma once

#include <atomic>
#include <string_view>

#include "path_resolver.h"
#include "phone_state.h"

namespace velmar_phone {

struct Device;

// A simulated phone that this process uses. It stays until the process ends: descriptors of its
// devices may outlive a change of the environment. It lies in pages of its own, since a signal
// handler, which must not allocate from the heap, may be the first to use it.
struct Phone {
    // Folder as the environment names it, and as the kernel does.
    PathText root;
    PathText canonical_root;
    PhoneState* state;
    // Devices opened so far.
    std::atomic<Device*> devices;
    // Connected to the log, or negative; and how many lines it had no room for since the last one.
    std::atomic<int> log;
    std::atomic<int> lost_lines;
    Phone* next;
};

// Gives the phone that VELMAR_PHONE_ROOT names now, or null when it is unset. A value that names
// no phone ends the process with a message. Any thread, signal handlers included.
Phone* CurrentPhone();

// Gives what CurrentPhone() gave last, without looking at the environment. Any thread.
Phone* LastPhone();

// Removes the phone's folder from the front of `path` if what remains is the phone's path;
// otherwise leaves it as it is, since without the folder it would name a file of the workstation.
// Returns whether it was removed. Any thread.
bool StripRoot(const Phone& phone, char* path);

// Sets errno to `error` and returns -1, as a failing call does. Any thread.
int Failure(int error);

// Gives `size` zeroed bytes in pages of their own, or aborts. Any thread.
void* AllocatePages(size_t size);

}  // namespace velmar_phone
