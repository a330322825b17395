#pragma once

#include <errno.h>

#include <string>
#include <system_error>

namespace velmar_sim {

// Throws a std::system_error, which is a std::runtime_error, with the text "WHAT: reason". The
// reason is that of `error`, by default of the call that failed last. Any thread.
[[noreturn]] inline void ThrowErrno(const std::string& what, int error = errno) {
    throw std::system_error(error, std::generic_category(), what);
}

}  // namespace velmar_sim
