#include "sim/tool/bad_input.h"

#include <errno.h>

#include <system_error>
#include <utility>

#include "android-base/file.h"

namespace velmar_sim {

std::vector<std::string>& Inputs() {
    static std::vector<std::string> inputs = {"/dev/stdin"};
    return inputs;
}

InputFile OpenInput(const std::string& path) {
    Inputs().push_back(path);
    static bool is_stdin_read = false;
    if (path == "-" && std::exchange(is_stdin_read, true)) {
        throw BadInput("-: standard input is given twice");
    }
    // Whatever is opened later must not take the number of standard input.
    const auto close = [](FILE* file) { return file == stdin ? 0 : fclose(file); };
    InputFile file(path == "-" ? stdin : fopen(path.c_str(), "re"), close);
    if (file == nullptr) ThrowUnreadable(path, errno);
    return file;
}

std::string ReadInput(const std::string& path) {
    std::string text;
    const InputFile file = OpenInput(path);
    if (!android::base::ReadFdToString(fileno(file.get()), &text)) ThrowUnreadable(path, errno);
    return text;
}

void ThrowUnreadable(const std::string& path, int error) {
    throw BadInput(path + ": cannot be read: " + std::generic_category().message(error));
}

void ThrowUnwritable(const std::string& path, int error) {
    throw BadInput("--trace: " + path +
                   ": cannot be written: " + std::generic_category().message(error));
}

}  // namespace velmar_sim
