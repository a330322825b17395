#include "main/pid_file.h"

#include <stdio.h>
#include <unistd.h>

#include <exception>
#include <fstream>
#include <iterator>
#include <string>

#include "base/log.h"

namespace {

constexpr char kPidFile[] = "/data/vendor/radio/velmar_pid";

}  // namespace

int velmar_get_pid() {
    std::ifstream file(kPidFile);
    if (!file.good()) {
        ALOGE("Unable to access pid file");
        return -1;
    }
    try {
        std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        return std::stoi(text);
    } catch (const std::exception& error) {
        ALOGE("%s", error.what());
        return -1;
    }
}

void velmar_write_pid() {
    (void)remove(kPidFile);
    std::ofstream file(kPidFile);
    file << std::to_string(getpid());
}
