#include "sim/tool/bad_input.h"

#include <errno.h>
#include <unistd.h>

#include <system_error>
#include <utility>

#include "android-base/file.h"

namespace velmar_sim {

std::string ReadInput(const std::string& path) {
    static bool is_stdin_read = false;
    if (path == "-" && std::exchange(is_stdin_read, true)) {
        throw BadInput("-: standard input is given twice");
    }
    std::string text;
    const bool is_read = path == "-" ? android::base::ReadFdToString(STDIN_FILENO, &text)
                                     : android::base::ReadFileToString(path, &text, true);
    if (is_read) return text;
    throw BadInput(path + ": cannot be read: " + std::generic_category().message(errno));
}

void ThrowUnwritable(const std::string& path, int error) {
    throw BadInput("--trace: " + path +
                   ": cannot be written: " + std::generic_category().message(error));
}

}  // namespace velmar_sim
