#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/modem/device_socket.h"
#include "sim/modem/fault_injector.h"
#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/tool/child_process.h"
#include "sim/tool/file_push.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario_reader.h"
#include "sim/tool/transcript.h"

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using velmar_message::VelmarMessage;
using velmar_sim::ResponsePolicy;

namespace {

constexpr milliseconds kSoon{10000};
constexpr milliseconds kAtOnce{0};

using velmar_sim::TemporaryFolder;

std::vector<std::string> EntriesOf(const TemporaryFolder& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
        names.push_back(entry.path().filename());
    }
    return names;
}

// ---- The scenario reader ----

TEST(ScenarioReader, BadScenariosAreNamedByFileAndLine) {
    struct Case {
        const char* text;
        const char* message;
    };
    const Case cases[] = {
            {"step { runing {} }",
             "f:1:15: Message type \"velmar_sim.Step\" has no field named \"runing\"."},
            {"step {\n  send { type: REQUEST }\n", "f:3:1: Expected identifier, got: "},
            {"description: \"d\"", "f:1: scenario: expected at least one step"},
            {"\nstep {}", "f:2: step: expected an action such as send, expect or log"},
            {"phone {\n\n  file { path: \"a\" }\n}\nstep { running {} }",
             "f:3: file: expected an absolute path without \"..\", found \"a\""},
            {"phone { missing: \"/data/../etc\" } step { running {} }",
             "f:1: missing: expected an absolute path without \"..\", found \"/data/../etc\""},
            {"phone { umask: \"88\" } step { running {} }",
             "f:1: umask: expected permissions in octal such as \"0644\", found \"88\""},
            {"step { signal: \"USR1\" }",
             "f:1: signal: expected a signal such as \"SIGUSR1\", found \"USR1\""},
            {"step { exit {} }", "f:1: exit: expected status or signal"},
            {"step { log {} }", "f:1: log: expected text or matching"},
            {"step { log { text: \"a\" priority: \"8\" } }",
             "f:1: log: expected a priority such as \"I\" or \"4\", found \"8\""},
            {"step { log { text: \"a\" for_ms: 5 } }", "f:1: log: expected for_ms in no_log only"},
            {"step { file { path: \"/a\" content: \"\" missing: true } }",
             "f:1: file: expected one of content, matching and missing"},
            {"step { file { path: \"/a\" } }",
             "f:1: file: expected content, matching, missing or mode"},
            {"step { property { name: \"a\" } }", "f:1: property: expected value or unset"},
            {"step { fault { call: \"fork\" path: \"/a\" error: \"EIO\" } }",
             "f:1: fault: expected a call such as \"read\", found \"fork\""},
            {"step { fault { call: \"read\" path: \"/a\" error: \"EFOO\" } }",
             "f:1: fault: expected an error such as \"EIO\", found \"EFOO\""},
            {"step { fault { call: \"read\" path: \"/a\" error: \"EIO\" length: 1 } }",
             "f:1: fault: expected error or length"},
            {"step { answer { payload: \"token\" } }",
             "f:1: answer: expected a payload such as \"modem_stat_message\", found \"token\""},
            {"step { radio { answer { none: true twice: true } } }",
             "f:1: radio: expected nothing beside none in an answer"},
            {"step { radio_request { request: 1 } }",
             "f:1: radio_request: expected request and data"},
            {"phone { missing_entry_point: \"RILC_Opem\" } step { running {} }",
             "f:1: missing_entry_point: expected an entry point such as \"RILC_Send\", found "
             "\"RILC_Opem\""},
            {"step { send {} any_token: true }",
             "f:1: send: any_token: expected an expect with it"},
            {"step { push {} }", "f:1: push: expected source or generated"},
            {"step { push { generated { size: 1 } source: 'a' } }",
             "f:1:43: Field \"source\" is specified along with field \"generated\", another member "
             "of oneof \"origin\"."},
            {"step { push { generated { size: 1 } file_dir: FILE_DIRECTORY_RESERVED } }",
             "f:1: push: expected a file_dir of FILE_DIRECTORY_MDS or FILE_DIRECTORY_REPLAY"},
            {"step { push { generated {} file_dir: FILE_DIRECTORY_MDS file_name: 'a/../b' } }",
             "f:1: push: expected a file_name without \"..\", found \"a/../b\""},
            {"step { push { generated {} file_dir: FILE_DIRECTORY_MDS file_name: 'a' } }",
             "f:1: push: expected a file of 1 to 4294967295 bytes, found 0"},
            {"\nstep { push { source: 'none' file_dir: FILE_DIRECTORY_MDS file_name: 'a' } }",
             "f:2: push: none cannot be read: No such file or directory"},
            {"step { push { generated { size: 65537 } file_dir: FILE_DIRECTORY_MDS file_name: "
             "'full' "
             "chunk_size: 65537 } }",
             "f:1: push: expected messages of at most 65568 bytes, with a chunk_size of 65537 one "
             "has "
             "65569"},
            {"step { push { generated { size: 1 } file_dir: FILE_DIRECTORY_MDS file_name: 'a' "
             "chunk_size: 0 } }",
             "f:1: push: expected a chunk_size of 1 to 65568, found 0"},
            {"step {}\nstep { exit {} }",
             "f:1: step: expected an action such as send, expect or log\n"
             "f:2: exit: expected status or signal"},
    };
    for (const Case& bad : cases) {
        SCOPED_TRACE(bad.text);
        try {
            velmar_sim::ParseScenario("f", bad.text);
            ADD_FAILURE() << "no fault was found";
        } catch (const velmar_sim::BadScenario& error) {
            EXPECT_STREQ(error.what(), bad.message);
        }
    }
    EXPECT_THROW(velmar_sim::ParseScenario("f", "step { log { matching: \"(\" } }"),
                 velmar_sim::BadScenario);
}

TEST(ScenarioReader, PushedFilesLieBesideTheScenario) {
    const TemporaryFolder folder;
    std::ofstream(folder.path() + "/pushed") << "text";
    const auto file = velmar_sim::ParseScenario(
            folder.path() + "/s",
            "step { push { source: 'pushed' file_dir: FILE_DIRECTORY_MDS file_name: 'a' } }");
    EXPECT_EQ(file.scenario.step(0).push().source(), folder.path() + "/pushed");
}

TEST(LogLineParser, TellsTheLogFromOtherOutput) {
    velmar_sim::LogLineParser cutter("stderr");
    std::vector<std::string> lines;
    const auto cut = [&](const std::string& written) {
        for (const auto& line : cutter.Parse(written)) {
            lines.push_back(std::string(1, line.priority) + line.tag + "|" + line.text);
        }
    };
    cut("velmar I 11-21 03:15:47  3958  3958 two\nlines\n");
    cut("velmar: unknown ");
    cut("a b E 01-01 00:00:00 1 1 \n");
    cut("option\nand E more\n");
    cut("rest");
    EXPECT_THAT(lines, ElementsAre("Ivelmar|two\nlines", "Ea b|", " stderr|velmar: unknown option",
                                   " stderr|and E more"));
    EXPECT_EQ(cutter.Finish().at(0).text, "rest");
}

// ---- The modem ----

// The service's side of a device, without a service.
class Opener {
  public:
    Opener(const velmar_sim::PhoneFolder& folder, const std::string& name)
        : state(folder.MapState()), fd(velmar_sim::ConnectTo(folder.HostPath("/dev/" + name))) {
        const timeval limit = {10, 0};
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }

    // One message; "-" when there is none right now or the modem is gone.
    std::string Read(int flags = 0) const {
        std::string buffer(200000, '\0');
        const ssize_t size = recv(fd.get(), buffer.data(), buffer.size(), flags);
        if (size > 0) ++state->channel_reads;
        return size < 0 ? "-" : buffer.substr(0, static_cast<size_t>(size));
    }

    VelmarMessage ReadMessage() const {
        VelmarMessage message;
        EXPECT_TRUE(message.ParseFromString(Read()));
        return message;
    }

    void Write(const std::string& bytes) const {
        EXPECT_EQ(send(fd.get(), bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }

    void Close() { fd.reset(); }

  private:
    velmar_sim::StatePtr state;
    android::base::unique_fd fd;
};

class ModemTest : public testing::Test {
  protected:
    static std::string Request(uint32_t token) {
        VelmarMessage message;
        message.set_type(velmar_message::REQUEST);
        message.set_token(token);
        message.mutable_extended_log_message()->mutable_request();
        return message.SerializeAsString();
    }

    velmar_sim::PhoneFolder folder;
    velmar_sim::SimulatedModem modem{folder};
    velmar_sim::FaultInjector injector{folder};
};

TEST_F(ModemTest, WhatNobodyHasReadWaitsForTheNextReader) {
    const auto closed = [this] { return !modem.WaitForChannel(kAtOnce); };
    EXPECT_TRUE(closed());
    modem.SendBytes("1");
    {
        const Opener first(folder, "oem_ipc1");
        const Opener second(folder, "oem_ipc1");
        for (const char* message : {"2", "3", "4"}) modem.SendBytes(message);
        EXPECT_EQ(first.Read(), "1");
        EXPECT_EQ(first.Read(), "2");
        EXPECT_EQ(second.Read(MSG_DONTWAIT), "-");
        second.Write("both are heard");
        EXPECT_EQ(modem.Receive(kSoon)->bytes, "both are heard");
    }
    EXPECT_TRUE(closed());
    modem.SendBytes("5");
    const Opener third(folder, "oem_ipc1");
    for (const char* message : {"3", "4", "5"}) EXPECT_EQ(third.Read(), message);

    modem.SendEndOfFile();
    EXPECT_EQ(third.Read(), "");
    EXPECT_TRUE(closed());
    EXPECT_THROW(modem.SendEndOfFile(), std::runtime_error);
}

TEST_F(ModemTest, HangingUpLosesNothing) {
    Opener first(folder, "oem_ipc1");
    for (const char* message : {"1", "2"}) modem.SendBytes(message);
    modem.HangUp();
    EXPECT_FALSE(modem.WaitForChannel(kAtOnce));
    const Opener second(folder, "oem_ipc1");
    modem.SendBytes("3");
    EXPECT_EQ(first.Read(), "1");
    first.Close();
    for (const char* message : {"2", "3"}) EXPECT_EQ(second.Read(), message);
}

TEST_F(ModemTest, MessagesOfEverySizeKeepTheirBorders) {
    const Opener opener(folder, "oem_ipc1");
    for (const size_t size : {1, 65568, 131072}) {
        modem.SendBytes(std::string(size, 'm'));
        modem.SendBytes("next");
        EXPECT_EQ(opener.Read().size(), size);
        EXPECT_EQ(opener.Read(), "next");
        opener.Write(std::string(size, 'p'));
        opener.Write("next");
        EXPECT_EQ(modem.Receive(kSoon)->bytes.size(), size);
        EXPECT_EQ(modem.Receive(kSoon)->bytes, "next");
    }
    EXPECT_FALSE(modem.Receive(kAtOnce).has_value());
}

TEST_F(ModemTest, AnswersAsItIsTold) {
    const Opener opener(folder, "oem_ipc1");
    // Nothing is answered without a policy.
    opener.Write(Request(1));
    EXPECT_TRUE(modem.Receive(kSoon)->message.has_extended_log_message());

    ResponsePolicy slow;
    slow.delay = milliseconds(300);
    slow.result = velmar_message::FAILURE;
    modem.SetResponsePolicy(slow, VelmarMessage::kExtendedLogMessage);
    const auto asked = velmar_sim::Clock::now();
    opener.Write(Request(2));
    EXPECT_TRUE(modem.Receive(milliseconds(250)).has_value());
    EXPECT_EQ(opener.ReadMessage().ShortDebugString(), "type: RESPONSE token: 2 result: FAILURE");
    EXPECT_GE(velmar_sim::Clock::now() - asked, slow.delay);

    // A policy for all takes the place of that for one payload.
    ResponsePolicy odd;
    odd.delay = milliseconds(0);
    odd.result = std::nullopt;
    odd.copies = 2;
    odd.unknown_token_first = true;
    modem.SetResponsePolicy(odd);
    opener.Write(Request(3));
    EXPECT_NE(opener.ReadMessage().token(), 3U);
    EXPECT_EQ(opener.ReadMessage().ShortDebugString(), "type: RESPONSE token: 3");
    EXPECT_EQ(opener.ReadMessage().ShortDebugString(), "type: RESPONSE token: 3");

    odd.responds = false;
    modem.SetResponsePolicy(odd, VelmarMessage::kExtendedLogMessage);
    opener.Write(Request(4));
    VelmarMessage other;
    other.set_type(velmar_message::REQUEST);
    other.set_token(5);
    opener.Write(other.SerializeAsString());
    opener.ReadMessage();
    EXPECT_EQ(opener.ReadMessage().token(), 5U);
}

TEST_F(ModemTest, StateChangesWakeWhoeverHasTheBootDeviceOpen) {
    const Opener early(folder, "umts_boot0");
    modem.SetState(4);
    const std::string page = folder.ReadFile(velmar_phone::kStateFile).value();
    EXPECT_EQ(page.at(0), 4);
    EXPECT_EQ(early.Read().size(), 1U);
    EXPECT_EQ(early.Read(MSG_DONTWAIT), "-");
    const Opener late(folder, "umts_boot0");
    EXPECT_EQ(late.Read(MSG_DONTWAIT), "-");
    modem.SetState(-1);
    EXPECT_EQ(early.Read().size(), 1U);
    EXPECT_EQ(late.Read().size(), 1U);
}

TEST_F(ModemTest, FaultsFillTheFreeSlots) {
    const auto state = [&] {
        const std::string page = folder.ReadFile(velmar_phone::kStateFile).value();
        velmar_phone::PhoneState copy;
        memcpy(static_cast<void*>(&copy), page.data(), sizeof(copy));
        return std::make_pair(copy.fault_count.load(), copy.faults[0].remaining.load());
    };
    velmar_sim::FaultRule rule = {"read", "/dev/oem_ipc1", EIO, 0, 3, 1};
    for (int i = 0; i < velmar_phone::kMaxFaults; ++i) injector.Add(rule);
    EXPECT_EQ(state(), std::make_pair(velmar_phone::kMaxFaults, 3));
    EXPECT_THROW(injector.Add(rule), std::runtime_error);
    injector.Clear();
    EXPECT_EQ(state(), std::make_pair(0, 0));
    injector.Add(rule);
    EXPECT_EQ(state(), std::make_pair(1, 3));
    rule.path = std::string(300, 'x');
    EXPECT_THROW(injector.Add(rule), std::runtime_error);
}

TEST(PhoneFolder, HasLongNamesAndModesWhateverTheUmask) {
    const TemporaryFolder above;
    const std::string long_name = above.path() + "/" + std::string(150, 'n');
    const mode_t before = umask(0777);
    const velmar_sim::PhoneFolder folder(long_name);
    folder.WriteFile("/data/new/file", "text", 0640);
    umask(before);
    EXPECT_EQ(folder.Mode("/data/vendor/radio/modem_temp_file"), 0770);
    EXPECT_EQ(folder.Mode("/data/new/file"), 0640);
    EXPECT_THROW(folder.ReadFile("/data/../../escape"), std::runtime_error);

    velmar_sim::SimulatedModem modem(folder);
    const Opener opener(folder, "oem_ipc1");
    EXPECT_TRUE(modem.WaitForChannel(kSoon));
}

// ---- Pushed files ----

class PushTest : public testing::Test {
  protected:
    static velmar_sim::Push Generated(uint32_t size, uint32_t chunk_size) {
        velmar_sim::Push push;
        push.mutable_generated()->set_size(size);
        push.set_file_dir(velmar_message::FILE_DIRECTORY_MDS);
        push.set_file_name("f");
        push.set_chunk_size(chunk_size);
        return push;
    }

    // The bytes of all chunks; what each is besides goes to `chunks`.
    static std::string Gather(velmar_sim::FilePush* file, std::vector<std::string>* chunks) {
        std::string bytes;
        while (file->Next()) {
            VelmarMessage message = file->message();
            auto* content = message.mutable_file_message();
            const bool is_request = content->has_file_write_request();
            auto* data = is_request ? content->mutable_file_write_request()->mutable_data()
                                    : content->mutable_file_write_indication()->mutable_data();
            bytes += *data;
            data->clear();
            chunks->push_back(message.ShortDebugString());
        }
        return bytes;
    }

    velmar_sim::PhoneFolder folder;
};

TEST_F(PushTest, ContentDependsOnSizeAndSeedOnly) {
    std::vector<std::string> contents;
    for (const uint32_t chunk_size : {1, 7, 60000}) {
        velmar_sim::Push push = Generated(1000, chunk_size);
        velmar_sim::FilePush file(push, folder);
        std::vector<std::string> chunks;
        contents.push_back(Gather(&file, &chunks));
        EXPECT_EQ(chunks.size(), file.chunk_count());
    }
    EXPECT_EQ(contents[0].size(), 1000U);
    EXPECT_THAT(contents, testing::Each(contents[0]));
    velmar_sim::Push other = Generated(1000, 60000);
    other.mutable_generated()->set_seed(1);
    velmar_sim::FilePush file(other, folder);
    std::vector<std::string> chunks;
    EXPECT_NE(Gather(&file, &chunks), contents[0]);
}

TEST_F(PushTest, ChunksSayWhereTheyBelong) {
    velmar_sim::Push push = Generated(5, 2);
    push.set_as(velmar_sim::Push::ALTERNATING);
    velmar_sim::FilePush file(push, folder);
    std::vector<std::string> chunks;
    Gather(&file, &chunks);
    const std::string name = "data: \"\" file_name: \"f\" max_data_size: 5 ";
    EXPECT_THAT(chunks, ElementsAre("type: REQUEST message_id: 9 token: 0 file_message { "
                                    "file_write_request { " +
                                            name + "offset: 0 file_dir: FILE_DIRECTORY_MDS } }",
                                    "type: INDICATION message_id: 9 file_message { "
                                    "file_write_indication { " +
                                            name + "offset: 2 file_dir: FILE_DIRECTORY_MDS } }",
                                    "type: REQUEST message_id: 9 token: 2 file_message { "
                                    "file_write_request { " +
                                            name + "offset: 4 file_dir: FILE_DIRECTORY_MDS } }"));
    EXPECT_EQ(file.ChunkName(), "chunk 3 of 3 at offset 4");
}

TEST_F(PushTest, TheStoredFileIsComparedInEveryRespect) {
    const std::string target = "/data/vendor/radio/mds/f";
    const std::string unfinished = "/data/vendor/radio/modem_temp_file/f";
    folder.WriteFile(target, "old");
    velmar_sim::Push push = Generated(3, 2);
    push.set_as(velmar_sim::Push::INDICATION);
    velmar_sim::FilePush file(push, folder);
    std::vector<std::string> chunks;
    const std::string content = Gather(&file, &chunks);

    folder.WriteFile(unfinished, "");
    EXPECT_EQ(file.StoredDifference(), unfinished + " exists, expected none");
    folder.Remove(unfinished);
    folder.WriteFile(target, content, 0666);
    EXPECT_EQ(file.StoredDifference(), target + " was not replaced");
    folder.Remove(target);
    EXPECT_EQ(file.StoredDifference(), target + " does not exist");
    folder.WriteFile(target, content, 0644);
    EXPECT_THAT(file.StoredDifference(), HasSubstr(target + " has another mode"));
    folder.WriteFile(target, content + "x", 0666);
    EXPECT_EQ(file.StoredDifference(), target + " has another size\n  expected: 3\n  actual:   4");
    folder.WriteFile(target, "abc", 0666);
    EXPECT_THAT(file.StoredDifference(), HasSubstr(target + " differs from byte 0 on"));
    folder.WriteFile(target, content, 0666);
    EXPECT_EQ(file.StoredDifference(), "");
}

TEST(Progress, IsShownInFigures) {
    EXPECT_EQ(velmar_sim::ProgressText(0, 1),
              "[..............................]   0 %  0.0 of 0.0 MiB");
    EXPECT_EQ(velmar_sim::ProgressText(uint64_t{3} << 30, uint64_t{4} << 30),
              "[######################........]  75 %  3072.0 of 4096.0 MiB");
    EXPECT_EQ(velmar_sim::ProgressText(7, 7),
              "[##############################] 100 %  0.0 of 0.0 MiB");
}

// ---- The program ----

// Whether `holds` comes true soon.
bool Await(const std::function<bool()>& holds) {
    const auto limit = velmar_sim::Clock::now() + kSoon;
    while (!holds()) {
        if (velmar_sim::Clock::now() >= limit) return false;
        std::this_thread::sleep_for(milliseconds(2));
    }
    return true;
}

// One run of velmar_sim with its own folder for temporary files.
class ToolTest : public testing::Test {
  protected:
    void Start(const std::string& scenario, std::vector<std::string> options) {
        const std::string file = scratch.path() + "/s.textproto";
        std::ofstream(file) << scenario;
        options.insert(options.begin(), {"velmar_sim", "run", file});
        velmar_sim::Launch launch;
        launch.executable = VELMAR_SIM_PATH;
        launch.arguments = std::move(options);
        launch.variables = {"TMPDIR=" + temporary.path()};
        StartProgram(launch);
    }

    void StartProgram(const velmar_sim::Launch& launch) {
        text.clear();
        const auto gather = [this](const std::string& written) {
            const std::lock_guard<std::mutex> guard(lock);
            text += written;
        };
        tool = std::make_unique<velmar_sim::ChildProcess>(launch, gather, gather);
    }

    // Waits for the end of the program.
    void Finish() {
        while (tool->IsRunning()) std::this_thread::sleep_for(milliseconds(2));
    }

    void Run(const std::string& scenario, std::vector<std::string> options) {
        Start(scenario, std::move(options));
        Finish();
    }

    bool AwaitOutput(const std::string& part) {
        return Await([&] { return Output().find(part) != std::string::npos; });
    }

    // All that was written, with the scenario's file named "s".
    std::string Output() {
        const std::lock_guard<std::mutex> guard(lock);
        std::string shown = text;
        const std::string file = scratch.path() + "/s.textproto";
        for (size_t at = shown.find(file); at != std::string::npos; at = shown.find(file)) {
            shown.replace(at, file.size(), "s");
        }
        return shown;
    }

    int ExitStatus() const { return WEXITSTATUS(tool->wait_status()); }

    TemporaryFolder scratch;
    TemporaryFolder temporary;
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
    struct Case {
        std::string scenario;
        int status;
        std::vector<std::string> output;
    };
    const std::string log_line = "echo \"velmar E 01-02 03:04:05  1  2 one\" >&2";
    const std::string radio_calls =
            "phone { no_server: true }\n"
            "step { write_file { path: '/radio_calls' content: 'function: \"RILC_Open\"\\n"
            "request { request: 226 data: \"AACDEFGHIJ\" }\\n' } }\n";
    const Case cases[] = {
            {"step { running {}", 2, {"s:1:18: Expected identifier"}},
            {ShellPhone("exit 3") + "step { exit { status: 3 } }",
             0,
             {"PASS s\n", "PASSED: 1 scenarios, 1 steps\n"}},
            {ShellPhone("exit 3") + "\nstep { exit { signal: 'SIGKILL' } }",
             1,
             {"s:3: velmar ended otherwise\n  expected: SIGKILL\n  actual:   exit status 3\n",
              "FAIL s\n", "FAILED: 1 of 1 scenarios\n"}},
            {ShellPhone("kill -9 $$") + "step { pause_ms: 9000 }",
             1,
             {"s:2: velmar ended unexpectedly: SIGKILL"}},
            {ShellPhone(log_line + "; sleep 60") + "step { log { text: 'two' } within_ms: 99 }",
             1,
             {"s:2: no such log line came within 99 ms\n  expected: velmar: two",
              "last log lines:\n    E velmar: one"}},
            {ShellPhone(log_line + "; sleep 60") + "step { log { text: 'one' priority: '6' } }\n"
                                                   "step { no_log { text: 'one' } }\n"
                                                   "step { log { text: 'one' anywhere: true } "
                                                   "}\nstep { log { text: 'one' } within_ms: 9 }",
             1,
             {"s:5: no such log line"}},
            {ShellPhone(log_line + "; sleep 60") +
                     "step { no_log { matching: 'o.e' for_ms: 9000 } }",
             1,
             {"s:2: such a log line came: velmar: /o.e/"}},
            {ShellPhone("echo \"x.cpp:1:2: runtime error: y\" >&2") + "step { exit { status: 0 } }",
             1,
             {"a sanitizer reported a fault of velmar"}},
            {"phone { no_server: true }\nstep { client { argument: '-c' argument: 'echo $0; exit "
             "2' "
             "exit_status: 2 output: 'velmar' } }",
             1,
             {"s:2: the run wrote something else\n  expected: \"velmar\"\n  actual:   "
              "\"velmar\\n\""}},
            {"phone { no_server: true property { name: 'p' value: 'v' } }\n"
             "step { property { name: 'p' unset: true } within_ms: 9 }",
             1,
             {"s:2: property p differs\n  expected: unset\n  actual:   \"v\"\n"}},
            {"phone { no_server: true }\nstep { write_file { path: '/data/f' content: 'abc' } }\n"
             "step { file { path: '/data/f' content: 'abc' mode: '0644' } }\n"
             "step { file { path: '/data/f' content: 'abX' } within_ms: 9 }",
             1,
             {"s:4: /data/f has other content, from byte 2 on\n  expected: \"abX\"\n  actual:   "
              "\"abc\"\n"}},
            {"phone { no_server: true }\nstep { send_bytes: 'x' within_ms: 9 }",
             1,
             {"s:2: velmar has not opened the channel within 9 ms"}},
            {"phone { no_server: true }\nstep { running {} }", 1, {"s:2: velmar does not run"}},
            {"phone { no_server: true }\nstep { radio_request { request: 7 data: 'a' } within_ms: "
             "9 }",
             1,
             {"s:2: no request reached the radio within 9 ms\n  expected: request 7  61\n"}},
            {radio_calls + "step { radio_request { request: 226 data: 'a' } }",
             1,
             {"s:3: the request to the radio differs\n  expected: request 226  61\n  actual:   "
              "request 226  41 41 43 44 45 46 47 48 49 4a  kind 65, band 17475 value 17989, band "
              "18503 value 19017\n",
              "velmar -> radio  RILC_Open"}},
            {radio_calls + "step { no_radio_request { for_ms: 9000 } }",
             1,
             {"s:3: a request reached the radio"}},
            {"phone { missing_entry_point: 'RILC_Send' argument: '-c'\n"
             "argument: 'echo $LD_LIBRARY_PATH; sleep 60' }\n"
             "step { log { tag: 'stdout' matching: '/bin/../lib/ril/without_RILC_Send.*' } }",
             0,
             {}},
            {"phone { no_server: true }\nstep { thermal { write: 'a' } within_ms: 9 }",
             1,
             {"s:2: the writes to the thermal node differ\n  expected: \"a\"\n  actual:   -\n"}},
    };
    for (const Case& run : cases) {
        SCOPED_TRACE(run.scenario);
        Run(run.scenario, {"--velmar", "/bin/sh", "--time-factor", "1"});
        EXPECT_EQ(ExitStatus(), run.status);
        for (const std::string& part : run.output) EXPECT_THAT(Output(), HasSubstr(part));
        EXPECT_THAT(EntriesOf(temporary), IsEmpty());
    }
}

TEST_F(ToolTest, BadUsageIsRefused) {
    const std::vector<std::vector<std::string>> cases = {
            {"--velmar", "/nonexistent"}, {"--time-factor", "0"}, {"--unknown"}, {"/nonexistent"}};
    for (const auto& options : cases) {
        SCOPED_TRACE(options.front());
        Run("step { running {} }", options);
        EXPECT_EQ(ExitStatus(), 2);
        EXPECT_THAT(Output(), HasSubstr(options.front()));
    }
}

TEST_F(ToolTest, ADifferingMessageIsShownFieldByField) {
    const std::string scenario =
            "phone { modem_state: 4 property { name: 'ro.a' value: 'b' } }\n"
            "step { send { type: REQUEST token: 7 property_message { read_request { name: 'ro.a' "
            "} } } }\n"
            "step { expect { type: RESPONSE message_id: 7 token: 7 result: SUCCESS\n"
            "  property_message { read_response { value: 'c' } } } }\n";
    Run(scenario, {"--velmar", VELMAR_PATH, "--time-factor", "4"});
    EXPECT_EQ(ExitStatus(), 1);
    EXPECT_THAT(Output(), HasSubstr("s:3: the message differs"));
    EXPECT_THAT(Output(), HasSubstr("property_message.read_response.value: \"c\" -> \"b\""));
    EXPECT_THAT(Output(), HasSubstr("modem -> velmar  REQUEST token=7 (14 bytes) "
                                    "property_message.read_request { name: \"ro.a\" }"));
    Run(scenario, {"--velmar", VELMAR_PATH, "--quiet"});
    EXPECT_THAT(Output(), HasSubstr("s:3: the message differs"));
}

// A push of 100 chunks, in the second line, to a phone that has `more` besides.
std::string PushScenario(const std::string& more) {
    return "phone { modem_state: 4 " + more +
           " }\nstep { push { generated { size: 1000 } file_dir: FILE_DIRECTORY_MDS file_name: 'f' "
           "chunk_size: 10 } }\n";
}

TEST_F(ToolTest, ALongPushIsSummedUp) {
    Run(PushScenario("") + "step { log { text: 'offset: 0x1F4, size: 0x3E8' } }",
        {"--velmar", VELMAR_PATH, "--time-factor", "4"});
    EXPECT_EQ(ExitStatus(), 0);
    const std::string output = Output();
    const char* const parts[] = {
            "offset: 0 ",
            "]  10 %",
            "]  90 %",
            " lines like these\n",
            "offset: 990 ",
            "pushed and compared 1000 bytes in 100 chunks to /data/vendor/radio/mds/f: "};
    for (const char* part : parts) {
        EXPECT_THAT(output, HasSubstr(part));
    }
    EXPECT_THAT(output, Not(HasSubstr("offset: 500 ")));
    EXPECT_LE(std::count(output.begin(), output.end(), '\n'), 70);
}

TEST_F(ToolTest, ATerminalShowsABar) {
    const std::string file = scratch.path() + "/s.textproto";
    std::ofstream(file) << PushScenario("");
    velmar_sim::Launch launch;
    launch.executable = "/usr/bin/script";
    launch.arguments = {"script", "-qec",
                        std::string(VELMAR_SIM_PATH) + " run --velmar " + VELMAR_PATH +
                                " --time-factor 4 " + file,
                        "/dev/null"};
    launch.variables = {"TMPDIR=" + temporary.path()};
    StartProgram(launch);
    Finish();
    EXPECT_EQ(ExitStatus(), 0);
    EXPECT_THAT(Output(), HasSubstr("\r\033[K[##############################] 100 %"));
    EXPECT_THAT(Output(), Not(HasSubstr("MiB\033[0m\r\n")));
}

TEST_F(ToolTest, APushFailsByItsChunk) {
    Run(PushScenario("missing: '/data/vendor/radio/modem_temp_file'"),
        {"--velmar", VELMAR_PATH, "--time-factor", "4"});
    EXPECT_EQ(ExitStatus(), 1);
    EXPECT_THAT(Output(), HasSubstr("s:2: chunk 1 of 100 at offset 0: the message differs"));
    EXPECT_THAT(Output(), HasSubstr("result: SUCCESS -> FAILURE"));

    Run("phone { modem_state: 4 }\n"
        "step { fault { call: 'unlink' path: '/data/vendor/radio/modem_temp_file/f' error: 'EIO' "
        "skip: 1 } }\n"
        "step { send { type: REQUEST property_message { read_request {} } } }\n"
        "step { expect { type: RESPONSE message_id: 7 result: PROPERTY_FAILURE property_message { "
        "read_response { value: '' } } } }\n"
        "step { within_ms: 500 push { generated { size: 9 } file_dir: FILE_DIRECTORY_MDS "
        "file_name: 'f' } }",
        {"--velmar", VELMAR_PATH});
    EXPECT_EQ(ExitStatus(), 1);
    EXPECT_THAT(Output(),
                HasSubstr("s:5: /data/vendor/radio/modem_temp_file/f exists, expected none"));
}

TEST_F(ToolTest, QuietRunsShowVerdictsOnly) {
    Run(ShellPhone("exit 0") + "step { say: 'heading' } step { exit { status: 0 } }",
        {"--velmar", "/bin/sh", "--quiet"});
    EXPECT_EQ(Output(), "PASS s\nPASSED: 1 scenarios, 2 steps\n");
}

TEST_F(ToolTest, AKeptFolderIsNamed) {
    Run("phone { no_server: true } step { write_file { path: '/data/f' content: 'abc' } }",
        {"--keep", "--velmar", "/bin/sh"});
    ASSERT_EQ(EntriesOf(temporary).size(), 1U);
    const std::string kept = temporary.path() + "/" + EntriesOf(temporary).front();
    EXPECT_THAT(Output(), HasSubstr("folder " + kept + "\n"));
    EXPECT_EQ(std::filesystem::file_size(kept + "/data/f"), 3U);
}

TEST_F(ToolTest, AKilledRunLeavesNothingBehind) {
    // Each process of the phone has the writing end of this open.
    const std::string held = scratch.path() + "/held";
    ASSERT_EQ(mkfifo(held.c_str(), 0600), 0);
    const auto scenario = [&](const std::string& line) {
        return ShellPhone("exec 9>" + held + "; " + line) +
               "step { log { tag: 'stdout' text: 'started' } }\n"
               "step { say: 'waiting' }\nstep { pause_ms: 600000 }";
    };
    // What the service itself has started is killed only by a tool that is not killed.
    const struct {
        int signal;
        std::string service;
    } runs[] = {{SIGTERM, scenario("sleep 600 & echo started; wait")},
                {SIGINT, scenario("sleep 600 & echo started; wait")},
                {SIGKILL, scenario("echo started; exec sleep 600")}};
    for (const auto& [number, played] : runs) {
        SCOPED_TRACE(number);
        const android::base::unique_fd holders(open(held.c_str(), O_RDONLY | O_NONBLOCK));
        Start(played, {"--velmar", "/bin/sh"});
        ASSERT_TRUE(AwaitOutput("waiting")) << Output();
        EXPECT_THAT(EntriesOf(temporary), Not(IsEmpty()));
        tool->Signal(number);
        Finish();
        EXPECT_TRUE(WIFSIGNALED(tool->wait_status()));
        EXPECT_EQ(EntriesOf(temporary).empty(), number != SIGKILL);
        char none = 0;
        EXPECT_TRUE(Await([&] { return read(holders.get(), &none, 1) == 0; }));
        tool.reset();
    }
    Run("phone { no_server: true } step { say: 'x' }", {"--velmar", "/bin/sh"});
    EXPECT_THAT(EntriesOf(temporary), IsEmpty());
}

}  // namespace
