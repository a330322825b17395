// The whole service in a phone where everything fails in turn: it has to live on, and must never
// call a file complete that is not. So it does under signals at any moment.

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "sim/tool/file_push.h"
#include "sim/tool/simulation.h"
#include "simulation_test.h"

namespace {

using std::chrono::milliseconds;
using velmar_message::VelmarMessage;
using velmar_sim::ChildProcess;
using velmar_sim::FaultRule;
using velmar_sim::FilePush;
using velmar_sim::LogLine;

constexpr char kChannel[] = "/dev/oem_ipc1";
constexpr char kTempFile[] = "/data/vendor/radio/modem_temp_file/f";
constexpr char kTarget[] = "/data/vendor/radio/mds/f";
// Both directories of a transfer, and what is in them.
constexpr char kTransferPaths[] = "/data/vendor/radio/m*/*";

constexpr int kTransferSize = 30000;

constexpr char kPropertyRequest[] = "property_message { read_request {} }";

// Waits are lengthened as the simulator's own are.
milliseconds Scaled(int ms) {
    return milliseconds(static_cast<int>(ms * Variable("VELMAR_SIM_TIME_FACTOR", 1)));
}

velmar_sim::Push NewPush(int size, int chunk_size, int seed) {
    return FromText<velmar_sim::Push>(
            "generated { size: " + std::to_string(size) + " seed: " + std::to_string(seed) +
            " } file_dir: FILE_DIRECTORY_MDS file_name: 'f' chunk_size: " +
            std::to_string(chunk_size));
}

// S for a chunk that was stored, O for one refused for its offset, F for one refused otherwise.
char Letter(const VelmarMessage& response, const VelmarMessage& success) {
    if (response.SerializeAsString() == success.SerializeAsString()) return 'S';
    const bool is_offset = response.file_message().file_write_response().file_result() ==
                           velmar_message::FILE_RESULT_BAD_OFFSET;
    return is_offset ? 'O' : 'F';
}

class FaultTest : public testing::Test {
  protected:
    explicit FaultTest(const std::string& phone_text = "no_radio_library: true")
        : phone(FromText<velmar_sim::Phone>("modem_state: 4 " + phone_text), VELMAR_PATH, {},
                &events) {
        Start();
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

    void Start() {
        service = phone.Start({"--server"}, nullptr);
        EXPECT_TRUE(modem.WaitForChannel(Scaled(10000)));
    }

    // What becomes of a transfer: a letter for each chunk up to the first that is not stored, '-'
    // for one without a response. After the last chunk "torn", when the target is not what was
    // sent, or "kept", when what was gathered is still there. Where `expected` has a '-' a response
    // is not awaited for long.
    std::string Transfer(const std::string& expected) {
        const velmar_sim::Push push = NewPush(kTransferSize, kTransferSize / 3, ++content_seed);
        FilePush file(push, phone.folder());
        std::string letters;
        while (file.Next()) {
            modem.Send(file.message());
            const bool is_silent = expected == letters + '-';
            const auto response = modem.Receive(Scaled(is_silent ? 200 : 10000));
            if (!response) return letters + '-';
            letters += Letter(response->message, file.ExpectedResponse().value());
            if (letters.back() != 'S') return letters;
        }
        if (file.StoredDifference().empty()) return letters;
        return letters + (phone.folder().ReadFile(kTempFile) ? "kept" : "torn");
    }

    void ExpectCleanTransfer() {
        phone.faults().Clear();
        EXPECT_TRUE(modem.WaitForChannel(Scaled(10000)));
        EXPECT_EQ(Transfer("SSS"), "SSS") << "the next transfer from 0";
    }

    // Whether a request is responded to; counts the requests that the service sends before that.
    bool IsServed(const std::string& payload) {
        constexpr unsigned int kToken = 1000000;
        auto request = FromText<VelmarMessage>("type: REQUEST " + payload);
        request.set_token(kToken);
        modem.Send(request);
        while (const auto received = modem.Receive(Scaled(10000))) {
            if (received->message.token() == kToken) return true;
            ++requests;
        }
        return false;
    }

    velmar_sim::EventStream events;
    velmar_sim::Simulation phone;
    velmar_sim::SimulatedModem& modem = phone.modem();
    std::unique_ptr<ChildProcess> service;
    int content_seed = 0;
    int requests = 0;
};

// Kinds of faults that hit the first matching call of a transfer, then the second, and so on.
struct Sweep {
    const char* what;
    const char* call;
    const char* path;
    std::vector<FaultRule> faults;
    // What becomes of the transfer for each call that is hit.
    const char* outcomes;
    // Where there is one, it hits first, which leads to the calls.
    FaultRule first = {};
};

// Above 0 an error; else so many bytes at most, negated.
template <typename... Number>
std::vector<FaultRule> Faults(Number... numbers) {
    return {{"", "", std::max(numbers, 0), std::max(-numbers, 0)}...};
}

class TransferFaultTest : public FaultTest, public testing::WithParamInterface<Sweep> {
  protected:
    static bool IsLedTo() { return !GetParam().first.call.empty(); }

    // Whether a transfer has as many calls as the fault skips, and one more.
    bool IsHit(const FaultRule& fault, const std::string& expected) {
        phone.folder().WriteFile(kTempFile, "left by an earlier transfer");
        phone.folder().WriteFile(kTarget, "earlier");
        if (IsLedTo()) phone.faults().Add(GetParam().first);
        phone.faults().Add(fault);
        const std::string outcome = Transfer(expected);
        EXPECT_TRUE(modem.WaitForChannel(Scaled(10000)));
        const bool is_hit = phone.faults().Left() == 0;
        EXPECT_TRUE(!is_hit || outcome == expected) << outcome << ", expected: " << expected;
        ExpectCleanTransfer();
        return is_hit;
    }
};

TEST_P(TransferFaultTest, HitsEachCallInTurn) {
    ExpectCleanTransfer();
    const std::vector<std::string> outcomes = android::base::Split(GetParam().outcomes, " ");
    for (FaultRule fault : GetParam().faults) {
        fault.call = GetParam().call;
        fault.path = GetParam().path;
        for (const std::string& outcome : outcomes) {
            SCOPED_TRACE("error " + std::to_string(fault.error) + " in call " +
                         std::to_string(fault.skip + 1));
            ASSERT_TRUE(IsHit(fault, outcome)) << "fewer calls than expected";
            if (HasFailure()) return;
            ++fault.skip;
        }
        EXPECT_TRUE(IsLedTo() || !IsHit(fault, "no such call")) << "more calls than expected";
    }
}

// NOLINTBEGIN(cert-err58-cpp): without memory for them there is nothing to test.
const FaultRule kNoCopyInTheKernel = {"read", kTempFile, EINVAL};

const Sweep kSweeps[] = {
        {"Open", "open", kTransferPaths,
         Faults(EACCES, EROFS, EMFILE, ENFILE, ENOSPC, ENOMEM, EINTR), "F SF SSF SSF SSF"},
        // The last two are the copy into the target, whose byte count is not looked at: the second
        // would only have found the end of the file.
        {"Write", "write", kTransferPaths, Faults(ENOSPC, EDQUOT, EIO, EROFS, EFBIG),
         "F SF SSF SSStorn SSS"},
        {"InterruptedOrShortWrite", "write", kTransferPaths, Faults(EINTR, -7),
         "SSS SSS SSS SSS SSS"},
        {"Read", "read", kTransferPaths, Faults(EIO), "SSStorn SSS"},
        {"InterruptedReadOrNoCopyInTheKernel", "read", kTransferPaths,
         Faults(EINTR, EINVAL, ENOSYS), "SSS SSS"},
        {"WriteWithoutCopyInTheKernel", "write", kTarget, Faults(ENOSPC, EIO), "SSStorn",
         kNoCopyInTheKernel},
        {"ReadWithoutCopyInTheKernel", "read", kTransferPaths, Faults(EIO), "SSStorn SSS",
         kNoCopyInTheKernel},
        {"InterruptedOrShortReadWithoutCopyInTheKernel", "read", kTransferPaths, Faults(EINTR, -7),
         "SSS SSS", kNoCopyInTheKernel},
        // The position of a chunk whose temporary file seems to be missing is not looked at.
        {"Stat", "stat", kTransferPaths, Faults(EACCES, ENOENT, EIO),
         "F F SF SSS SF SSF SSS SSF SSF"},
        // What an earlier transfer left cannot be deleted: the new one does not fit behind it.
        {"Unlink", "unlink", kTransferPaths, Faults(EACCES, EROFS, EPERM), "SO SSS SSSkept"},
        {"Chmod", "chmod", kTransferPaths, Faults(EPERM, EROFS), "SSS SSS SSS SSS SSS"},
        {"Close", "close", kTransferPaths, Faults(EIO, ENOSPC, EINTR), "SSS SSS SSS SSS SSS"},
        // A message that could not be read waits in the channel until that is open again.
        {"ChannelRead", "read", kChannel, Faults(EIO, ENODEV, ENXIO, EINTR, EAGAIN, 0),
         "SSS SSS SSS"},
        {"ChannelWrite", "write", kChannel, Faults(EIO, ENODEV, ENXIO), "- S- SS-"},
        {"ChannelInterruptedOrShortWrite", "write", kChannel, Faults(EINTR, EAGAIN, -5),
         "SSS SSS SSS"},
        {"ChannelClose", "close", kChannel, Faults(EIO), "SSS", {"read", kChannel, EIO}},
};
// NOLINTEND(cert-err58-cpp)

INSTANTIATE_TEST_SUITE_P(Of, TransferFaultTest, testing::ValuesIn(kSweeps),
                         [](const auto& test) { return std::string(test.param.what); });

constexpr char kExtendedLog[] = "/data/vendor/radio/extended_logs/extended_log_a.txt";

// The call, and the error that it fails with.
using FileFault = std::pair<const char*, int>;

// A phone with every file that the service reads or writes.
class FileFaultTest : public FaultTest, public testing::WithParamInterface<FileFault> {
  protected:
    FileFaultTest()
        : FaultTest(
                  "file { path: '/vendor/etc/modem_stat.conf' content: 'a' }"
                  "file { path: '/data/vendor/radio/modem_userspace_logging.conf' content: 'b' }"
                  "file { path: '/vendor/etc/modem/gnss_blanking.csv' content: '5\\nB1,1\\n' }"
                  "file { path: '/data/vendor/radio/gnss_blanking.csv' content: '5\\nB1,1\\n' }") {
        modem.SetResponsePolicy({});
    }

    // Awaits a line behind the last one that was found so.
    void FindLog(const std::string& text) {
        const auto found = phone.log().Find(
                log_position, [&](const LogLine& line) { return line.text == text; },
                Scaled(10000));
        EXPECT_TRUE(found) << text;
        log_position = found.value_or(log_position) + 1;
    }

    // The service starts, asks all that it asks, stores what the modem reports, and can be
    // signalled. What of that fails is not looked at, only that the rest goes on.
    void UseEveryFile() {
        phone.folder().WriteFile(kExtendedLog, std::string(1048577, 'x'));
        service->Kill();
        log_position = phone.log().Last(SIZE_MAX).size();
        modem.SetState(4);
        Start();
        // The reader serves before the monitor has noted that the modem is online.
        FindLog("Configuring GNSS coex");
        for (const char* text :
             {"INDICATION extended_log_message { indication { name: 'a' data: 'l' } }",
              "INDICATION modem_stat_message { report_indication { data: 'd' } }",
              "INDICATION modem_stat_message { report_indication { data: 'e' offset: 9 } }"}) {
            modem.Send(FromText<VelmarMessage>(std::string("type: ") + text));
        }
        EXPECT_TRUE(IsServed("modem_temperature_message { set_request { sensors {} } }"));
        // After its start-up requests the monitor looks at the state again.
        modem.SetState(3);
        FindLog("Modem state changed from 4 to 3");
        auto client = phone.Start({"-m"}, nullptr);
        while (client->IsRunning()) std::this_thread::sleep_for(milliseconds(1));
        EXPECT_TRUE(WIFEXITED(client->wait_status()));
    }

    size_t log_position = 0;
};

TEST_P(FileFaultTest, HitsEachCallInTurn) {
    int skip = 0;
    for (bool is_hit = true; is_hit && !HasFailure(); ++skip) {
        SCOPED_TRACE(skip);
        phone.faults().Add({GetParam().first, "*/vendor/*", GetParam().second, 0, 1, skip});
        UseEveryFile();
        is_hit = phone.faults().Left() == 0;
        phone.faults().Clear();
    }
    EXPECT_GT(skip, 1);
    EXPECT_EQ(phone.folder().ReadFile("/data/vendor/modem_stat/debug.txt"), "de");
    EXPECT_EQ(phone.folder().ReadFile(kExtendedLog).value_or("").substr(0, 1), "l");
}

INSTANTIATE_TEST_SUITE_P(Of, FileFaultTest,
                         testing::Values(FileFault{"open", EMFILE}, FileFault{"read", EIO},
                                         FileFault{"write", ENOSPC}, FileFault{"stat", EACCES},
                                         FileFault{"chmod", EROFS}, FileFault{"close", EIO},
                                         FileFault{"rename", EROFS}, FileFault{"unlink", EACCES}),
                         [](const auto& test) { return std::string(test.param.first); });

class KillTest : public FaultTest, public testing::WithParamInterface<int> {
  protected:
    // Sends chunks up to one that is drawn, the last one as often as all others, and ends the
    // service soon after. Gives whether all chunks were responded to with success.
    bool IsStoredDespiteKill(FilePush* file) {
        const auto count = static_cast<int>(file->chunk_count());
        const int fatal = std::uniform_int_distribution<int>(1, 2 * count)(engine);
        int chunk = 0;
        for (; file->Next() && ++chunk < std::min(fatal, count);) {
            modem.Send(file->message());
            EXPECT_TRUE(modem.Receive(Scaled(10000)));
        }
        modem.Send(file->message());
        std::this_thread::sleep_for(
                std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(engine)));
        service->Kill();
        const auto response = modem.Receive(Scaled(50));
        return chunk == count && response &&
               Letter(response->message, file->ExpectedResponse().value()) == 'S';
    }

    const uint64_t seed = static_cast<uint64_t>(Variable("VELMAR_FAULT_SEED", 0)) + GetParam();
    std::mt19937_64 engine{seed};
};

TEST_P(KillTest, LeavesNoPartialFileThatWasCalledComplete) {
    const double kills = Variable("VELMAR_FAULT_KILLS", 25);
    int stored = 0;
    for (int kill = 0; kill < kills && !HasFailure(); ++kill) {
        ExpectCleanTransfer();
        const velmar_sim::Push push = NewPush(1440000, 60000, kill);
        FilePush file(push, phone.folder());
        if (IsStoredDespiteKill(&file)) {
            ++stored;
            EXPECT_EQ(file.StoredDifference(), "") << "seed " << seed << ", kill " << kill;
        }
        Start();
        // A chunk that was not read waits in the channel.
        EXPECT_TRUE(IsServed(kPropertyRequest));
    }
    std::cout << "seed " << seed << ": " << stored << " kills after the last response\n";
}

INSTANTIATE_TEST_SUITE_P(Of, KillTest, testing::Range(0, 8));

using SignalTest = FaultTest;

TEST_F(SignalTest, RequestsSetOffAtRandomEachGetTheirResponse) {
    constexpr int kSignals = 120;
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp): a failure can be seen again.
    std::minstd_rand engine(1);
    const auto random = [&](int least, int most) {
        return std::uniform_int_distribution<int>(least, most)(engine);
    };
    for (int i = 0; i < kSignals; ++i) {
        modem.SetResponsePolicy(FromText<velmar_sim::ResponsePolicy>(
                "delay_ms: " + std::to_string(random(20, 70))));
        service->Signal(random(0, 1) == 0 ? SIGUSR1 : SIGUSR2);
        std::this_thread::sleep_for(milliseconds(random(0, 60)));
        EXPECT_TRUE(i % 10 != 0 || IsServed(kPropertyRequest));
    }
    // The last two may still wait: one at the modem, one of each kind to be taken.
    std::this_thread::sleep_for(Scaled(500));
    EXPECT_TRUE(IsServed(kPropertyRequest));
    EXPECT_GE(requests, kSignals / 4);
    int responses = 0;
    const auto count = [&](const LogLine& line) {
        responses += android::base::EndsWith(line.text, " response successful") ? 1 : 0;
        return false;
    };
    EXPECT_FALSE(phone.log().Find(0, count, milliseconds(0)));
    EXPECT_EQ(responses, requests);
}

}  // namespace
