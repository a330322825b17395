#include "handler/velmar_message_handler.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "phone_test_case.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

// How far the process's wall clock has been set, in seconds.
std::atomic<time_t> wall_clock_step{0};

}  // namespace

// Takes the place of the C library's, for the C++ library's system_clock.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (clock == CLOCK_REALTIME) now->tv_sec += wall_clock_step;
    return static_cast<int>(result);
}

namespace {

constexpr char kChannel[] = "/dev/oem_ipc1";

std::unique_ptr<SitMessage> NewResponse(unsigned int token) {
    return Receive("type: RESPONSE token: " + std::to_string(token));
}

// A handler whose reader thread runs and reads.
class MessageHandlerTest : public PhoneTestCase {
  protected:
    MessageHandlerTest() {
        modem.SetState(kModemStateOnline);
        EXPECT_EQ(handler.Start(), kStatusSuccess);
        EXPECT_TRUE(modem.WaitForChannel(milliseconds(5000)));
    }
    // The reader ends when it cannot wait for the channel; it gets there once it is woken. It has
    // to be done with the handler before that goes.
    ~MessageHandlerTest() override {
        injector.Add({"select", kChannel, EBADF});
        modem.SendBytes(Encode("type: RESPONSE"));
        EXPECT_TRUE(log.WaitFor("E IO handler thread stopped"));
    }

    void Respond(unsigned int token) { modem.Send(*NewResponse(token)->GetVelmarMessage()); }

    TestHandler handler;
};

TEST_F(MessageHandlerTest, EachOfSeveralSendersIsWokenByItsOwnResponse) {
    constexpr int kSenders = 3;
    std::unique_ptr<SitMessage> requests[kSenders];
    std::vector<std::thread> senders;
    for (auto& request : requests) {
        request = NewRequest();
        senders.emplace_back([this, message = request.get()] {
            EXPECT_EQ(handler.SendRequest(message, 10), kStatusSuccess);
        });
    }
    for (int i = 0; i < kSenders; ++i) ASSERT_TRUE(modem.Receive(milliseconds(5000)));
    // All of them have to be waiting, or the response passes unnoticed.
    std::this_thread::sleep_for(milliseconds(200));
    for (int i = kSenders - 1; i >= 0; --i) {
        const unsigned int token = requests[i]->GetToken();
        Respond(token);
        senders[i].join();
        EXPECT_EQ(Text(handler.GetRequestRecord(token).message), Text(NewResponse(token).get()));
        handler.RemoveRequestRecord(token);
        EXPECT_EQ(handler.GetRequestRecord(token).token, kNoToken);
    }
}

// The clock is set while a sender waits that another request's response wakes, which in itself does
// not lengthen the wait.
TEST_F(MessageHandlerTest, StepOfTheWallClockShortensOrLengthensTheWaitByAsMuch) {
    // The step in seconds; how long the wait is, in milliseconds: at least, and below.
    const std::tuple<time_t, int, int> steps[] = {
            {0, 1990, 2500},
            {1790000000, 0, 1900},
            {-2, 3900, 6000},
    };
    RequestRecord record(1000000);
    handler.request_list.load()->AddRecord(&record);
    for (const auto& [seconds, at_least_ms, below_ms] : steps) {
        auto request = NewRequest();
        const auto start = steady_clock::now();
        const auto too_late = start + milliseconds(below_ms);
        std::thread other([&, step = seconds] {
            std::this_thread::sleep_for(milliseconds(1000));
            wall_clock_step += step;
            Respond(1000000);
            // For a sender that would wait for days.
            std::this_thread::sleep_until(too_late);
            Respond(request->GetToken());
        });
        EXPECT_EQ(handler.SendRequest(request.get(), 2), kStatusTimeout) << seconds << " s";
        EXPECT_GE(steady_clock::now() - start, milliseconds(at_least_ms)) << seconds << " s";
        other.join();
    }
}

TEST_F(MessageHandlerTest, WhatIsNotARequestWithATokenIsRefusedUnsent) {
    auto tokenless = Receive("type: REQUEST");
    EXPECT_EQ(handler.SendRequest(tokenless.get(), 3), kStatusInvalid);
    EXPECT_EQ(handler.SendRequest(NewResponse(5).get(), 3), kStatusInvalid);
    EXPECT_EQ(handler.SendResponse(tokenless.get()), kStatusInvalid);
    EXPECT_EQ(handler.WaitForResponse(60, 12345), kStatusNotFound);
    EXPECT_FALSE(modem.Receive(milliseconds(100)));
}

TEST_F(MessageHandlerTest, FailedWriteIsReportedAndLeavesNoRecord) {
    injector.Add({"write", kChannel, EIO, 0, 2});
    auto request = NewRequest();
    EXPECT_EQ(handler.SendRequest(request.get(), 3), kStatusWriteFailed);
    EXPECT_EQ(handler.GetRequestRecord(request->GetToken()).token, kNoToken);
    EXPECT_EQ(handler.SendResponse(NewResponse(5).get()), kStatusWriteFailed);
}

TEST_F(MessageHandlerTest, MessagesAreSortedByType) {
    const std::pair<std::string, int> cases[] = {
            {"", kStatusInvalid},
            {std::string("\x08\x02\x18", 3), kStatusNotFound},
            {Encode("type: RESPONSE token: 77"), kStatusNotFound},
            {Encode("type: REQUEST token: 1"), kStatusUnsupported},
            {Encode("type: INDICATION userspace_log_message { indication {} }"), kStatusSuccess},
            {Encode("type: REQUEST property_message {}"), kStatusInvalid},
    };
    for (auto [bytes, status] : cases) {
        EXPECT_EQ(handler.ProcessReceivedMessage(bytes.data(), bytes.size()), status) << bytes;
    }
    EXPECT_EQ(handler.ResponseHandler(NewRequest().get()), kStatusInvalid);
}

// The leak check knows this test by its name.
TEST_F(MessageHandlerTest, MessagesOfNoKnownTypeAreKept) {
    const std::string garbage(4, '\xFF');
    for (std::string bytes : {Encode("token: 1"), std::string("\x08\x04", 2), garbage}) {
        EXPECT_EQ(handler.ProcessReceivedMessage(bytes.data(), bytes.size()), kStatusUnsupported);
    }
}

// Delivers the response itself before the wait for it begins.
class HastyHandler : public TestHandler {
  public:
    int WaitForResponse(int timeout_seconds, unsigned int token) override {
        EXPECT_EQ(ResponseHandler(NewResponse(token).get()), kStatusSuccess);
        return VelmarMessageHandler::WaitForResponse(timeout_seconds, token);
    }
};

using HastyResponseTest = PhoneTestCase;

TEST_F(HastyResponseTest, ResponseThatIsTooEarlyEndsInATimeout) {
    modem.SetState(kModemStateOnline);
    injector.Add({"select", kChannel, EBADF});
    HastyHandler handler;
    ASSERT_EQ(handler.Start(), kStatusSuccess);
    // The reader closes the channel when it ends: the request is sent over one that stays open.
    ASSERT_TRUE(log.WaitFor("E IO handler thread stopped"));
    auto request = NewRequest();
    EXPECT_EQ(handler.ResponseHandler(NewResponse(request->GetToken()).get()), kStatusNotFound);
    EXPECT_EQ(handler.SendRequest(request.get(), 1), kStatusTimeout);
    EXPECT_NE(handler.GetRequestRecord(request->GetToken()).message, nullptr);
}

using ExitTest = PhoneFolderTestCase;

// The process ends while its reader serves.
TEST_F(ExitTest, MessageThatArrivesWhileTheHandlerGoesIsServed) {
    const auto exit_while_serving = [this] {
        // They serve to the end of the process.
        auto* modem = new velmar_sim::SimulatedModem(folder);
        auto* injector = new velmar_sim::FaultInjector(folder);
        modem->SetState(kModemStateOnline);
        // The one handler that no test makes, and that goes when the process exits.
        VelmarMessageHandler* handler = VelmarMessageHandler::GetInstance();
        handler->*(&TestHandler::state_monitor) = std::make_unique<OpenMonitor>(handler);
        handler->Start();
        // Has a request answered once the handler is going, and ends the reader then.
        std::thread([modem, injector] {
            std::this_thread::sleep_for(milliseconds(200));
            modem->SendBytes(Encode("type: REQUEST token: 1 property_message { read_request {} }"));
            if (!modem->Receive(milliseconds(5000))) _exit(3);
            injector->Add({"select", kChannel, EBADF});
            modem->SendBytes(Encode("type: RESPONSE"));
        }).detach();
        exit(0);
    };
    EXPECT_EXIT(exit_while_serving(), testing::ExitedWithCode(0), "");
}

// Keeps the commands instead of carrying them out.
class CommandKeeper : public TestHandler {
  public:
    int SendServiceRequest(unsigned int request) override {
        commands.push_back(request);
        return kStatusInvalid;
    }
    std::vector<unsigned int> commands;
};

using StartUpTest = PhoneTestCase;

int recoveries;

TEST_F(StartUpTest, CommandsAndRecoveryCallbackFollowEachChangeIntoOnline) {
    struct Case {
        std::vector<int> states;
        std::vector<unsigned int> commands;
        int recoveries;
    };
    const Case cases[] = {
            {{0, 1, 2, 3}, {}, 0},
            {{4, 4, 0}, {1, 3, 4}, 1},
            {{4, 2, 4}, {1, 3, 4, 1, 3, 4}, 2},
    };
    RecoveryCallback callback([] { ++recoveries; });
    for (const Case& row : cases) {
        recoveries = 0;
        CommandKeeper handler;
        handler.recovery_callback = &callback;
        for (int state : row.states) handler.OnModemStateChanged(state);
        EXPECT_EQ(handler.commands, row.commands);
        EXPECT_EQ(recoveries, row.recoveries);
    }
    EXPECT_EQ(log.Count("I Modem is back. Call recovery callback"), 3);
}

TEST_F(StartUpTest, HandlerThatIsNotStartedRefusesWorkInsteadOfUsingMissingParts) {
    EXPECT_EQ(TestHandler().SendServiceRequest(kCommandExtendedLog), kStatusNotFound);
}

}  // namespace
