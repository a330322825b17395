#pragma once

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "sim/modem/phone_folder.h"
#include "sim/phone/phone_state.h"
#include "sim/ril/radio_layout.h"

// Runs the test's process in a phone of its own, without a modem, with a radio's client library as
// far as the test loads one. The process has one thread, so that it may be forked.
class RadioTestCase : public testing::Test {
  protected:
    RadioTestCase() {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet.
        setenv(velmar_phone::kRootVariable, folder.root().c_str(), 1);
    }

    // Makes a library be found under its name. It stays for the life of the process.
    static void Provide(const std::string& variant) {
        auto library = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../lib" /
                       velmar_radio::kLibraryFolder / variant / "libsitril-client.so";
        ASSERT_NE(dlopen(library.c_str(), RTLD_NOW), nullptr) << "cannot load " << library;
    }

    // How the radio behaves from now on.
    void Behave(const std::string& text) { folder.WriteFile(velmar_radio::kBehaviourFile, text); }

    struct Call {
        long long time_ms;
        std::string text;
    };

    // The calls of the library so far that begin with `name`.
    std::vector<Call> Calls(const std::string& name) {
        std::istringstream lines(folder.ReadFile(velmar_radio::kCallsFile).value_or(""));
        std::vector<Call> calls;
        Call call;
        while (lines >> call.time_ms && std::getline(lines >> std::ws, call.text)) {
            if (call.text.compare(0, name.size(), name) == 0) calls.push_back(call);
        }
        return calls;
    }

    // The same, as their texts.
    std::vector<std::string> CallTexts(const std::string& name = "") {
        std::vector<std::string> texts;
        for (const Call& call : Calls(name)) texts.push_back(call.text);
        return texts;
    }

    velmar_sim::PhoneFolder folder;
    LogCapture log;
};
