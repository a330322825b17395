#pragma once

#include <stdio.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace velmar_sim {

// A file, a line, an option or an environment with which nothing can be done. The text says what,
// where, and what was expected.
class BadInput : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

using InputFile = std::unique_ptr<FILE, int (*)(FILE*)>;

// The paths of all files that are read, or may still be; /dev/stdin among them. Main thread.
std::vector<std::string>& Inputs();

// Opens the file `path`, or standard input for "-", once, to be read. Throws BadInput. Main thread.
InputFile OpenInput(const std::string& path);

// The whole content of such a file. Throws BadInput. Main thread.
std::string ReadInput(const std::string& path);

// Throws BadInput: nothing, or nothing more, can be read from `path`, for the reason of `error`.
[[noreturn]] void ThrowUnreadable(const std::string& path, int error);

// Throws BadInput: nothing, or nothing more, can be recorded in `path`, for the reason of `error`.
[[noreturn]] void ThrowUnwritable(const std::string& path, int error);

}  // namespace velmar_sim
