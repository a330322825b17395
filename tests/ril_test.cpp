#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "radio_test_case.h"
#include "ril/ril_client_helper.h"
#include "ril/ril_helper.h"
#include "waiting_calls.h"

using android::base::StringPrintf;
using android::base::StringReplace;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrictMock;

namespace {

constexpr unsigned int kRequest = 227;
constexpr char kSendCall[] = "RILC_Send";
constexpr char kOpenCall[] = R"(function: "RILC_Open")";

std::atomic<bool> linger_at_exit{false};

// Runs before any static object is made, so that what it registers runs after all of them are gone.
[[gnu::constructor(101)]] void LetResponsesComeAfterTheLastDestructor() {
    (void)atexit([] {
        if (linger_at_exit) usleep(20000);
    });
}

void IgnoreResponse(unsigned int, int, void*, size_t, unsigned int) {}
void IgnoreMessage(unsigned int, void*, size_t, unsigned int) {}

class Loader : public RilClientHelperDLImpl {
  public:
    using RilClientHelperDLImpl::client;
    using RilClientHelperDLImpl::library;
    using RilClientHelperDLImpl::RILC_Open;
    using RilClientHelperDLImpl::RILC_Send;
    using RilClientHelperDLImpl::RILC_SetIndicationFilter;
};

class LoaderTest : public RadioTestCase {
  protected:
    static void ExpectEveryOperationToFail(RilClientHelper* helper) {
        int filter[] = {1};
        EXPECT_EQ(helper->Open(), nullptr);
        EXPECT_EQ(helper->Open("name"), nullptr);
        EXPECT_EQ(helper->Close(&filter), 1);
        EXPECT_EQ(helper->Reconnect(&filter), 1);
        EXPECT_EQ(helper->Send(&filter, 1, filter, 4, IgnoreResponse), 1);
        EXPECT_EQ(helper->Send(&filter, 1, filter, 4, IgnoreResponse, 1), 1);
        EXPECT_EQ(helper->RegisterUnsolicitedResponseHandler(&filter, IgnoreMessage), 1);
        EXPECT_EQ(helper->SetIndicationFilter(&filter, filter, 1), 1);
    }

    // What was logged, without the name of the class.
    std::string TakeLog() {
        return StringReplace(log.TakeRadioLines(), "RilClientHelperDLImpl::", "", /*all=*/true);
    }
};

TEST_F(LoaderTest, WithoutALibraryTheInstanceStandsAndFails) {
    RilClientHelper* helper = RilClientHelper::GetInstance();
    EXPECT_EQ(log.TakeRadioLines(),
              "I RilClientHelperDLImpl::RilClientHelperDLImpl create instance; "
              "I RilClientHelperDLImpl::Init; E RilClientHelperDLImpl::Init error: dlopen failure");
    Provide("full");
    EXPECT_EQ(RilClientHelper::GetInstance(), helper);
    EXPECT_EQ(TakeLog(), "") << "it must not be tried again";
    ExpectEveryOperationToFail(helper);
}

class MissingEntryPointTest : public LoaderTest, public testing::WithParamInterface<const char*> {};

TEST_P(MissingEntryPointTest, IsNamedAndLeavesTheInstanceFailing) {
    Provide(std::string("without_") + GetParam());
    Loader loader;
    EXPECT_FALSE(loader.Init());
    EXPECT_EQ(TakeLog(),
              StringPrintf("I Init; E Init error: dlsym failure(%s); I Release", GetParam()));
    // The last one to be bound, and the only one that stays: it was never looked up.
    EXPECT_EQ(loader.RILC_SetIndicationFilter, nullptr);
    ExpectEveryOperationToFail(&loader);
    EXPECT_THAT(CallTexts(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Of, MissingEntryPointTest,
                         testing::Values("RILC_Open", "RILC_OpenV2", "RILC_Close", "RILC_Reconnect",
                                         "RILC_RegisterUnsolicitedHandler", "RILC_Send",
                                         "RILC_SetIndicationFilter"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(LoaderTest, EveryCallReachesTheLibrary) {
    Provide("full");
    Behave("result: 7");
    Loader loader;
    ASSERT_TRUE(loader.Init());
    int filter[] = {3, -4};
    char data[] = {1, '\xAB'};
    void* handle = loader.Open();
    EXPECT_EQ(loader.Open("velmar"), handle);
    EXPECT_EQ(loader.Close(nullptr), 1) << "must not reach the library";
    EXPECT_EQ(loader.Close(handle), 7);
    EXPECT_EQ(loader.client, handle);
    EXPECT_EQ(loader.Reconnect(nullptr), 7);
    EXPECT_EQ(loader.Send(handle, 226, data, 2, IgnoreResponse), 7);
    EXPECT_EQ(loader.Send(handle, 227, data, 1, IgnoreResponse, 12), 7);
    EXPECT_EQ(loader.RegisterUnsolicitedResponseHandler(handle, IgnoreMessage), 7);
    EXPECT_EQ(loader.SetIndicationFilter(handle, filter, 2), 7);
    EXPECT_THAT(CallTexts(),
                ElementsAre(kOpenCall, R"(function: "RILC_OpenV2" name: "velmar")",
                            R"(function: "RILC_Close" client: "open")",
                            R"(function: "RILC_Reconnect" client: "null")",
                            R"(function: "RILC_Send" client: "open" request { request: 226 )"
                            R"(data: "\001\253" } extra: 255)",
                            R"(function: "RILC_Send" client: "open" request { request: 227 )"
                            R"(data: "\001" } extra: 12)",
                            R"(function: "RILC_RegisterUnsolicitedHandler" client: "open" )"
                            R"(has_handler: true)",
                            R"(function: "RILC_SetIndicationFilter" client: "open" filter: 3 )"
                            R"(filter: -4)"));
    EXPECT_EQ(TakeLog(),
              StringPrintf("I Init; I Open; I Open; I Close; I Close; I Reconnect; I Send; I Send; "
                           "I RegisterUnsolicitedResponseHandler; I SetIndicationFilter; "
                           "E SetIndicationFilter filter=%p size=2",
                           static_cast<void*>(filter)));
    Behave("no_client: true");
    EXPECT_EQ(loader.Open(), nullptr);
    EXPECT_EQ(loader.client, nullptr);
}

TEST_F(LoaderTest, ReleaseKeepsTheClientAndTheFilterEntryPoint) {
    Provide("full");
    {
        Loader loader;
        ASSERT_TRUE(loader.Init());
        void* handle = loader.Open();
        loader.Release();
        EXPECT_EQ(loader.library, nullptr);
        EXPECT_EQ(loader.RILC_Open, nullptr);
        EXPECT_EQ(loader.RILC_Send, nullptr);
        EXPECT_NE(loader.RILC_SetIndicationFilter, nullptr);
        EXPECT_EQ(loader.SetIndicationFilter(handle, nullptr, 0), 1);
        EXPECT_EQ(loader.Open(), handle);
        EXPECT_THAT(CallTexts(), ElementsAre(kOpenCall));
        TakeLog();
    }
    EXPECT_EQ(TakeLog(), "I ~RilClientHelperDLImpl release instance; I Release");
}

using RequestTest = RadioTestCase;

TEST_F(RequestTest, UnavailableRadioIsAskedAgainWithinTheBudget) {
    struct Case {
        const char* behaviour;
        int budget_seconds;
        int result;
        // Of the pauses, in seconds.
        const char* pauses;
    };
    const Case cases[] = {
            {"answer { error: 0 }", 60, 0, ""},
            {"answer { error: 44 }", 60, 44, ""},
            {"result: 1 answer { error: 0 }", 60, 0, ""},
            {"answer { error: 3 early: true }", 60, 3, ""},
            {"answer { error: 1 } answer { error: 1 } answer { error: 0 }", 60, 0, " 5 5"},
            {"answer { error: 1 } answer { error: 3 }", 60, 3, " 5"},
            {"answer { error: 1 }", 5, 1, ""},
            {"answer { error: 1 }", 6, 1, " 1"},
            {"answer { error: 1 }", 8, 1, " 3"},
            {"answer { error: 1 }", 20, 1, " 5 5 5"},
            {"answer { early: true twice: true }", 60, 0, ""},
            {"answer { twice: true }", 60, 0, ""},
    };
    Provide("full");
    StrictMock<WaitingCalls> waits;
    std::string pauses;
    EXPECT_CALL(waits, Sleep(testing::_)).WillRepeatedly([&pauses](unsigned int seconds) {
        pauses += " " + std::to_string(seconds);
        return 0;
    });
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    char data[] = {5, 0};
    EXPECT_EQ(helper->Send(kRequest, data, sizeof(data), -1), kRilInvalidArguments);
    EXPECT_THAT(Calls(kSendCall), IsEmpty());
    auto start = steady_clock::now();
    for (const Case& row : cases) {
        SCOPED_TRACE(row.behaviour);
        Behave(row.behaviour);
        EXPECT_EQ(helper->Send(kRequest, data, sizeof(data), row.budget_seconds), row.result);
        EXPECT_EQ(std::exchange(pauses, ""), row.pauses);
        const auto calls = Calls(kSendCall);
        EXPECT_THAT(calls, SizeIs(1 + std::string(row.pauses).size() / 2));
        for (const velmar_sim::RadioCall& call : calls) {
            EXPECT_EQ(call.request().ShortDebugString(), R"(request: 227 data: "\005\000")");
        }
        ForgetCalls();
    }
    EXPECT_LT(steady_clock::now() - start, milliseconds(4000)) << "a response did not wake";
    // A budget of 0 is a pause without end.
    struct Enough {};
    EXPECT_CALL(waits, Sleep(4294967291)).WillOnce([](unsigned int) -> unsigned int {
        throw Enough();
    });
    Behave("answer { error: 1 }");
    EXPECT_THROW(helper->Send(kRequest, nullptr, 0, 0), Enough);
}

TEST_F(RequestTest, ClientIsAskedForAgainUntilThereIsOne) {
    Provide("full");
    Behave("no_client: true");
    EXPECT_EQ(RilRequestHelper::GetInstance(), nullptr);
    RilRequestHelper::Response(kRequest, 0, nullptr, 0, 0);
    EXPECT_EQ(RilRequestHelper::GetInstance(), nullptr);
    Behave("");
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    EXPECT_NE(helper, nullptr);
    EXPECT_EQ(RilRequestHelper::GetInstance(), helper);
    EXPECT_THAT(CallTexts(), ElementsAre(kOpenCall, kOpenCall, kOpenCall, kOpenCall));
}

TEST_F(RequestTest, ResponseIsAwaitedFor5SecondsAndALateOneTakenForTheNext) {
    Provide("full");
    Behave("answer { error: 9 delay_ms: 5500 } answer { none: true }");
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    auto start = steady_clock::now();
    EXPECT_EQ(helper->Send(1, nullptr, 0, 60), kRilInvalidResponse);
    EXPECT_GE(steady_clock::now() - start, milliseconds(4998));
    EXPECT_EQ(helper->Send(2, nullptr, 0, 60), 9);
    EXPECT_THAT(Calls(kSendCall), SizeIs(2));
}

TEST_F(RequestTest, SendersTakeTurns) {
    Provide("full");
    Behave("answer { delay_ms: 200 }");
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    auto send = [helper] { EXPECT_EQ(helper->Send(kRequest, nullptr, 0, 60), 0); };
    std::thread threads[] = {std::thread(send), std::thread(send), std::thread(send)};
    for (std::thread& thread : threads) thread.join();
    std::vector<velmar_sim::RadioCall> calls = Calls(kSendCall);
    ASSERT_THAT(calls, SizeIs(3));
    for (size_t i = 1; i < calls.size(); ++i) {
        EXPECT_GE(calls[i].time_us() - calls[i - 1].time_us(), 198000);
    }
}

TEST_F(RequestTest, ResponsesDuringTheExitOfTheProcessFindNoInstance) {
    constexpr int kProcesses = 10;
    Provide("full");
    auto exit_while_responses_come = [] {
        static std::atomic<int> responses{0};
        RilRequestHelper::GetInstance();
        linger_at_exit = true;
        for (int i = 0; i < 2; ++i) {
            std::thread([] {
                for (;; ++responses) RilRequestHelper::Response(kRequest, 0, nullptr, 0, 0);
            }).detach();
        }
        while (responses < 100) std::this_thread::yield();
        exit(0);
    };
    for (int i = 0; i < kProcesses; ++i) {
        EXPECT_EXIT(exit_while_responses_come(), testing::ExitedWithCode(0), "");
    }
    EXPECT_THAT(CallTexts(), SizeIs(kProcesses)) << "each process opens one client";
}

}  // namespace
