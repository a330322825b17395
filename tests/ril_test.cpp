#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <stdlib.h>

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

namespace {

constexpr unsigned int kRequest = 227;
constexpr char kOpenCall[] = "RILC_Open";

void IgnoreResponse(unsigned int, int, void*, size_t, unsigned int) {}
void IgnoreMessage(unsigned int, void*, size_t, unsigned int) {}

class Loader : public RilClientHelperDLImpl {
  public:
    using RilClientHelperDLImpl::RILC_SetIndicationFilter;
};

class LoaderTest : public RadioTestCase {
  protected:
    static void ExpectEveryOperationToFail(RilClientHelper* helper) {
        int client = 0;
        EXPECT_EQ(helper->Open(), nullptr);
        EXPECT_EQ(helper->Open("name"), nullptr);
        EXPECT_EQ(helper->Close(&client), 1);
        EXPECT_EQ(helper->Reconnect(&client), 1);
        EXPECT_EQ(helper->Send(&client, 1, nullptr, 0, IgnoreResponse), 1);
        EXPECT_EQ(helper->RegisterUnsolicitedResponseHandler(&client, IgnoreMessage), 1);
        EXPECT_EQ(helper->SetIndicationFilter(&client, nullptr, 0), 1);
    }

    // What was logged, without the name of the class.
    std::string TakeLog() {
        return StringReplace(log.TakeLines(LogCapture::kRadioBuffer), "RilClientHelperDLImpl::", "",
                             true);
    }

    LogCapture log{folder};
};

TEST_F(LoaderTest, WithoutALibraryTheInstanceStandsAndFails) {
    RilClientHelper* helper = RilClientHelper::GetInstance();
    EXPECT_EQ(log.TakeLines(LogCapture::kRadioBuffer),
              "I RilClientHelperDLImpl::RilClientHelperDLImpl create instance; "
              "I RilClientHelperDLImpl::Init; E RilClientHelperDLImpl::Init error: dlopen failure");
    Provide("full");
    EXPECT_EQ(RilClientHelper::GetInstance(), helper);
    EXPECT_EQ(TakeLog(), "") << "it must not be tried again";
    ExpectEveryOperationToFail(helper);
    TakeLog();
    { Loader unloaded; }
    EXPECT_EQ(TakeLog(), "I ~RilClientHelperDLImpl release instance; I Release");
}

// The last one to be looked up: all others have been found.
TEST_F(LoaderTest, MissingEntryPointIsNamedAndLeavesTheInstanceFailing) {
    Provide("without_RILC_SetIndicationFilter");
    Loader loader;
    EXPECT_FALSE(loader.Init());
    EXPECT_EQ(TakeLog(),
              "I Init; E Init error: dlsym failure(RILC_SetIndicationFilter); I Release");
    ExpectEveryOperationToFail(&loader);
    EXPECT_THAT(TakeCalls(), IsEmpty());
}

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
    EXPECT_EQ(loader.Reconnect(nullptr), 7);
    EXPECT_EQ(loader.Send(handle, 226, data, 2, IgnoreResponse), 7);
    EXPECT_EQ(loader.Send(handle, 227, data, 1, IgnoreResponse, 12), 7);
    EXPECT_EQ(loader.RegisterUnsolicitedResponseHandler(handle, IgnoreMessage), 7);
    EXPECT_EQ(loader.SetIndicationFilter(handle, filter, 2), 7);
    EXPECT_THAT(TakeCalls(),
                ElementsAre(kOpenCall, "RILC_OpenV2 name: velmar", "RILC_Close client: open",
                            "RILC_Reconnect client: null",
                            "RILC_Send client: open request { request: 226 data: \\001\\253 } "
                            "extra: 255",
                            "RILC_Send client: open request { request: 227 data: \\001 } extra: 12",
                            "RILC_RegisterUnsolicitedHandler client: open has_handler: true",
                            "RILC_SetIndicationFilter client: open filter: 3 filter: -4"));
    EXPECT_EQ(TakeLog(),
              StringPrintf("I Init; I Open; I Open; I Close; I Close; I Reconnect; I Send; I Send; "
                           "I RegisterUnsolicitedResponseHandler; I SetIndicationFilter; "
                           "E SetIndicationFilter filter=%p size=2",
                           static_cast<void*>(filter)));
    // Of what was bound, the client and the last entry point stay, and neither is used.
    loader.Release();
    EXPECT_EQ(loader.Open(), handle);
    EXPECT_NE(loader.RILC_SetIndicationFilter, nullptr);
    EXPECT_EQ(loader.SetIndicationFilter(handle, filter, 2), 1);
    EXPECT_THAT(TakeCalls(), IsEmpty());
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
            {"result: 1 answer { error: 44 }", 60, 44, ""},
            {"answer { error: 3 early: true }", 60, 3, ""},
            {"answer { error: 1 } answer { error: 1 } answer { error: 3 }", 60, 3, " 5 5"},
            {"answer { error: 1 }", 5, 1, ""},
            {"answer { error: 1 }", 6, 1, " 1"},
            {"answer { error: 1 }", 20, 1, " 5 5 5"},
            {"answer { early: true twice: true }", 60, 0, ""},
    };
    Provide("full");
    testing::StrictMock<WaitingCalls> waits;
    std::string pauses;
    EXPECT_CALL(waits, Sleep(testing::_)).WillRepeatedly([&pauses](unsigned int seconds) {
        pauses += " " + std::to_string(seconds);
        return 0;
    });
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    char data[] = {5, 0};
    EXPECT_EQ(helper->Send(kRequest, data, sizeof(data), -1), kRilInvalidArguments);
    EXPECT_THAT(TakeCalls(), ElementsAre(kOpenCall));
    auto start = steady_clock::now();
    for (const Case& row : cases) {
        SCOPED_TRACE(row.behaviour);
        Behave(row.behaviour);
        EXPECT_EQ(helper->Send(kRequest, data, sizeof(data), row.budget_seconds), row.result);
        EXPECT_EQ(std::exchange(pauses, ""), row.pauses);
        const auto calls = TakeCalls();
        EXPECT_THAT(calls, SizeIs(1 + std::string(row.pauses).size() / 2));
        EXPECT_THAT(calls, testing::Each(calls.front()));
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
    Behave("");
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    EXPECT_NE(helper, nullptr);
    EXPECT_EQ(RilRequestHelper::GetInstance(), helper);
    EXPECT_THAT(TakeCalls(), ElementsAre(kOpenCall, kOpenCall, kOpenCall));
}

TEST_F(RequestTest, ResponseIsAwaitedFor5SecondsAndALateOneTakenForTheNext) {
    Provide("full");
    Behave("answer { error: 9 delay_ms: 5500 } answer { none: true }");
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    auto start = steady_clock::now();
    EXPECT_EQ(helper->Send(1, nullptr, 0, 60), kRilInvalidResponse);
    EXPECT_GE(steady_clock::now() - start, milliseconds(4998));
    EXPECT_EQ(helper->Send(2, nullptr, 0, 60), 9);
    EXPECT_THAT(TakeCalls(), SizeIs(3));
}

TEST_F(RequestTest, SendersTakeTurns) {
    Provide("full");
    Behave("answer { delay_ms: 200 }");
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    auto send = [helper] { EXPECT_EQ(helper->Send(kRequest, nullptr, 0, 60), 0); };
    auto start = steady_clock::now();
    std::thread other(send);
    send();
    other.join();
    EXPECT_GE(steady_clock::now() - start, milliseconds(398));
}

// ThreadSanitizer sees an instance that is used or made behind its destruction.
TEST_F(RequestTest, ResponsesDuringTheExitOfTheProcessFindNoInstance) {
    Provide("full");
    const auto exit_while_responses_come = [] {
        RilRequestHelper::GetInstance();
        static std::atomic<int> responses{0};
        std::thread([] {
            for (;; ++responses) RilRequestHelper::Response(kRequest, 0, nullptr, 0, 0);
        }).detach();
        while (responses < 100) std::this_thread::yield();
        exit(0);
    };
    for (int i = 0; i < 5; ++i) {
        EXPECT_EXIT(exit_while_responses_come(), testing::ExitedWithCode(0), "");
    }
}

}  // namespace
