#pragma once

#include <string>

#include "android-base/unique_fd.h"

// A device of a simulated phone is a listening socket that keeps message boundaries, at the
// device's path; its log is a socket for datagrams. All operations take the workstation's path, of
// any length, throw std::runtime_error, and may be called from any thread.
namespace velmar_sim {

// Begins to listen at `host_path`, in the place of what is there. Accepting does not block.
android::base::unique_fd ListenAt(const std::string& host_path);

// Begins to receive datagrams at `host_path`, in the place of what is there. Receiving does not
// block.
android::base::unique_fd ReceiveAt(const std::string& host_path);

// Opens the device at `host_path` as a program of the phone does.
android::base::unique_fd ConnectTo(const std::string& host_path);

}  // namespace velmar_sim
