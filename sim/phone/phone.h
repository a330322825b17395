#pragma once

#include <atomic>
#include <initializer_list>
#include <string_view>

#include "path_resolver.h"
#include "phone_state.h"

namespace velmar_phone {

struct Device;

// A phone that this process has met, kept until the process ends: descriptors of its devices may
// outlive a change of the environment. Lies in pages of its own, since a signal handler may be the
// first to meet it.
struct Phone {
    // Folder as the environment names it, and as the kernel does.
    PathText root;
    PathText canonical_root;
    PhoneState* state;
    // Devices opened so far.
    std::atomic<Device*> devices;
    Phone* next;
    // The variable's value, by which the phone is found again.
    PathText name;
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

// Gives the workstation's path of what is open as `fd`, if it has one. Any thread.
bool FindOpenPath(int fd, PathText* path);

// Gives `size` zeroed bytes in pages of their own. Any thread.
void* AllocatePages(size_t size);

// Prints the parts as one line after "velmar_phone: " on standard error and aborts. Any thread.
[[noreturn]] void Die(std::initializer_list<std::string_view> parts);

}  // namespace velmar_phone
