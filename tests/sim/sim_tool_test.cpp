#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "android-base/stringprintf.h"
#include "android-base/strings.h"

#include "sim/modem/phone_folder.h"
#include "sim/tool/child_process.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario_reader.h"

using android::base::StringPrintf;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using velmar_sim::TemporaryFolder;

namespace {

// Options of a run: the service is the shell, or the real one.
constexpr char kAsShell[] = "--velmar /bin/sh --time-factor 1";
constexpr char kAsVelmar[] = "--velmar " VELMAR_PATH " --time-factor 4";

// Whether `holds` comes true soon.
bool Await(const std::function<bool()>& holds) {
    const auto limit = velmar_sim::Clock::now() + std::chrono::seconds(10);
    while (!holds()) {
        if (velmar_sim::Clock::now() >= limit) return false;
        std::this_thread::sleep_for(milliseconds(2));
    }
    return true;
}

std::vector<std::string> EntriesOf(const TemporaryFolder& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
        names.push_back(entry.path().filename());
    }
    return names;
}

// What the reader says of the scenario "f"; empty when nothing.
std::string ErrorsOf(const std::string& scenario) {
    try {
        velmar_sim::ParseScenario("f", scenario);
        return "";
    } catch (const velmar_sim::BadScenario& error) {
        return error.what();
    }
}

TEST(ScenarioReader, ErrorsAreNamedByFileAndLine) {
    const std::string long_value(92, 'v');
    const std::string property =
            "expected a property's name: 1 to 255 letters, digits and .-_@: without \"..\", and no "
            "dot at either end, found ";
    const std::string push = " file_dir: FILE_DIRECTORY_MDS file_name: 'a' } }";
    // The lines of a scenario, and what is wrong with each.
    const std::pair<std::string, std::string> lines[] = {
            {"phone { missing: '/data/b' missing: '/dat/a' }",
             R"(missing: expected a path of the phone without ".." and byte 0: a device, or one )"
             R"(in /data, /vendor, /mnt/vendor or /sys/devices/platform/cp-tm1, found "/dat/a")"},
            {"step { signal: 'USR1' }",
             R"(signal: expected a signal such as "SIGUSR1", found "USR1")"},
            {"step { log { text: 'a' for_ms: 5 } }", "step: expected for_ms in no_log only"},
            {"step { send {} any_token: true }", "step: expected any_token with expect only"},
            {"step { property { name: 'a' } }", "property: expected value or unset"},
            {"step { set_property { name: 'a' value: '" + long_value + "' } }",
             "set_property: expected a value of at most 91 bytes, or a name that begins with "
             "\"ro.\""},
            {"step { property { name: 'a/b' unset: true } }", "name: " + property + "\"a/b\""},
            {"step { client { argument: '\\0' } }",
             "argument: expected one without byte 0, found \"\\x00\""},
            {"step { send {} }", "step: expected a message of 1 to 131072 bytes, found 0"},
            {"step { send_bytes: '" + std::string(131073, 'a') + "' }",
             "step: expected a message of 1 to 131072 bytes, found 131073"},
            {"step { fault { path: '/a' error: 'EIO' } }", "fault: expected call"},
            {"step { fault { call: 'read' path: '/a' length: 0 times: 2147483648 } }",
             "fault: expected times above 0; times, skip and length of at most 2147483647"},
            {"step { fault { call: 'fork' path: '/a' length: 1 } }",
             R"(call: expected a call such as "read", found "fork")"},
            {"step { push { generated { size: 1 } } }",
             "push: expected a file_dir of FILE_DIRECTORY_MDS or FILE_DIRECTORY_REPLAY"},
            {"step { push { generated {}" + push,
             "push: expected a file of 1 to 4294967295 bytes, found 0"},
            {"step { push { generated { size: 1 } file_dir: FILE_DIRECTORY_MDS file_name: '..' } }",
             R"(push: expected a file_name without ".." and byte 0, found "..")"},
            {"step { push { generated { size: 1 } chunk_size: 0" + push,
             "push: expected a chunk_size of 1 to 65568, found 0"},
            {"step { push { source: '/none'" + push,
             "push: /none cannot be read: No such file or directory"},
            {"step { push { generated { size: 65540 } chunk_size: 65540" + push,
             "push: expected messages of at most 65568 bytes, with a chunk_size of 65540 one has "
             "65569"},
            {"step {}", "step: expected an action such as send, expect or log"},
    };
    std::string scenario;
    std::string errors;
    int number = 0;
    for (const auto& [line, error] : lines) {
        scenario += line + "\n";
        errors += (number == 0 ? "f:" : "\nf:") + std::to_string(number + 1) + ": " + error;
        ++number;
    }
    EXPECT_EQ(ErrorsOf(scenario), errors);
    EXPECT_EQ(ErrorsOf("step { set_property { name: 'ro.a' value: '" + long_value + "' } }"), "");
    EXPECT_EQ(ErrorsOf("step {\n runing {} }"),
              R"(f:2:9: Message type "velmar_sim.Step" has no field named "runing".)");
    EXPECT_EQ(ErrorsOf("description: 'd'"), "f:1: scenario: expected a step");
    std::string faults;
    for (int i = 0; i < 16; ++i) faults += "step { fault { call: 'read' path: '/a' length: 0 } }\n";
    EXPECT_EQ(ErrorsOf(faults + "step { clear_faults {} }" + faults), "");
    EXPECT_EQ(ErrorsOf(faults + "step { say: 'x' }" + faults),
              "f:17: fault: expected at most 16 in a row");
}

TEST(ScenarioReader, WhatIsWrongWithAPatternIsToldWithItsColumn) {
    const std::pair<std::string, std::string> patterns[] = {
            {"(", R"(found "(": missing ): "(")"},
            {"[^]*]", R"(found "[^]*]": write (?s:.) for any character instead of [^])"},
            {"(?!a)b", R"(invalid perl operator: "(?!"; there is no look-ahead: write out)"},
            {"(a)\\\\1", R"(invalid escape sequence: "\\1"; there are no back references: write)"},
            {"((a{99}){99}){99}", R"(invalid repetition size: "{99}")"},
            {std::string(80000, '['), "[[[\"... (80000 bytes)"},
    };
    for (const auto& [pattern, error] : patterns) {
        const std::string errors = ErrorsOf("step {\n log { matching: '" + pattern + "' } }");
        EXPECT_THAT(errors, StartsWith("f:2:8: matching: expected a regular expression, found "));
        EXPECT_THAT(errors, HasSubstr(error));
        EXPECT_LT(errors.size(), 300U);
    }
    EXPECT_EQ(ErrorsOf(R"(step { log { matching: "[\\]\\[^a[]\\[^]\\[]" } })"), "");
}

// Runs of velmar_sim with a folder of their own for temporary files.
class ToolTest : public testing::Test {
  protected:
    void Start(const std::string& scenario, const std::string& options) {
        std::ofstream(path) << scenario;
        StartShell("exec \"$0\" run '" + path + "' " + options);
    }

    // Starts a line of shell in which $0 is velmar_sim.
    void StartShell(const std::string& line) {
        text.clear();
        const auto gather = [this](const std::string& written) {
            const std::lock_guard<std::mutex> guard(lock);
            text += written;
        };
        velmar_sim::Launch launch;
        launch.executable = "/bin/sh";
        launch.arguments = {"sh", "-c", line, VELMAR_SIM_PATH};
        launch.variables = {"TMPDIR=" + temporary.path()};
        tool = std::make_unique<velmar_sim::ChildProcess>(launch, gather, gather);
    }

    // Waits for the end of the program.
    void Finish() {
        EXPECT_TRUE(Await([this] { return !tool->IsRunning(); })) << Output();
    }

    void Run(const std::string& scenario, const std::string& options = kAsShell) {
        Start(scenario, options);
        Finish();
    }

    // All that was written, with the scenario's file named "s".
    std::string Output() {
        const std::lock_guard<std::mutex> guard(lock);
        return android::base::StringReplace(text, path, "s", true);
    }

    int ExitStatus() const { return WEXITSTATUS(tool->wait_status()); }

    const TemporaryFolder scratch;
    const TemporaryFolder temporary;
    const std::string path = scratch.path() + "/s.textproto";
    std::unique_ptr<velmar_sim::ChildProcess> tool;

  private:
    std::mutex lock;
    std::string text;
};

// A phone whose service is a line of shell.
std::string ShellPhone(const std::string& line) {
    return "phone { argument: '-c' argument: '" + line + "' }\n";
}

TEST_F(ToolTest, VerdictsAndExitStatuses) {
    const std::string phone =
            "phone { no_server: true file { path: '/data/f' content: 'abc' mode: '0640' } }\n";
    const std::string radio = ShellPhone(
            "echo \"request { request: 226 data: \\\\\"AACDEFGHIJ\\\\\" }\" > "
            "$VELMAR_PHONE_ROOT/radio_calls; sleep 60");
    const std::string logs = ShellPhone("echo one >&2; sleep 60");
    const struct {
        std::string scenario;
        int status;
        std::string output;
    } cases[] = {
            {"step { running {}", 2, "s:1:18: Expected identifier"},
            {ShellPhone("exit 3") + "step { exit { status: 3 } }", 0,
             "PASS s\nPASSED: 1 scenario, 1 step\n"},
            {ShellPhone("exit 3") + "\nstep { exit { signal: 'SIGKILL' } }", 1,
             "s:3: velmar ended otherwise\n  expected: SIGKILL\n  actual:   exit status 3\n"},
            {ShellPhone("kill -9 $$") + "step { pause_ms: 9000 }", 1,
             "s:2: velmar ended unexpectedly: SIGKILL"},
            {ShellPhone("echo \"x.cpp:1:2: runtime error: y\" >&2") + "step { exit { status: 0 } }",
             1, "s: a sanitizer reported a fault of velmar"},
            {logs + "step { log { tag: 'stderr' text: 'one' } }\n"
                    "step { no_log { tag: 'stderr' text: 'one' } }\n"
                    "step { log { tag: 'stderr' text: 'one' anywhere: true } }\n"
                    "step { log { tag: 'stderr' text: 'one' } within_ms: 9 }",
             1,
             "s:5: no such log line came within 9 ms\n  expected: stderr: one\n  actual:   -\n"
             "  last log lines:\n    stderr: one"},
            {logs + "step { no_log { tag: 'stderr' matching: 'o.e' for_ms: 9000 } }", 1,
             "s:2: such a log line came: stderr: matching \"o.e\""},
            {phone + "step { client { argument: '-c' argument: 'echo $0; exit 2' exit_status: 2 "
                     "output: 'v' } }",
             1, "s:2: the run wrote something else\n  expected: \"v\"\n  actual:   \"velmar\\n\""},
            {phone + "step { property { name: 'p' value: 'v' } within_ms: 9 }", 1,
             "s:2: property p differs\n  expected: \"v\"\n  actual:   unset\n"},
            {phone + "step { file { path: '/data/f' content: 'abc' mode: '0640' } }\n"
                     "step { file { path: '/data/f' content: 'abX' } within_ms: 9 }",
             1, "s:3: /data/f has other content, from byte 2 on\n  expected: \"abX\"\n"},
            {phone + "step { write_file { path: '/data/f' content: '" + std::string(9000, '=') +
                     "\\n\\xff' } }\nstep { file { path: '/data/f' matching: '(=*)*\\n.' } }\n"
                     "step { file { path: '/data/f' matching: '.*=.*=.*;.*' } within_ms: 9 }",
             1, "s:4: /data/f has content that does not match\n  expected: \".*=.*=.*;.*\""},
            {phone + "step { send_bytes: 'x' }", 1, "s:2: velmar does not run"},
            {phone + "step { fault { call: 'read' path: '/data/x' error: 'EIO' } }", 1,
             "s: faults have hit nothing: read /data/x"},
            {radio + "step { radio_request { request: 226 data: 'a' } }", 1,
             "s:2: the request to the radio differs\n  expected: request 226  61\n  actual:   "
             "request 226  41 41 43 44 45 46 47 48 49 4a  kind 65, band 17475 value 17989, band "
             "18503 value 19017\n"},
            {radio + "step { no_radio_request { for_ms: 9000 } }", 1,
             "s:2: a request reached the radio"},
            {phone + "step { thermal { write: 'a' } within_ms: 9 }", 1,
             "s:2: the writes to the thermal node differ\n  expected: \"a\"\n  actual:   -\n"},
    };
    for (const auto& [scenario, status, output] : cases) {
        SCOPED_TRACE(scenario);
        Run(scenario);
        EXPECT_EQ(ExitStatus(), status);
        EXPECT_THAT(Output(), HasSubstr(output));
        EXPECT_THAT(EntriesOf(temporary), IsEmpty());
    }
}

TEST_F(ToolTest, BadUsageIsRefused) {
    for (const std::string option :
         {"--velmar=/nonexistent", "--time-factor=0", "--unknown", "/no"}) {
        Run("step { running {} }", option);
        EXPECT_EQ(ExitStatus(), 2);
        EXPECT_THAT(Output(), HasSubstr(option.substr(0, option.find('=')))) << option;
    }
}

TEST_F(ToolTest, MessagesAndPushesAreShownAndDifferencesNamed) {
    const std::string phone = "phone { modem_state: 4 property { name: 'ro.a' value: 'b' } }\n";
    const std::string push =
            "step { push { generated { size: 1000 } file_dir: FILE_DIRECTORY_MDS file_name: 'f' "
            "chunk_size: 10 } }\n";
    Run(phone + push +
                "step { send { type: REQUEST token: 7 property_message { read_request { name: "
                "'ro.a' } } } }\nstep { expect { type: RESPONSE message_id: 7 token: 7 result: "
                "SUCCESS property_message { read_response { value: 'c' } } } }\n",
        kAsVelmar);
    EXPECT_EQ(ExitStatus(), 1);
    for (const char* part :
         {"offset: 0 ", " 10 % of 0.0 MiB", " 90 % of ", " lines like these\n",
          "pushed and compared 1000 bytes in 100 chunks to /data",
          "modem -> velmar  REQUEST token=7 (14 bytes) property_message.read_request {",
          "s:4: the message differs", "property_message.read_response.value: \"c\" -> \"b\""}) {
        EXPECT_THAT(Output(), HasSubstr(part));
    }
    EXPECT_THAT(Output(), Not(HasSubstr("offset: 500 ")));

    Run(phone + "step { remove_file: '/data/vendor/radio/modem_temp_file' }\n" + push, kAsVelmar);
    EXPECT_THAT(Output(), HasSubstr("s:3: chunk 1 of 100 at offset 0: the message differs"));
}

TEST_F(ToolTest, StepsWaitForAServiceThatStarts) {
    const std::string wrapper = scratch.path() + "/slow";
    std::ofstream(wrapper) << "#!/bin/sh\nsleep 0.3\nexec " VELMAR_PATH " \"$@\"\n";
    ASSERT_EQ(chmod(wrapper.c_str(), 0700), 0);
    const std::string offline = "step { log { text: 'Modem is not online' } }\n";
    // Before the service has installed its handler the signal would end it.
    Run("phone { file { path: '/data/vendor/radio/velmar_pid' } }\n"
        "step { signal: 'SIGUSR1' }" +
                offline +
                "step { signal: 'SIGKILL' }\n"
                "step { exit { signal: 'SIGKILL' } }\nstep { restart {} }\n"
                "step { client { argument: '-e' } }" +
                offline,
        "--time-factor 4 --velmar " + wrapper);
    EXPECT_EQ(ExitStatus(), 0) << Output();
}

// The service logs a line for each reading. Meanwhile nobody reads what the tool shows, which is
// more than a pipe holds.
TEST_F(ToolTest, AReaderThatIsSlowLosesNoLogLine) {
    constexpr int kReadings = 3000;
    std::string scenario =
            "phone { modem_state: 4 }\nstep { send { type: REQUEST modem_temperature_message {"
            " set_request {";
    for (int i = 0; i < kReadings; ++i) scenario += " sensors {}";
    std::ofstream(path) << scenario << " } } } }\nstep { say: '" << std::string(100000, 'x')
                        << "' }\nstep { expect { type: RESPONSE message_id: 10 "
                           "modem_temperature_message { set_response {} } } }\n";
    StartShell("\"$0\" run '" + path + "' " + kAsVelmar +
               " | { sleep 1.5; grep -c -e 'Temp sensor' -e 'lines lost'; }");
    Finish();
    EXPECT_EQ(Output(), std::to_string(kReadings) + "\n");
}

TEST_F(ToolTest, QuietRunsShowVerdictsAndKeptFoldersStay) {
    Run("phone { no_server: true } step { write_file { path: '/data/f' content: 'abc' } }",
        "--keep --quiet --velmar /bin/sh");
    ASSERT_THAT(EntriesOf(temporary), SizeIs(1));
    const std::string kept = temporary.path() + "/" + EntriesOf(temporary).front();
    EXPECT_EQ(Output(), "folder " + kept + "\nPASS s\nPASSED: 1 scenario, 1 step\n");
    Run("step { say: 'the next run removes no folder that is kept' }");
    EXPECT_EQ(std::filesystem::file_size(kept + "/data/f"), 3U);
}

TEST_F(ToolTest, AKilledRunLeavesNothingBehind) {
    // Each process of the phone has the writing end of this open.
    const std::string held = scratch.path() + "/held";
    ASSERT_EQ(mkfifo(held.c_str(), 0600), 0);
    const std::pair<int, const char*> cases[] = {
            {SIGTERM, "sleep 600 & echo started; wait"},
            // What the service itself has started is not killed then.
            {SIGKILL, "echo started; exec sleep 600"},
    };
    for (const auto& [number, service] : cases) {
        SCOPED_TRACE(number);
        const android::base::unique_fd holders(open(held.c_str(), O_RDONLY | O_NONBLOCK));
        Start(ShellPhone(StringPrintf("exec 9>%s; %s", held.c_str(), service)) +
                      "step { log { tag: 'stdout' text: 'started' } }\n"
                      "step { say: 'waiting' } step { pause_ms: 600000 }",
              kAsShell);
        ASSERT_TRUE(Await([this] { return Output().find("waiting") != std::string::npos; }));
        EXPECT_THAT(EntriesOf(temporary), SizeIs(1));
        tool->Signal(number);
        Finish();
        EXPECT_TRUE(WIFSIGNALED(tool->wait_status()));
        EXPECT_THAT(EntriesOf(temporary), SizeIs(number == SIGKILL ? 1 : 0));
        char none = 0;
        EXPECT_TRUE(Await([&] { return read(holders, &none, 1) == 0; }));
    }
    Run("phone { no_server: true } step { say: 'the next run' }");
    EXPECT_THAT(EntriesOf(temporary), IsEmpty());
}

TEST_F(ToolTest, ClosedOutputsAndBrokenPipesDoNoHarm) {
    std::ofstream(path) << ShellPhone("echo out; echo err >&2; exec sleep 60")
                        << "step { log { tag: 'stdout' text: 'out' } }\n"
                           "step { log { tag: 'stderr' text: 'err' anywhere: true } }";
    const std::string run = "\"$0\" run --velmar /bin/sh '" + path + "'";
    StartShell("exec " + run + " <&- >&- 2>&-");
    Finish();
    EXPECT_EQ(ExitStatus(), 0);
    StartShell(run + " | true");
    Finish();
    EXPECT_EQ(Output(), "");
    EXPECT_THAT(EntriesOf(temporary), IsEmpty());
}

}  // namespace
