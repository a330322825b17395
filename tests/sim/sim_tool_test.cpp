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
#include <vector>

#include "android-base/stringprintf.h"
#include "android-base/strings.h"

#include "sim/modem/phone_folder.h"
#include "sim/tool/child_process.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario_reader.h"

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using velmar_sim::TemporaryFolder;

namespace {

constexpr milliseconds kSoon{10000};

// Whether `holds` comes true soon.
bool Await(const std::function<bool()>& holds) {
    const auto limit = velmar_sim::Clock::now() + kSoon;
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

TEST(ScenarioReader, BadScenariosAreNamedByFileAndLine) {
    const struct {
        std::string text;
        const char* message;
    } cases[] = {
            {"step { runing {} }",
             "f:1:15: Message type \"velmar_sim.Step\" has no field named \"runing\"."},
            {"step {\n  send { type: REQUEST }\n", "f:3:1: Expected identifier, got: "},
            {"step { exit { status: 1 signal: 'SIGKILL' } }",
             "f:1:31: Field \"signal\" is specified along with field \"status\", another member of "
             "oneof \"end\"."},
            {"description: 'd'", "f:1: scenario: expected a step"},
            {"phone { missing: '/data/a'\nmissing: '/dat/a' } step { running {} }",
             "f:2: missing: expected a path of the phone without \"..\": a device, or one in "
             "/data, "
             "/vendor, /mnt/vendor or /sys/devices/platform/cp-tm1, found \"/dat/a\""},
            {"step { write_file { path: '/data/a' mode: '88' } }",
             "f:1: mode: expected permissions in octal such as \"0644\", found \"88\""},
            {"step { signal: 'USR1' }",
             "f:1: signal: expected a signal such as \"SIGUSR1\", found \"USR1\""},
            {"step { log { matching: '(' } }",
             "f:1: matching: expected a regular expression, found \"(\""},
            {"step { log { text: 'a' priority: '8' } }",
             "f:1: priority: expected a priority such as \"I\" or \"4\", found \"8\""},
            {"step { log { text: 'a' for_ms: 5 } }", "f:1: step: expected for_ms in no_log only"},
            {"step { property { name: 'a' } }", "f:1: property: expected value or unset"},
            {"step { set_property { name: 'a' value: '" + std::string(92, 'v') + "' } }",
             "f:1: set_property: expected a value of at most 91 bytes, or a name that begins with "
             "\"ro.\""},
            {"step { fault { path: '/a' error: 'EIO' } }", "f:1: fault: expected call"},
            {"step { fault { call: 'fork' path: '/a' error: 'EFOO' } }",
             "f:1: call: expected a call such as \"read\", found \"fork\"\n"
             "f:1: error: expected an error such as \"EIO\", found \"EFOO\""},
            {"step { answer { payload: 'token' } }",
             "f:1: payload: expected a payload such as \"modem_stat_message\", found \"token\""},
            {"phone { missing_entry_point: 'RILC' } step { running {} }",
             "f:1: missing_entry_point: expected an entry point such as \"RILC_Send\", found "
             "\"RILC\""},
            {"step { send {} any_token: true }", "f:1: step: expected any_token with expect only"},
            {"step { push {} }", "f:1: push: expected source or generated"},
            {"step {}\nstep { exit {} }",
             "f:1: step: expected an action such as send, expect or log\n"
             "f:2: exit: expected status or signal"},
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(text);
        try {
            velmar_sim::ParseScenario("f", text);
            ADD_FAILURE() << "no error was found";
        } catch (const velmar_sim::BadScenario& error) {
            EXPECT_STREQ(error.what(), message);
        }
    }
    velmar_sim::ParseScenario(
            "f", "step { set_property { name: 'ro.a' value: '" + std::string(92, 'v') + "' } }");
}

TEST(LogLineParser, TellsTheLogFromOtherOutput) {
    velmar_sim::LogLineParser parser("stderr");
    std::vector<std::string> lines;
    for (const char* written :
         {"velmar I 11-21 03:15:47  3958  3958 two\nlines\n", "velmar: unknown ",
          "a b E 01-01 00:00:00 1 1 \n", "option\nand E more\n", "rest", ""}) {
        for (const auto& line : parser.Parse(written)) {
            lines.push_back(std::string(1, line.priority) + line.tag + "|" + line.text);
        }
    }
    EXPECT_THAT(lines, ElementsAre("Ivelmar|two\nlines", "Ea b|", " stderr|velmar: unknown option",
                                   " stderr|and E more", " stderr|rest"));
}

TEST(TemporaryFolder, IsRemovedOnceItsOwnerIsGone) {
    const TemporaryFolder parent;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread.
    setenv("TMPDIR", parent.path().c_str(), 1);
    const std::string abandoned = velmar_sim::MakeFolder("sim");
    std::ofstream(abandoned + "/file") << "text";
    const std::string kept = velmar_sim::MakeFolder("kept");
    {
        const TemporaryFolder first;
        const TemporaryFolder second;
        EXPECT_FALSE(std::filesystem::exists(abandoned));
        EXPECT_THAT(EntriesOf(parent), SizeIs(3));
    }
    EXPECT_THAT(EntriesOf(parent), ElementsAre(kept.substr(parent.path().size() + 1)));
}

// Runs of velmar_sim with a folder of their own for temporary files.
class ToolTest : public testing::Test {
  protected:
    void Start(const std::string& scenario, const std::vector<std::string>& options) {
        std::ofstream(path) << scenario;
        std::string words;
        for (const std::string& option : options) words += " '" + option + "'";
        StartShell("exec \"$0\" run '" + path + "'" + words);
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

    void Run(const std::string& scenario, const std::vector<std::string>& options) {
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
    const std::string phone = "phone { no_server: true property { name: 'p' value: 'v' } }\n";
    const std::string log_line = "echo \"velmar E 01-02 03:04:05  1  2 one\" >&2; sleep 60";
    const std::string radio_calls = ShellPhone(
            "echo \"request { request: 226 data: \\\\\"AACDEFGHIJ\\\\\" }\" > "
            "$VELMAR_PHONE_ROOT/radio_calls; sleep 60");
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
            {ShellPhone(log_line) + "step { log { text: 'two' } within_ms: 99 }", 1,
             "s:2: no such log line came within 99 ms\n  expected: velmar: two\n  actual:   -\n"
             "  last log lines:\n    E velmar: one"},
            {ShellPhone(log_line) + "step { log { text: 'one' priority: '6' } }\n"
                                    "step { no_log { text: 'one' } }\n"
                                    "step { log { text: 'one' anywhere: true } }\n"
                                    "step { log { text: 'one' } within_ms: 9 }",
             1, "s:5: no such log line"},
            {ShellPhone(log_line) + "step { no_log { matching: 'o.e' for_ms: 9000 } }", 1,
             "s:2: such a log line came: velmar: /o.e/"},
            {ShellPhone("echo \"x.cpp:1:2: runtime error: y\" >&2") + "step { exit { status: 0 } }",
             1, "s: a sanitizer reported a fault of velmar"},
            {phone + "step { client { argument: '-c' argument: 'echo $0; exit 2' exit_status: 2 "
                     "output: 'velmar' } }",
             1,
             "s:2: the run wrote something else\n  expected: \"velmar\"\n  actual:   "
             "\"velmar\\n\""},
            {phone + "step { property { name: 'p' unset: true } within_ms: 9 }", 1,
             "s:2: property p differs\n  expected: unset\n  actual:   \"v\"\n"},
            {phone + "step { write_file { path: '/data/f' content: 'abc' } }\n"
                     "step { file { path: '/data/f' content: 'abc' mode: '0644' } }\n"
                     "step { file { path: '/data/f' content: 'abX' } within_ms: 9 }",
             1,
             "s:4: /data/f has other content, from byte 2 on\n  expected: \"abX\"\n  actual:   "
             "\"abc\"\n"},
            {phone + "step { send_bytes: 'x' within_ms: 9 }", 1,
             "s:2: velmar has not opened the channel within 9 ms"},
            {phone + "step { running {} }", 1, "s:2: velmar does not run"},
            {phone + "step { radio_request { request: 7 data: 'a' } within_ms: 9 }", 1,
             "s:2: no request reached the radio within 9 ms\n  expected: request 7  61\n"},
            {radio_calls + "step { radio_request { request: 226 data: 'a' } }", 1,
             "s:2: the request to the radio differs\n  expected: request 226  61\n  actual:   "
             "request 226  41 41 43 44 45 46 47 48 49 4a  kind 65, band 17475 value 17989, band "
             "18503 value 19017\n"},
            {radio_calls + "step { no_radio_request { for_ms: 9000 } }", 1,
             "s:2: a request reached the radio"},
            {phone + "step { thermal { write: 'a' } within_ms: 9 }", 1,
             "s:2: the writes to the thermal node differ\n  expected: \"a\"\n  actual:   -\n"},
    };
    for (const auto& [scenario, status, output] : cases) {
        SCOPED_TRACE(scenario);
        Run(scenario, {"--velmar", "/bin/sh", "--time-factor", "1"});
        EXPECT_EQ(ExitStatus(), status);
        EXPECT_THAT(Output(), HasSubstr(output));
        EXPECT_THAT(EntriesOf(temporary), IsEmpty());
    }
}

TEST_F(ToolTest, BadUsageIsRefused) {
    for (const std::string option :
         {"--velmar=/nonexistent", "--time-factor=0", "--unknown", "/no"}) {
        Run("step { running {} }", {option});
        EXPECT_EQ(ExitStatus(), 2);
        EXPECT_THAT(Output(), HasSubstr(option.substr(0, option.find('=')))) << option;
    }
}

TEST_F(ToolTest, ADifferingMessageIsShownFieldByField) {
    Run("phone { modem_state: 4 property { name: 'ro.a' value: 'b' } }\n"
        "step { send { type: REQUEST token: 7 property_message { read_request { name: 'ro.a' } } } "
        "}\nstep { expect { type: RESPONSE message_id: 7 token: 7 result: SUCCESS\n"
        "  property_message { read_response { value: 'c' } } } }\n",
        {"--velmar", VELMAR_PATH, "--time-factor", "4"});
    EXPECT_EQ(ExitStatus(), 1);
    EXPECT_THAT(Output(), HasSubstr("s:3: the message differs"));
    EXPECT_THAT(Output(), HasSubstr("property_message.read_response.value: \"c\" -> \"b\""));
    EXPECT_THAT(Output(), HasSubstr("modem -> velmar  REQUEST token=7 (14 bytes) "
                                    "property_message.read_request { name: \"ro.a\" }"));
}

TEST_F(ToolTest, APushIsSummedUpAndFailsByItsChunk) {
    const std::string push =
            "step { push { generated { size: 1000 } file_dir: FILE_DIRECTORY_MDS file_name: 'f' "
            "chunk_size: 10 } }\n";
    Run("phone { modem_state: 4 }\n" + push + "step { log { text: 'offset: 0x1F4, size: 0x3E8' } }",
        {"--velmar", VELMAR_PATH, "--time-factor", "4"});
    EXPECT_EQ(ExitStatus(), 0);
    const std::string output = Output();
    for (const char* part : {"offset: 0 ", " 10 % of 0.0 MiB", " 90 % of ", " lines like these\n",
                             "pushed and compared 1000 bytes in 100 chunks to /data"}) {
        EXPECT_THAT(output, HasSubstr(part));
    }
    EXPECT_THAT(output, Not(HasSubstr("offset: 500 ")));

    Run("phone { modem_state: 4 missing: '/data/vendor/radio/modem_temp_file' }\n" + push,
        {"--velmar", VELMAR_PATH, "--time-factor", "4"});
    EXPECT_EQ(ExitStatus(), 1);
    EXPECT_THAT(Output(), HasSubstr("s:2: chunk 1 of 100 at offset 0: the message differs"));
}

TEST_F(ToolTest, QuietRunsShowVerdictsAndKeptFoldersStay) {
    Run("phone { no_server: true } step { write_file { path: '/data/f' content: 'abc' } }",
        {"--keep", "--quiet", "--velmar", "/bin/sh"});
    ASSERT_THAT(EntriesOf(temporary), SizeIs(1));
    const std::string kept = temporary.path() + "/" + EntriesOf(temporary).front();
    EXPECT_EQ(Output(), "folder " + kept + "\nPASS s\nPASSED: 1 scenario, 1 step\n");
    EXPECT_EQ(std::filesystem::file_size(kept + "/data/f"), 3U);
}

TEST_F(ToolTest, AKilledRunLeavesNothingBehind) {
    // Each process of the phone has the writing end of this open.
    const std::string held = scratch.path() + "/held";
    ASSERT_EQ(mkfifo(held.c_str(), 0600), 0);
    const struct {
        int signal;
        const char* service;
    } cases[] = {
            {SIGTERM, "sleep 600 & echo started; wait"},
            {SIGINT, "sleep 600 & echo started; wait"},
            // What the service itself has started is not killed then.
            {SIGKILL, "echo started; exec sleep 600"},
    };
    for (const auto& [number, service] : cases) {
        SCOPED_TRACE(number);
        const android::base::unique_fd holders(open(held.c_str(), O_RDONLY | O_NONBLOCK));
        Start(ShellPhone(android::base::StringPrintf("exec 9>%s; %s", held.c_str(), service)) +
                      "step { log { tag: 'stdout' text: 'started' } }\n"
                      "step { say: 'waiting' } step { pause_ms: 600000 }",
              {"--velmar", "/bin/sh"});
        ASSERT_TRUE(Await([this] { return Output().find("waiting") != std::string::npos; }));
        EXPECT_THAT(EntriesOf(temporary), SizeIs(1));
        tool->Signal(number);
        Finish();
        EXPECT_TRUE(WIFSIGNALED(tool->wait_status()));
        EXPECT_THAT(EntriesOf(temporary), SizeIs(number == SIGKILL ? 1 : 0));
        char none = 0;
        EXPECT_TRUE(Await([&] { return read(holders, &none, 1) == 0; }));
    }
    Run("phone { no_server: true } step { say: 'the next run' }", {"--velmar", "/bin/sh"});
    EXPECT_THAT(EntriesOf(temporary), IsEmpty());
}

TEST_F(ToolTest, ClosedOutputsAndBrokenPipesDoNoHarm) {
    Start("", {});
    Finish();
    const std::string scenario = ShellPhone("echo out; echo err >&2; exec sleep 60") +
                                 "step { log { tag: 'stdout' text: 'out' } } step { log { tag: "
                                 "'stderr' text: 'err' anywhere: true } }\n"
                                 "step { file { path: '/data/f' missing: true } }";
    std::ofstream(path) << scenario;
    const std::string run = "\"$0\" run --velmar /bin/sh '" + path + "'";
    StartShell("exec " + run + " <&- >&- 2>&-");
    Finish();
    EXPECT_EQ(ExitStatus(), 0);
    StartShell(run + " | true");
    Finish();
    EXPECT_THAT(EntriesOf(temporary), IsEmpty());
}

}  // namespace
