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
#include <vector>

#include "phone_test_case.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using velmar_message::VelmarMessage;

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

std::unique_ptr<SitMessage> NewRequest() {
    auto message = std::make_unique<SitMessage>();
    message->InitialHeader(VelmarMessage::kExtendedLogMessage, velmar_message::REQUEST);
    message->GetVelmarMessage()->mutable_extended_log_message()->mutable_request();
    return message;
}

// A handler whose reader thread runs and reads.
class MessageHandlerTest : public PhoneTestCase {
  protected:
    MessageHandlerTest() {
        modem.SetState(kModemStateOnline);
        EXPECT_EQ(handler.Start(), kStatusSuccess);
        EXPECT_TRUE(modem.WaitForChannel(milliseconds(5000)));
        // Once it has read something, no sender opens the channel beside it any more.
        modem.SendBytes(Encode("type: INDICATION"));
        EXPECT_TRUE(log.WaitFor("E IndicationHandler: Unsupported message id 0"));
    }
    // The reader ends when it cannot wait for the channel; it gets there once it is woken. It has
    // to be done with the handler before that goes.
    ~MessageHandlerTest() override {
        injector.Add({"select", "/dev/oem_ipc1", EBADF});
        modem.SendBytes(Encode("type: RESPONSE"));
        EXPECT_TRUE(log.WaitFor("E IO handler thread stopped"));
    }

    void Respond(unsigned int token) {
        VelmarMessage response;
        response.set_type(velmar_message::RESPONSE);
        response.set_token(token);
        response.set_result(velmar_message::SUCCESS);
        modem.Send(response);
    }

    TestHandler handler;
};

TEST_F(MessageHandlerTest, EachOfSeveralSendersIsWokenByItsOwnResponse) {
    constexpr int kSenders = 4;
    std::unique_ptr<SitMessage> requests[kSenders];
    int statuses[kSenders];
    std::vector<std::thread> senders;
    for (int i = 0; i < kSenders; ++i) {
        requests[i] = NewRequest();
        senders.emplace_back([&, i] { statuses[i] = handler.SendRequest(requests[i].get(), 10); });
    }
    for (int i = 0; i < kSenders; ++i) ASSERT_TRUE(modem.Receive(milliseconds(5000)));
    // All of them have to be waiting, or the response passes unnoticed.
    std::this_thread::sleep_for(milliseconds(200));
    for (int i = kSenders - 1; i >= 0; --i) {
        Respond(requests[i]->GetToken());
        senders[i].join();
        EXPECT_EQ(statuses[i], kStatusSuccess);
        RequestRecord record = handler.GetRequestRecord(requests[i]->GetToken());
        ASSERT_NE(record.message, nullptr);
        EXPECT_EQ(record.message->GetToken(), requests[i]->GetToken());
        handler.RemoveRequestRecord(requests[i]->GetToken());
        EXPECT_FALSE(handler.request_list.load()->IsRecordInList(requests[i]->GetToken()));
    }
}

TEST_F(MessageHandlerTest, RequestWithoutResponseTimesOutAndKeepsItsRecord) {
    auto request = NewRequest();
    auto start = steady_clock::now();
    EXPECT_EQ(handler.SendRequest(request.get(), 3), kStatusTimeout);
    EXPECT_GE(steady_clock::now() - start, milliseconds(2990));

    Respond(request->GetToken());
    auto deadline = steady_clock::now() + milliseconds(5000);
    while (handler.GetRequestRecord(request->GetToken()).message == nullptr) {
        ASSERT_LT(steady_clock::now(), deadline) << "the late response was not stored";
        std::this_thread::sleep_for(milliseconds(5));
    }
}

TEST_F(MessageHandlerTest, WakeUpForAnotherTokenDoesNotLengthenTheWait) {
    RequestRecord record(1000000);
    handler.request_list.load()->AddRecord(&record);
    auto request = NewRequest();
    std::thread others([&] {
        for (int i = 0; i < 15; ++i) {
            Respond(1000000);
            std::this_thread::sleep_for(milliseconds(100));
        }
    });
    auto start = steady_clock::now();
    EXPECT_EQ(handler.SendRequest(request.get(), 1), kStatusTimeout);
    EXPECT_LT(steady_clock::now() - start, milliseconds(1490));
    others.join();
}

// The clock is set while a sender waits that another request's response wakes.
TEST_F(MessageHandlerTest, StepOfTheWallClockShortensOrLengthensTheWaitByAsMuch) {
    struct Step {
        time_t seconds;
        milliseconds wait_is_at_least;
        milliseconds wait_is_below;
    };
    const Step steps[] = {
            {2, milliseconds(0), milliseconds(900)},
            {86400, milliseconds(0), milliseconds(900)},
            {2160000, milliseconds(0), milliseconds(900)},
            {1700000000, milliseconds(0), milliseconds(900)},
            {1790000000, milliseconds(0), milliseconds(900)},
            {-5, milliseconds(5900), milliseconds(8000)},
    };
    RequestRecord record(1000000);
    handler.request_list.load()->AddRecord(&record);
    for (const Step& step : steps) {
        auto request = NewRequest();
        auto start = steady_clock::now();
        std::thread other([&] {
            std::this_thread::sleep_for(milliseconds(100));
            wall_clock_step += step.seconds;
            Respond(1000000);
            // For a sender that would wait for days.
            std::this_thread::sleep_until(start + step.wait_is_below);
            Respond(request->GetToken());
        });
        EXPECT_EQ(handler.SendRequest(request.get(), 1), kStatusTimeout) << step.seconds << " s";
        EXPECT_GE(steady_clock::now() - start, step.wait_is_at_least) << step.seconds << " s";
        other.join();
    }
}

TEST_F(MessageHandlerTest, WhatIsNotARequestWithATokenIsRefusedUnsent) {
    auto tokenless = Receive("type: REQUEST message_id: 6 extended_log_message { request {} }");
    auto response = Receive("type: RESPONSE token: 5");
    SitMessage empty;
    EXPECT_EQ(handler.SendRequest(nullptr, 3), kStatusInvalid);
    for (SitMessage* message : {tokenless.get(), response.get(), &empty}) {
        EXPECT_EQ(handler.SendRequest(message, 3), kStatusInvalid);
    }
    EXPECT_EQ(handler.SendResponse(nullptr), kStatusInvalid);
    EXPECT_EQ(handler.SendResponse(tokenless.get()), kStatusInvalid);
    EXPECT_FALSE(modem.Receive(milliseconds(100)));
}

TEST_F(MessageHandlerTest, FailedWriteIsReportedAndLeavesNoRecord) {
    injector.Add({"write", "/dev/oem_ipc1", EIO, 0, 2});
    auto request = NewRequest();
    EXPECT_EQ(handler.SendRequest(request.get(), 3), kStatusWriteFailed);
    EXPECT_FALSE(handler.request_list.load()->IsRecordInList(request->GetToken()));
    auto response = Receive("type: RESPONSE token: 5");
    EXPECT_EQ(handler.SendResponse(response.get()), kStatusWriteFailed);
}

TEST_F(MessageHandlerTest, WaitForUnknownTokenEndsAtOnce) {
    EXPECT_EQ(handler.WaitForResponse(60, 12345), kStatusNotFound);
}

TEST_F(MessageHandlerTest, MessagesAreSortedByType) {
    struct Case {
        const char* what;
        std::string bytes;
        int status;
    };
    const std::vector<Case> cases = {
            {"cut off after the type", std::string("\x08\x02\x18", 3), kStatusNotFound},
            {"response that nobody awaits", Encode("type: RESPONSE token: 77"), kStatusNotFound},
            {"response without a token", Encode("type: RESPONSE"), kStatusNotFound},
            {"request without a payload", Encode("type: REQUEST token: 1"), kStatusUnsupported},
            {"indication", Encode("type: INDICATION userspace_log_message { indication {} }"),
             kStatusSuccess},
            {"property as indication", Encode("type: INDICATION property_message {}"),
             kStatusUnsupported},
            {"property request without a member", Encode("type: REQUEST property_message {}"),
             kStatusInvalid},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        std::string bytes = row.bytes;
        EXPECT_EQ(handler.ProcessReceivedMessage(bytes.data(), bytes.size()), row.status);
    }
    EXPECT_EQ(handler.ProcessReceivedMessage(nullptr, 5), kStatusInvalid);
    char byte = 0;
    EXPECT_EQ(handler.ProcessReceivedMessage(&byte, 0), kStatusInvalid);
    EXPECT_EQ(handler.ResponseHandler(nullptr), kStatusInvalid);
    EXPECT_EQ(handler.ResponseHandler(Receive("type: REQUEST token: 1").get()), kStatusInvalid);
}

// The leak check knows this test by its name.
TEST_F(MessageHandlerTest, MessagesOfNoKnownTypeAreKept) {
    const std::string garbage(4, '\xFF');
    for (std::string bytes : {Encode("token: 1"), std::string("\x08\x04", 2), garbage}) {
        EXPECT_EQ(handler.ProcessReceivedMessage(bytes.data(), bytes.size()), kStatusUnsupported);
    }
}

// Delivers the response itself: before the request is recorded, or before the wait for it begins.
class HastyHandler : public TestHandler {
  public:
    int WaitForResponse(int timeout_seconds, unsigned int token) override {
        auto response = Receive("type: RESPONSE token: " + std::to_string(token));
        delivered = ResponseHandler(response.get());
        return VelmarMessageHandler::WaitForResponse(timeout_seconds, token);
    }
    int delivered = -1;
};

class HastyResponseTest : public PhoneTestCase {};

TEST_F(HastyResponseTest, ResponseThatIsTooEarlyEndsInATimeout) {
    // Offline, the reader ends with its first wait for the modem.
    modem.SetState(kModemStateOnline);
    injector.Add({"select", "/dev/oem_ipc1", EBADF});
    HastyHandler handler;
    ASSERT_EQ(handler.Start(), kStatusSuccess);
    // The reader closes the channel when it ends: the request is sent over one that stays open.
    ASSERT_TRUE(log.WaitFor("E IO handler thread stopped"));
    auto request = NewRequest();
    auto before_the_record =
            Receive("type: RESPONSE token: " + std::to_string(request->GetToken()));
    EXPECT_EQ(handler.ResponseHandler(before_the_record.get()), kStatusNotFound);
    EXPECT_EQ(handler.SendRequest(request.get(), 1), kStatusTimeout);
    EXPECT_EQ(handler.delivered, kStatusSuccess);
    EXPECT_NE(handler.GetRequestRecord(request->GetToken()).message, nullptr);
}

// A phone whose process ends while its reader serves. It has one thread until it has been forked.
class ExitTest : public testing::Test {
  protected:
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet.
    ExitTest() { setenv(velmar_phone::kRootVariable, folder.root().c_str(), 1); }

    [[noreturn]] void ExitWhileServing() {
        // It serves to the end of the process.
        auto* modem = new velmar_sim::SimulatedModem(folder);
        modem->SetState(kModemStateOnline);
        // The one handler that no test makes, and that goes when the process exits.
        VelmarMessageHandler* handler = VelmarMessageHandler::GetInstance();
        handler->*(&TestHandler::state_monitor) = std::make_unique<OpenMonitor>(handler);
        if (handler->Start() != kStatusSuccess) _exit(2);
        if (!modem->WaitForChannel(milliseconds(5000))) _exit(2);
        auto* injector = new velmar_sim::FaultInjector(folder);
        std::thread(TalkToTheEnd, modem, injector).detach();
        exit(0);
    }

    // Has a request answered once the handler is going, and ends the reader then.
    static void TalkToTheEnd(velmar_sim::SimulatedModem* modem,
                             velmar_sim::FaultInjector* injector) {
        std::this_thread::sleep_for(milliseconds(200));
        modem->SendBytes(Encode("type: REQUEST token: 1 property_message { read_request {} }"));
        if (!modem->Receive(milliseconds(5000))) _exit(3);
        injector->Add({"select", "/dev/oem_ipc1", EBADF});
        modem->SendBytes(Encode("type: RESPONSE"));
    }

    velmar_sim::PhoneFolder folder;
};

TEST_F(ExitTest, MessageThatArrivesWhileTheHandlerGoesIsServed) {
    EXPECT_EXIT(ExitWhileServing(), testing::ExitedWithCode(0), "");
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

class StartUpCommandsTest : public PhoneTestCase {};

int recoveries = 0;

TEST_F(StartUpCommandsTest, AreSentOncePerChangeIntoOnline) {
    struct Case {
        std::vector<int> states;
        std::vector<unsigned int> commands;
    };
    const std::vector<Case> cases = {
            {{0, 1, 2, 3}, {}},
            {{4, 4}, {1, 3, 4}},
            {{4, 2, 4}, {1, 3, 4, 1, 3, 4}},
            {{3, 4, 0}, {1, 3, 4}},
    };
    for (const Case& row : cases) {
        CommandKeeper handler;
        for (int state : row.states) handler.OnModemStateChanged(state);
        EXPECT_EQ(handler.commands, row.commands) << testing::PrintToString(row.states);
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(StartUpCommandsTest, RecoveryCallbackComesAfterThem) {
    CommandKeeper handler;
    RecoveryCallback callback([] { ++recoveries; });
    handler.recovery_callback = &callback;
    handler.OnModemStateChanged(3);
    EXPECT_EQ(recoveries, 0);
    handler.OnModemStateChanged(4);
    EXPECT_EQ(recoveries, 1);
    EXPECT_THAT(log.Lines(), ElementsAre("I Modem is back. Call recovery callback"));
}

TEST_F(StartUpCommandsTest, HandlerThatIsNotStartedRefusesWorkInsteadOfUsingMissingParts) {
    TestHandler handler;
    EXPECT_EQ(handler.SendServiceRequest(kCommandExtendedLog), kStatusNotFound);
}

}  // namespace
