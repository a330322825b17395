#pragma once

#include <stdio.h>

#include <string>

// What lines of sh write, in which $sim is velmar_sim and $velmar the service.
inline std::string ShellOutput(const std::string& lines) {
    const std::string setup = "exec 2>&1; sim='" VELMAR_SIM_PATH "'; velmar='" VELMAR_PATH "'\n";
    // NOLINTNEXTLINE(cert-env33-c): the lines are the test's own.
    FILE* shell = popen((setup + lines).c_str(), "r");
    std::string written;
    for (int byte = fgetc(shell); byte != EOF; byte = fgetc(shell)) {
        written += static_cast<char>(byte);
    }
    pclose(shell);
    return written;
}
