#pragma once

#include <stdexcept>
#include <string>

namespace velmar_sim {

// A file, a line, an option or an environment with which nothing can be done. The text says what,
// where, and what was expected.
class BadInput : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The content of the file `path`, or of standard input for "-", once. Throws BadInput. Main
// thread.
std::string ReadInput(const std::string& path);

// Throws BadInput: nothing, or nothing more, can be recorded in `path`, for the reason of `error`.
[[noreturn]] void ThrowUnwritable(const std::string& path, int error);

}  // namespace velmar_sim
