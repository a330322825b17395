// The whole service in a phone where everything fails in turn: it has to live on, and must never
// call a file complete that is not.

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "google/protobuf/text_format.h"

#include "sim/tool/file_push.h"
#include "sim/tool/simulation.h"

namespace {

using std::chrono::milliseconds;
using velmar_message::VelmarMessage;
using velmar_sim::ChildProcess;
using velmar_sim::FaultRule;
using velmar_sim::FilePush;
using velmar_sim::LogLine;

constexpr char kChannel[] = "/dev/oem_ipc1";
constexpr char kBootDevice[] = "/dev/umts_boot0";
constexpr char kPidFile[] = "/data/vendor/radio/velmar_pid";
constexpr char kTempFile[] = "/data/vendor/radio/modem_temp_file/f";
constexpr char kTarget[] = "/data/vendor/radio/mds/f";
// Both directories of a transfer, and what is in them.
constexpr char kTransferPaths[] = "/data/vendor/radio/m*/*";

constexpr char kPhoneWithoutRadio[] = "modem_state: 4 no_radio_library: true";
// Of a service without a radio.
constexpr char kLastStartUpLine[] = "Failed to connect to RIL to send GNSS coex configuration";

constexpr int kOnline = 4;
constexpr milliseconds kAnswerLimit{10000};
// How long an answer is awaited that must not come.
constexpr milliseconds kSilence{200};

// A number of the environment.
uint64_t Variable(const char* name, uint64_t otherwise) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change.
    const char* text = getenv(name);
    return text != nullptr ? strtoull(text, nullptr, 10) : otherwise;
}

// Waits are lengthened as the simulator's own are.
template <typename Duration>
Duration Scaled(Duration time) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change.
    const char* text = getenv("VELMAR_SIM_TIME_FACTOR");
    const double factor = text != nullptr ? strtod(text, nullptr) : 1;
    return std::chrono::duration_cast<Duration>(time * factor);
}

template <typename Proto>
Proto FromText(const std::string& text) {
    Proto message;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
    return message;
}

VelmarMessage PropertyRequest(int token) {
    return FromText<VelmarMessage>("type: REQUEST token: " + std::to_string(token) +
                                   " property_message { read_request { name: 'ro.board' } }");
}

velmar_sim::Push NewPush(int size, int chunk_size, int seed = 0) {
    return FromText<velmar_sim::Push>(
            "generated { size: " + std::to_string(size) + " seed: " + std::to_string(seed) +
            " } file_dir: FILE_DIRECTORY_MDS file_name: 'f' chunk_size: " +
            std::to_string(chunk_size));
}

// S for a chunk that was stored, O for one refused for its offset, F for one refused otherwise.
char Letter(const VelmarMessage& answer, const VelmarMessage& success) {
    if (answer.SerializeAsString() == success.SerializeAsString()) return 'S';
    const bool is_offset = answer.file_message().file_write_response().file_result() ==
                           velmar_message::FILE_RESULT_BAD_OFFSET;
    return is_offset ? 'O' : 'F';
}

class FaultTest : public testing::Test {
  protected:
    explicit FaultTest(const std::string& phone_text = kPhoneWithoutRadio,
                       const std::string& executable = VELMAR_PATH)
        : phone(FromText<velmar_sim::Phone>(phone_text +
                                            " property { name: 'ro.board' value: 'b1' }"),
                executable, {}, &events) {
        service = phone.Start({"--server"}, nullptr);
    }

    ~FaultTest() override {
        EXPECT_TRUE(service->IsRunning()) << ChildProcess::DescribeEnd(service->wait_status());
        service->Kill();
        EXPECT_FALSE(phone.log().Find(0, velmar_sim::IsSanitizerReport, milliseconds(0)));
        if (!HasFailure()) return;
        for (const LogLine& line : phone.log().Last(40)) {
            std::cerr << velmar_sim::DescribeLogLine(line) << "\n";
        }
    }

    void SetUp() override { ASSERT_TRUE(modem.WaitForChannel(Scaled(kAnswerLimit))); }

    void Restart() {
        service = phone.Start({"--server"}, nullptr);
        ASSERT_TRUE(modem.WaitForChannel(Scaled(kAnswerLimit)));
    }

    // Whether the line comes after the last one that was found so.
    bool FindLog(const std::string& text, milliseconds limit = kAnswerLimit) {
        const auto found = phone.log().Find(
                log_position, [&](const LogLine& line) { return line.text == text; },
                Scaled(limit));
        if (found) log_position = *found + 1;
        return found.has_value();
    }

    // What becomes of a transfer: a letter for each chunk up to the first that is not stored, '-'
    // for one without an answer. After the last chunk " torn", when the target is not what was
    // sent, or " kept", when what was gathered is still there. Where `expected` has a '-' an answer
    // is not awaited for long.
    std::string Transfer(FilePush* file, const std::string& expected = "") {
        std::string letters;
        while (file->Next()) {
            modem.Send(file->message());
            const bool is_silent = expected == letters + '-';
            const auto answer = modem.Receive(Scaled(is_silent ? kSilence : kAnswerLimit));
            if (!answer) return letters + '-';
            letters += Letter(answer->message, file->ExpectedResponse().value());
            if (letters.back() != 'S') return letters;
        }
        const std::string difference = file->StoredDifference();
        if (difference.empty()) return letters;
        return letters + (phone.folder().ReadFile(kTempFile) ? " kept" : " torn");
    }

    void ExpectCleanTransfer() {
        phone.faults().Clear();
        ASSERT_TRUE(modem.WaitForChannel(Scaled(kAnswerLimit)));
        const velmar_sim::Push push = NewPush(30000, 10000, ++content_seed);
        FilePush file(push, phone.folder());
        EXPECT_EQ(Transfer(&file), "SSS")
                << "the next transfer from 0: " << file.StoredDifference();
    }

    // Whether the request with this token is answered; passes over what else the service sends.
    bool AwaitAnswer(unsigned int token, milliseconds limit = kAnswerLimit) {
        while (const auto message = modem.Receive(Scaled(limit))) {
            if (message->message.type() == velmar_message::RESPONSE &&
                message->message.token() == token) {
                return true;
            }
        }
        return false;
    }

    velmar_sim::EventStream events;
    velmar_sim::Simulation phone;
    velmar_sim::SimulatedModem& modem = phone.modem();
    std::unique_ptr<ChildProcess> service;
    size_t log_position = 0;
    int content_seed = 0;
};

// One kind of fault, struck at the first matching call of a transfer, at the second, and so on.
struct Sweep {
    const char* what;
    // Each with `skip` set to the number of calls that pass.
    std::vector<FaultRule> faults;
    // Another fault, always the same, that leads to the calls that are to be struck; or none.
    std::vector<FaultRule> before;
    // What becomes of the transfer for each call that is struck.
    std::vector<std::string> outcomes;
};

void PrintTo(const Sweep& sweep, std::ostream* out) {
    *out << sweep.what;
}

std::vector<FaultRule> Errors(const char* call, const char* path, const std::vector<int>& errors) {
    std::vector<FaultRule> rules;
    rules.reserve(errors.size());
    for (const int error : errors) rules.push_back({call, path, error});
    return rules;
}

class TransferFaultTest : public FaultTest, public testing::WithParamInterface<Sweep> {
  protected:
    void SetUp() override {
        // The service has done what it does at its start, and its reader waits.
        EXPECT_TRUE(FindLog(kLastStartUpLine));
        ExpectCleanTransfer();
    }

    // A transfer with the fault; whether it was struck.
    bool IsStruck(const FaultRule& fault, const std::string& expected) {
        phone.folder().WriteFile(kTempFile, "left by an earlier transfer");
        phone.folder().WriteFile(kTarget, "earlier");
        for (const FaultRule& rule : GetParam().before) phone.faults().Add(rule);
        phone.faults().Add(fault);
        const velmar_sim::Push push = NewPush(30000, 10000, ++content_seed);
        FilePush file(push, phone.folder());
        const std::string outcome = Transfer(&file, expected);
        EXPECT_TRUE(modem.WaitForChannel(Scaled(kAnswerLimit)));
        const bool is_struck = phone.faults().Left() == 0;
        if (is_struck) {
            EXPECT_EQ(outcome, expected) << file.StoredDifference();
        }
        ExpectCleanTransfer();
        return is_struck;
    }
};

TEST_P(TransferFaultTest, StrikesEachCallInTurn) {
    const std::vector<std::string>& outcomes = GetParam().outcomes;
    int transfers = 0;
    for (FaultRule fault : GetParam().faults) {
        for (fault.skip = 0;; ++fault.skip, ++transfers) {
            SCOPED_TRACE(fault.call + " " + std::to_string(fault.skip + 1) + ", error " +
                         std::to_string(fault.error));
            const bool is_last = fault.skip >= static_cast<int>(outcomes.size());
            const std::string expected =
                    is_last ? (GetParam().before.empty() ? "" : outcomes.back())
                            : outcomes[fault.skip];
            if (!IsStruck(fault, expected)) {
                EXPECT_TRUE(is_last) << "fewer calls than expected";
                break;
            }
            if (is_last || HasFailure()) return;
        }
    }
    std::cout << GetParam().what << ": " << transfers << " transfers struck\n";
}

std::vector<Sweep> Sweeps() {
    return {
            {"Open",
             Errors("open", kTransferPaths, {EACCES, EROFS, EMFILE, ENFILE, ENOSPC, ENOMEM, EINTR}),
             {},
             {"F", "SF", "SSF", "SSF", "SSF"}},
            // The last two are the copy into the target, whose byte count is not looked at: the
            // second would only have found the end of the file.
            {"Write",
             Errors("write", kTransferPaths, {ENOSPC, EDQUOT, EIO, EROFS, EFBIG}),
             {},
             {"F", "SF", "SSF", "SSS torn", "SSS"}},
            {"InterruptedWrite",
             Errors("write", kTransferPaths, {EINTR}),
             {},
             {"SSS", "SSS", "SSS", "SSS", "SSS"}},
            {"ShortWrite",
             {{"write", kTransferPaths, 0, 7}},
             {},
             {"SSS", "SSS", "SSS", "SSS", "SSS"}},
            {"Read", Errors("read", kTransferPaths, {EIO}), {}, {"SSS torn", "SSS"}},
            {"InterruptedRead", Errors("read", kTransferPaths, {EINTR}), {}, {"SSS", "SSS"}},
            {"NoCopyInTheKernel",
             Errors("read", kTransferPaths, {EINVAL, ENOSYS}),
             {},
             {"SSS", "SSS"}},
            {"WriteWithoutCopyInTheKernel",
             Errors("write", kTarget, {ENOSPC, EIO}),
             {{"read", kTempFile, EINVAL}},
             {"SSS torn"}},
            {"ReadWithoutCopyInTheKernel",
             Errors("read", kTransferPaths, {EIO}),
             {{"read", kTempFile, EINVAL}},
             {"SSS torn", "SSS"}},
            {"ShortReadWithoutCopyInTheKernel",
             {{"read", kTransferPaths, 0, 7}},
             {{"read", kTempFile, EINVAL}},
             {"SSS", "SSS"}},
            // The position of a chunk whose temporary file seems to be missing is not looked at.
            {"Stat",
             Errors("stat", kTransferPaths, {EACCES, ENOENT, EIO}),
             {},
             {"F", "F", "SF", "SSS", "SF", "SSF", "SSS", "SSF", "SSF"}},
            // What an earlier transfer left cannot be deleted: the new one does not fit behind it.
            {"Unlink",
             Errors("unlink", kTransferPaths, {EACCES, EROFS, EPERM}),
             {},
             {"SO", "SSS", "SSS kept"}},
            {"Chmod",
             Errors("chmod", kTransferPaths, {EPERM, EROFS}),
             {},
             {"SSS", "SSS", "SSS", "SSS", "SSS"}},
            {"Close",
             Errors("close", kTransferPaths, {EIO, ENOSPC, EINTR}),
             {},
             {"SSS", "SSS", "SSS", "SSS", "SSS"}},
            // A message that could not be read waits in the channel until it is open again.
            {"ChannelRead",
             Errors("read", kChannel, {EIO, ENODEV, ENXIO}),
             {},
             {"SSS", "SSS", "SSS"}},
            {"ChannelEndOfFile", {{"read", kChannel, 0, 0}}, {}, {"SSS", "SSS", "SSS"}},
            {"ChannelInterruptedRead",
             Errors("read", kChannel, {EINTR, EAGAIN}),
             {},
             {"SSS", "SSS", "SSS"}},
            {"ChannelWrite",
             Errors("write", kChannel, {EIO, ENODEV, ENXIO}),
             {},
             {"-", "S-", "SS-"}},
            {"ChannelInterruptedWrite",
             Errors("write", kChannel, {EINTR, EAGAIN}),
             {},
             {"SSS", "SSS", "SSS"}},
            {"ChannelShortWrite",
             {{"write", kChannel, 0, 5}, {"write", kChannel, 0, 0}},
             {},
             {"SSS", "SSS", "SSS"}},
            {"ChannelClose", Errors("close", kChannel, {EIO}), {{"read", kChannel, EIO}}, {"SSS"}},
            {"ChannelReopen",
             {{"open", kChannel, ENXIO, 0, 5}, {"open", kChannel, EMFILE, 0, 2}},
             {{"read", kChannel, EIO}},
             {"SSS"}},
    };
}

INSTANTIATE_TEST_SUITE_P(Of, TransferFaultTest, testing::ValuesIn(Sweeps()),
                         [](const auto& test) { return std::string(test.param.what); });

TEST_F(FaultTest, UnreadableBootStateDelaysATransfer) {
    ASSERT_TRUE(FindLog(kLastStartUpLine));
    ExpectCleanTransfer();
    for (const FaultRule& fault : {FaultRule{"ioctl", kBootDevice, EIO, 0, 1, 1},
                                   FaultRule{"ioctl", kBootDevice, 0, 7, 1, 1}}) {
        phone.faults().Add(fault);
        const velmar_sim::Push push = NewPush(30000, 10000, ++content_seed);
        FilePush file(push, phone.folder());
        // The reader naps for 2 s and goes on.
        EXPECT_EQ(Transfer(&file), "SSS") << file.StoredDifference();
        EXPECT_EQ(phone.faults().Left(), 0);
    }
}

TEST_F(FaultTest, ChannelVanishesAndComesBack) {
    const std::string device = phone.folder().HostPath(kChannel);
    std::filesystem::rename(device, device + ".gone");
    modem.HangUp();
    ASSERT_TRUE(FindLog("Failed to open IO channel, fd: -1"));
    service->Signal(SIGUSR2);
    EXPECT_TRUE(FindLog("Failed to send request, status:7"));
    std::filesystem::rename(device + ".gone", device);
    ExpectCleanTransfer();
}

TEST_F(FaultTest, BootEventsAreLostAndDoubled) {
    ASSERT_TRUE(FindLog("Modem state changed from -1 to 4"));
    modem.SetState(3, 2);
    ASSERT_TRUE(FindLog("Modem state changed from 4 to 3"));
    // Once both events are dealt with, the state is looked at every 3 s.
    std::this_thread::sleep_for(Scaled(kSilence));
    modem.SetState(kOnline, 0);
    ASSERT_TRUE(FindLog("Poll timeout. interval=3000"));
    ASSERT_TRUE(FindLog("Modem state changed from 3 to 4"));
    ExpectCleanTransfer();
    // Online it is not: a way offline and back that shows in no event is no change.
    modem.SetState(2, 0);
    std::this_thread::sleep_for(Scaled(kSilence));
    modem.SetState(kOnline, 3);
    ExpectCleanTransfer();
    EXPECT_FALSE(FindLog("Modem state changed from 2 to 4", kSilence));
}

TEST_F(FaultTest, MessagesWithoutEndFillNothingButTheChannel) {
    constexpr int kMessages = 5000;
    ExpectCleanTransfer();
    modem.SetReading(false);
    std::atomic<int> sent{0};
    std::thread storm([&] {
        for (; sent < kMessages; ++sent) modem.Send(PropertyRequest(sent));
    });
    // The service waits for room for its answer and the modem for room for its request.
    for (int before = -1; before != sent;) {
        before = sent;
        std::this_thread::sleep_for(Scaled(milliseconds(300)));
    }
    EXPECT_LT(sent, kMessages) << "the service takes messages without an end";
    modem.SetReading(true);
    for (unsigned int token = 0; token < kMessages && !HasFailure(); ++token) {
        const auto answer = modem.Receive(Scaled(kAnswerLimit));
        EXPECT_TRUE(answer && answer->message.token() == token) << token;
    }
    storm.join();
    ExpectCleanTransfer();
}

TEST_F(FaultTest, MessagesThatMakeNoSenseAreNotAnswered) {
    const velmar_sim::Push push = NewPush(250000, 65000);
    FilePush file(push, phone.folder());
    file.Next();
    VelmarMessage longer = file.message();
    auto* request = longer.mutable_file_message()->mutable_file_write_request();
    const std::string chunk = longer.SerializeAsString();
    request->mutable_data()->resize(70000);
    const std::string too_long = longer.SerializeAsString();
    const std::string messages[] = {
            std::string(1, '\0'),
            std::string(velmar_sim::kMaxMessageForPhone, '\xFF'),
            std::string(velmar_sim::kMaxMessageForPhone, '\0'),
            std::string(100000, '\x08'),
            // A chunk that arrives without its end, for two reasons.
            chunk.substr(0, 40000),
            too_long,
            FromText<VelmarMessage>("type: RESPONSE token: 4294967295").SerializeAsString(),
            FromText<VelmarMessage>("type: RESPONSE token: 7 file_message {}").SerializeAsString(),
    };
    for (const std::string& message : messages) modem.SendBytes(message);
    modem.Send(PropertyRequest(1));
    const auto answer = modem.Receive(Scaled(kAnswerLimit));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->message.property_message().read_response().value(), "b1");
    EXPECT_FALSE(phone.folder().ReadFile(kTempFile));
    ExpectCleanTransfer();
}

constexpr char kExtendedLog[] = "/data/vendor/radio/extended_logs/extended_log_a.txt";
constexpr char kDump[] = "/data/vendor/modem_stat/debug.txt";

struct FileFault {
    const char* call;
    int error;
};

void PrintTo(const FileFault& fault, std::ostream* out) {
    *out << fault.call;
}

// A phone with every file that the service reads or writes.
class FileFaultTest : public FaultTest, public testing::WithParamInterface<FileFault> {
  protected:
    FileFaultTest()
        : FaultTest(
                  "modem_state: 4"
                  " file { path: '/vendor/etc/modem_stat.conf' content: 'a' }"
                  " file { path: '/data/vendor/radio/modem_userspace_logging.conf' content: 'b' }"
                  " file { path: '/vendor/etc/modem/gnss_blanking.csv' content: '5\\nB1,1\\n' }"
                  " file { path: '/data/vendor/radio/gnss_blanking.csv' content: '5\\nB1,1\\n' }") {
        modem.SetResponsePolicy({});
    }

    // The service starts, asks all that it asks, stores what the modem reports, and can be
    // signalled. What of that fails is not looked at, only that the rest goes on.
    void UseEveryFile() {
        phone.folder().WriteFile(kExtendedLog, std::string(1048577, 'x'));
        service->Kill();
        log_position = phone.log().Last(SIZE_MAX).size();
        modem.SetState(kOnline);
        Restart();
        // From here on no request of the service opens the channel beside its reader.
        EXPECT_TRUE(FindLog("Configuring GNSS coex"));
        modem.Send(FromText<VelmarMessage>(
                "type: INDICATION extended_log_message { indication { name: 'a' data: 'l' } }"));
        modem.Send(FromText<VelmarMessage>(
                "type: INDICATION modem_stat_message { report_indication { data: 'd' } }"));
        modem.Send(FromText<VelmarMessage>(
                "type: INDICATION modem_stat_message { report_indication { data: 'e' offset: 9 } "
                "}"));
        modem.Send(FromText<VelmarMessage>(
                "type: REQUEST token: 1000 modem_temperature_message { set_request { sensors { "
                "sensor: 1 } } }"));
        EXPECT_TRUE(AwaitAnswer(1000));
        // After its start-up requests the monitor looks at the state again.
        modem.SetState(3);
        EXPECT_TRUE(FindLog("Modem state changed from 4 to 3"));
        auto client = phone.Start({"-m"}, nullptr);
        while (client->IsRunning()) std::this_thread::sleep_for(milliseconds(1));
        EXPECT_TRUE(WIFEXITED(client->wait_status()));
        EXPECT_TRUE(service->IsRunning());
    }
};

TEST_P(FileFaultTest, StrikesEachCallInTurn) {
    const FileFault fault = GetParam();
    int skip = 0;
    for (bool is_struck = true; is_struck && !HasFailure(); ++skip) {
        SCOPED_TRACE(skip);
        phone.faults().Add({fault.call, "*/vendor/*", fault.error, 0, 1, skip});
        UseEveryFile();
        is_struck = phone.faults().Left() == 0;
        phone.faults().Clear();
    }
    std::cout << fault.call << ": " << skip - 1 << " calls struck\n";
    EXPECT_GT(skip, 1);
    UseEveryFile();
    EXPECT_EQ(phone.folder().ReadFile(kDump), "de");
    EXPECT_EQ(phone.folder().ReadFile(kExtendedLog).value_or("").substr(0, 1), "l");
}

INSTANTIATE_TEST_SUITE_P(Of, FileFaultTest,
                         testing::Values(FileFault{"open", EMFILE}, FileFault{"read", EIO},
                                         FileFault{"write", ENOSPC}, FileFault{"stat", EACCES},
                                         FileFault{"chmod", EROFS}, FileFault{"close", EIO},
                                         FileFault{"rename", EROFS}, FileFault{"unlink", EACCES}),
                         [](const auto& test) { return std::string(test.param.call); });

// Together 200 kills, unless the environment wants fewer of each test.
constexpr int kKillTests = 8;
constexpr int kUsualKills = 25;
constexpr int kKilledFileSize = 1440000;

class KillTest : public FaultTest, public testing::WithParamInterface<int> {
  protected:
    // Sends chunks up to one that is drawn, the last one as often as all others, and ends the
    // service soon after. Gives whether all chunks were answered with success.
    bool IsAnsweredDespiteKill(FilePush* file) {
        const auto count = static_cast<int>(file->chunk_count());
        const int fatal = std::uniform_int_distribution<int>(1, 2 * count)(engine);
        int chunk = 0;
        for (; file->Next() && ++chunk < std::min(fatal, count);) {
            modem.Send(file->message());
            EXPECT_TRUE(modem.Receive(Scaled(kAnswerLimit)));
        }
        modem.Send(file->message());
        std::this_thread::sleep_for(
                std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(engine)));
        service->Kill();
        const auto answer = modem.Receive(Scaled(milliseconds(50)));
        return chunk == count && answer &&
               Letter(answer->message, file->ExpectedResponse().value()) == 'S';
    }

    static uint64_t Seed() { return Variable("VELMAR_FAULT_SEED", 0) + GetParam(); }

    std::mt19937_64 engine{Seed()};
};

TEST_P(KillTest, LeavesNoPartialFileThatWasAnsweredAsComplete) {
    const auto kills = static_cast<int>(Variable("VELMAR_FAULT_KILLS", kUsualKills));
    int answered = 0;
    int partial = 0;
    for (int kill = 0; kill < kills && !HasFailure(); ++kill) {
        SCOPED_TRACE(kill);
        ExpectCleanTransfer();
        const velmar_sim::Push push = NewPush(kKilledFileSize, 60000, kill);
        FilePush file(push, phone.folder());
        if (IsAnsweredDespiteKill(&file)) {
            ++answered;
            EXPECT_EQ(file.StoredDifference(), "") << "was answered as complete";
        }
        const auto target = phone.folder().ReadFile(kTarget);
        partial += target && target->size() != 30000 && target->size() != kKilledFileSize ? 1 : 0;
        Restart();
        // A chunk that was not read waits in the channel; this passes over the answer to it.
        modem.Send(PropertyRequest(kKilledFileSize));
        EXPECT_TRUE(AwaitAnswer(kKilledFileSize));
    }
    std::cout << "seed " << Seed() << ": " << kills << " kills, " << answered
              << " after the last answer, " << partial << " with a partial target\n";
}

INSTANTIATE_TEST_SUITE_P(Of, KillTest, testing::Range(0, kKillTests));

constexpr char kStrace[] = "/usr/bin/strace";

// Which processor a program is for.
std::string MachineOf(const std::string& program) {
    constexpr std::streamoff kMachineOffset = 18;
    std::ifstream file(program, std::ios::binary);
    std::string machine(2, '\0');
    file.seekg(kMachineOffset).read(machine.data(), 2);
    return machine;
}

std::unique_ptr<ChildProcess> Trace(const std::vector<std::string>& arguments) {
    velmar_sim::Launch launch;
    launch.executable = kStrace;
    launch.arguments = {"strace", "-f", "-qq", "-o", "/dev/null"};
    launch.arguments.insert(launch.arguments.end(), arguments.begin(), arguments.end());
    const auto ignore = [](const std::string&) {};
    return std::make_unique<ChildProcess>(launch, ignore, ignore);
}

// Why system calls of the service cannot be made to fail here; empty if they can. A sanitizer has
// threads and memory of its own, and an emulator makes the calls itself.
std::string WhyNotTraceable() {
    if (!std::string(VELMAR_SANITIZERS).empty()) return "a sanitizer does not stand it";
    if (MachineOf(VELMAR_PATH) != MachineOf(kStrace)) return "no strace, or an emulated service";
    const auto trial = Trace({"true"});
    while (trial->IsRunning()) std::this_thread::sleep_for(milliseconds(1));
    return trial->wait_status() == 0 ? "" : "strace is not permitted";
}

class TracedTest : public FaultTest {
  protected:
    explicit TracedTest(const std::string& executable = VELMAR_PATH)
        : FaultTest(kPhoneWithoutRadio, executable) {}

    pid_t ServicePid() {
        const auto deadline = velmar_sim::Clock::now() + Scaled(kAnswerLimit);
        std::string text;
        while (text.empty() && velmar_sim::Clock::now() < deadline) {
            std::this_thread::sleep_for(milliseconds(1));
            text = phone.folder().ReadFile(kPidFile).value_or("");
        }
        return static_cast<pid_t>(strtol(text.c_str(), nullptr, 10));
    }
};

// Whether each thread of the process has a tracer.
bool IsTraced(pid_t pid) {
    const std::string threads = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
        std::ifstream file(thread.path() / "status");
        const std::string status{std::istreambuf_iterator<char>(file), {}};
        if (status.find("TracerPid:\t0\n") != std::string::npos) return false;
    }
    return true;
}

TEST_F(TracedTest, ServiceThatHasServedNeedsNoMoreMemory) {
    const std::string reason = WhyNotTraceable();
    if (!reason.empty()) GTEST_SKIP() << reason;
    const velmar_sim::Push largest = NewPush(200000, 65000);
    FilePush first(largest, phone.folder());
    ASSERT_EQ(Transfer(&first), "SSSS");
    const pid_t pid = ServicePid();
    ASSERT_GT(pid, 0);
    const auto tracer =
            Trace({"-e", "trace=mmap,mremap,brk,mprotect", "-e",
                   "inject=mmap,mremap,brk,mprotect:error=ENOMEM", "-p", std::to_string(pid)});
    while (tracer->IsRunning() && !IsTraced(pid)) std::this_thread::sleep_for(milliseconds(1));
    if (!tracer->IsRunning()) GTEST_SKIP() << "strace may not trace a process that runs";
    FilePush second(largest, phone.folder());
    EXPECT_EQ(Transfer(&second), "SSSS");
    ExpectCleanTransfer();
}

// A service that fails to create one of its threads: the first is the monitor, the second the
// reader.
class ThreadTest : public testing::WithParamInterface<int>, public TracedTest {
  protected:
    ThreadTest() : ThreadTest(velmar_sim::MakeFolder("script")) {}
    ~ThreadTest() override { std::filesystem::remove_all(folder_of_script); }
    void SetUp() override {}

    const std::string reason = WhyNotTraceable();

  private:
    explicit ThreadTest(const std::string& folder)
        : TracedTest(WriteScript(folder + "/velmar")), folder_of_script(folder) {}

    static std::string WriteScript(const std::string& path) {
        const std::string calls = "clone,clone3";
        if (!WhyNotTraceable().empty()) return VELMAR_PATH;
        std::ofstream(path) << "#!/bin/sh\nexec " << kStrace
                            << " -f -qq -o /dev/null -e trace=" << calls << " -e inject=" << calls
                            << ":error=EAGAIN:when=" << GetParam() << " " << VELMAR_PATH
                            << " \"$@\"\n";
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path;
    }

    const std::string folder_of_script;
};

TEST_P(ThreadTest, ServiceRunsOnWithoutIt) {
    if (!reason.empty()) GTEST_SKIP() << reason;
    const bool has_reader = GetParam() == 1;
    ASSERT_TRUE(FindLog("IO handler started"));
    if (!has_reader) {
        EXPECT_TRUE(FindLog("Modem state changed from -1 to 4"));
    }
    const pid_t pid = ServicePid();
    ASSERT_GT(pid, 0);
    kill(pid, SIGUSR2);
    EXPECT_TRUE(FindLog(has_reader ? "Modem is not online" : "Failed to send request, status:5"));
    modem.Send(PropertyRequest(1));
    EXPECT_FALSE(AwaitAnswer(1, kSilence));
}

INSTANTIATE_TEST_SUITE_P(Of, ThreadTest, testing::Values(1, 2));

}  // namespace
