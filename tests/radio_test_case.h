#pragma once

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "sim/modem/phone_folder.h"
#include "sim/phone/phone_state.h"
#include "sim/ril/radio.pb.h"
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

    // How the radio behaves from now on: a velmar_sim.Radio in text form.
    void Behave(const std::string& text) { folder.WriteFile(velmar_radio::kRadioFile, text); }

    // The calls of the library so far; with a name, those of this function.
    std::vector<velmar_sim::RadioCall> Calls(const std::string& function = "") {
        std::istringstream lines(folder.ReadFile(velmar_radio::kCallsFile).value_or(""));
        std::vector<velmar_sim::RadioCall> calls;
        velmar_sim::RadioCall call;
        for (std::string line; std::getline(lines, line);) {
            EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(line, &call)) << line;
            if (function.empty() || call.function() == function) calls.push_back(call);
        }
        return calls;
    }

    // The same, each in text form without its time.
    std::vector<std::string> CallTexts() {
        std::vector<std::string> texts;
        for (velmar_sim::RadioCall& call : Calls()) {
            call.clear_time_us();
            texts.push_back(call.ShortDebugString());
        }
        return texts;
    }

    void ForgetCalls() { folder.Remove(velmar_radio::kCallsFile); }

    velmar_sim::PhoneFolder folder;
    LogCapture log;
};
