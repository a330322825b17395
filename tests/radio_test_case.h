#pragma once

#include <android-base/strings.h>
#include <dlfcn.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "phone_test_case.h"
#include "sim/ril/radio_layout.h"

// A phone without a modem, with a radio's client library as far as the test loads one.
class RadioTestCase : public PhoneFolderTestCase {
  protected:
    // Makes a library be found under its name. It stays for the life of the process.
    static void Provide(const std::string& variant) {
        auto library = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../lib" /
                       velmar_radio::kLibraryFolder / variant / "libsitril-client.so";
        ASSERT_NE(dlopen(library.c_str(), RTLD_NOW), nullptr) << "cannot load " << library;
    }

    // How the radio behaves from now on: a velmar_sim.Radio in text form.
    void Behave(const std::string& text) { folder.WriteFile(velmar_radio::kRadioFile, text); }

    // The calls of the library so far as it notes them, without time and quotation marks:
    // "RILC_Open"; no responses. Those that follow begin anew.
    std::vector<std::string> TakeCalls() {
        std::istringstream lines(folder.ReadFile(velmar_radio::kCallsFile).value_or(""));
        folder.Remove(velmar_radio::kCallsFile);
        std::vector<std::string> calls;
        for (std::string line; std::getline(lines, line);) {
            const size_t name = line.find("RILC_");
            if (name == std::string::npos) continue;
            calls.push_back(
                    android::base::StringReplace(line.substr(name), "\"", "", /*all=*/true));
        }
        return calls;
    }
};
