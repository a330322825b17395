#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "radio_test_case.h"
#include "ril/ril_client_helper.h"
#include "ril/ril_helper.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr unsigned int kRequest = 227;
constexpr char kSendCall[] = "RILC_Send";
constexpr char kOpenCall[] = "function: \"RILC_Open\"";
// How much longer than its nominal length a wait may take on a busy machine.
constexpr int kSlackMs = 900;

std::atomic<bool> linger_at_exit{false};

// Runs before any static object is made, so that what it registers runs after all of them are gone.
[[gnu::constructor(101)]] void LetAnswersComeAfterTheLastDestructor() {
    (void)atexit([] {
        if (linger_at_exit) usleep(20000);
    });
}

void IgnoreAnswer(unsigned int, int, void*, size_t, unsigned int) {}
void IgnoreMessage(unsigned int, void*, size_t, unsigned int) {}

// Collects the lines of the radio log with the library's tag, in place of the LogCapture before it.
class RadioLog {
  public:
    RadioLog() { __android_log_set_logger(Keep); }

    static std::vector<std::string> Take() { return std::exchange(Store(), {}); }

  private:
    static std::vector<std::string>& Store() {
        static std::vector<std::string> lines;
        return lines;
    }
    static void Keep(const __android_logger_data* data, const char* message) {
        if (data->buffer_id != 1 || std::string(data->tag) != "libsitril-client") return;
        static const char kLetters[] = "??VDIWEF";
        Store().push_back(std::string(1, kLetters[data->priority & 7]) + " " + message);
    }
};

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
        EXPECT_EQ(helper->Send(&filter, 1, filter, 4, IgnoreAnswer), 1);
        EXPECT_EQ(helper->Send(&filter, 1, filter, 4, IgnoreAnswer, 1), 1);
        EXPECT_EQ(helper->RegisterUnsolicitedResponseHandler(&filter, IgnoreMessage), 1);
        EXPECT_EQ(helper->SetIndicationFilter(&filter, filter, 1), 1);
    }

    RadioLog radio_log;
};

TEST_F(LoaderTest, WithoutALibraryTheInstanceStandsAndFails) {
    RilClientHelper* helper = RilClientHelper::GetInstance();
    ASSERT_NE(helper, nullptr);
    EXPECT_THAT(RadioLog::Take(),
                ElementsAre("I RilClientHelperDLImpl::RilClientHelperDLImpl create instance",
                            "I RilClientHelperDLImpl::Init",
                            "E RilClientHelperDLImpl::Init error: dlopen failure"));
    Provide("full");
    EXPECT_EQ(RilClientHelper::GetInstance(), helper);
    EXPECT_THAT(RadioLog::Take(), IsEmpty()) << "it must not be tried again";
    ExpectEveryOperationToFail(helper);
}

class MissingEntryPointTest : public LoaderTest, public testing::WithParamInterface<const char*> {};

TEST_P(MissingEntryPointTest, IsNamedAndLeavesTheInstanceFailing) {
    Provide(std::string("without_") + GetParam());
    Loader loader;
    EXPECT_FALSE(loader.Init());
    EXPECT_THAT(RadioLog::Take(),
                ElementsAre("I RilClientHelperDLImpl::Init",
                            std::string("E RilClientHelperDLImpl::Init error: dlsym failure(") +
                                    GetParam() + ")",
                            "I RilClientHelperDLImpl::Release"));
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
    EXPECT_EQ(loader.Send(handle, 226, data, 2, IgnoreAnswer), 7);
    EXPECT_EQ(loader.Send(handle, 227, data, 1, IgnoreAnswer, 12), 7);
    EXPECT_EQ(loader.RegisterUnsolicitedResponseHandler(handle, IgnoreMessage), 7);
    EXPECT_EQ(loader.SetIndicationFilter(handle, filter, 2), 7);
    EXPECT_THAT(CallTexts(),
                ElementsAre("function: \"RILC_Open\"", "function: \"RILC_OpenV2\" name: \"velmar\"",
                            "function: \"RILC_Close\" client: \"open\"",
                            "function: \"RILC_Reconnect\" client: \"null\"",
                            "function: \"RILC_Send\" client: \"open\" "
                            "request { request: 226 data: \"\\001\\253\" } extra: 255",
                            "function: \"RILC_Send\" client: \"open\" "
                            "request { request: 227 data: \"\\001\" } extra: 12",
                            "function: \"RILC_RegisterUnsolicitedHandler\" client: \"open\" "
                            "has_handler: true",
                            "function: \"RILC_SetIndicationFilter\" client: \"open\" "
                            "filter: 3 filter: -4"));
    char filter_line[96];
    (void)snprintf(filter_line, sizeof(filter_line),
                   "E RilClientHelperDLImpl::SetIndicationFilter filter=%p size=2",
                   static_cast<void*>(filter));
    EXPECT_THAT(RadioLog::Take(),
                ElementsAre("I RilClientHelperDLImpl::Init", "I RilClientHelperDLImpl::Open",
                            "I RilClientHelperDLImpl::Open", "I RilClientHelperDLImpl::Close",
                            "I RilClientHelperDLImpl::Close", "I RilClientHelperDLImpl::Reconnect",
                            "I RilClientHelperDLImpl::Send", "I RilClientHelperDLImpl::Send",
                            "I RilClientHelperDLImpl::RegisterUnsolicitedResponseHandler",
                            "I RilClientHelperDLImpl::SetIndicationFilter", filter_line));
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
        RadioLog::Take();
    }
    EXPECT_THAT(RadioLog::Take(),
                ElementsAre("I RilClientHelperDLImpl::~RilClientHelperDLImpl release instance",
                            "I RilClientHelperDLImpl::Release"));
}

TEST_F(LoaderTest, FailedOpenForgetsTheClient) {
    Provide("full");
    Loader loader;
    ASSERT_TRUE(loader.Init());
    EXPECT_NE(loader.Open(), nullptr);
    Behave("no_client: true");
    EXPECT_EQ(loader.Open(), nullptr);
    EXPECT_EQ(loader.client, nullptr);
}

struct Exchange {
    const char* name;
    const char* behaviour;
    int timeout_seconds;
    int result;
    // Seconds from each attempt to the next, and from the last one to the result; empty when
    // nothing is sent.
    std::vector<double> seconds;
};

void PrintTo(const Exchange& exchange, std::ostream* stream) {
    *stream << exchange.name;
}

class ExchangeTest : public RadioTestCase, public testing::WithParamInterface<Exchange> {
  protected:
    void SetUp() override { Provide("full"); }
};

TEST_P(ExchangeTest, GivesTheResultInItsTime) {
    const Exchange& exchange = GetParam();
    Behave(exchange.behaviour);
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    ASSERT_NE(helper, nullptr);
    char data[] = {5, 0};
    EXPECT_EQ(helper->Send(kRequest, data, sizeof(data), exchange.timeout_seconds),
              exchange.result);
    auto end = std::chrono::duration_cast<std::chrono::microseconds>(
            steady_clock::now().time_since_epoch());

    std::vector<velmar_sim::RadioCall> calls = Calls(kSendCall);
    ASSERT_THAT(calls, SizeIs(exchange.seconds.size()));
    calls.emplace_back().set_time_us(end.count());
    for (size_t i = 0; i < exchange.seconds.size(); ++i) {
        EXPECT_EQ(calls[i].request().ShortDebugString(), R"(request: 227 data: "\005\000")");
        double expected_ms = exchange.seconds[i] * 1000;
        double actual_ms = static_cast<double>(calls[i + 1].time_us() - calls[i].time_us()) / 1000;
        EXPECT_GE(actual_ms, expected_ms - 2) << "after attempt " << i + 1;
        EXPECT_LE(actual_ms, expected_ms + kSlackMs) << "after attempt " << i + 1;
    }
}

INSTANTIATE_TEST_SUITE_P(
        Of, ExchangeTest,
        testing::Values(
                Exchange{"Success", "answer { error: 0 }", 60, 0, {0}},
                Exchange{"RadiosOwnError", "answer { error: 44 }", 60, 44, {0}},
                Exchange{"FailingCallThatIsAnswered", "result: 1 answer { error: 0 }", 60, 0, {0}},
                Exchange{"Early", "answer { error: 3 early: true }", 60, 3, {0}},
                Exchange{"Twice", "answer { error: 0 twice: true }", 60, 0, {0}},
                Exchange{
                        "EarlyAndTwice", "answer { error: 0 early: true twice: true }", 60, 0, {0}},
                Exchange{"Slow", "answer { error: 0 delay_ms: 4500 }", 60, 0, {4.5}},
                Exchange{"TooSlow", "answer { error: 0 delay_ms: 6000 }", 60, 66, {5}},
                Exchange{"Never", "answer { none: true }", 60, 66, {5}},
                Exchange{"UnavailableTwice",
                         "answer { error: 1 } answer { error: 1 } answer { error: 0 }",
                         60,
                         0,
                         {5, 5, 0}},
                Exchange{"UnavailableThenSilent",
                         "answer { error: 1 } answer { none: true }",
                         60,
                         66,
                         {5, 5}},
                Exchange{"UnavailableAndNegative", "answer { error: 1 }", -1, 44, {}},
                Exchange{"UnavailableFor5Seconds", "answer { error: 1 }", 5, 1, {0}},
                Exchange{"UnavailableFor6Seconds", "answer { error: 1 }", 6, 1, {1, 0}},
                Exchange{"UnavailableFor8Seconds", "answer { error: 1 }", 8, 1, {3, 0}},
                Exchange{"UnavailableFor20Seconds", "answer { error: 1 }", 20, 1, {5, 5, 5, 0}}),
        [](const auto& test) { return std::string(test.param.name); });

class RequestTest : public RadioTestCase {};

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

TEST_F(RequestTest, BudgetOfZeroBlocksOnAnUnavailableRadio) {
    Provide("full");
    Behave("answer { error: 1 early: true }");
    auto send = [] {
        // Longer than any other pause.
        alarm(6);
        RilRequestHelper::GetInstance()->Send(kRequest, nullptr, 0, 0);
    };
    EXPECT_EXIT(send(), testing::KilledBySignal(SIGALRM), "");
    EXPECT_THAT(Calls(kSendCall), SizeIs(1));
}

TEST_F(RequestTest, LateAnswerIsTakenForThatOfTheNextRequest) {
    Provide("full");
    Behave("answer { error: 9 delay_ms: 5500 } answer { none: true }");
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    EXPECT_EQ(helper->Send(1, nullptr, 0, 60), kRilInvalidResponse);
    EXPECT_EQ(helper->Send(2, nullptr, 0, 60), 9);
}

TEST_F(RequestTest, SendersTakeTurns) {
    Provide("full");
    Behave("answer { error: 0 delay_ms: 200 }");
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

TEST_F(RequestTest, AnswersFromManyThreadsDisturbNothing) {
    Provide("full");
    RilRequestHelper* helper = RilRequestHelper::GetInstance();
    std::atomic<bool> done{false};
    auto answer = [&done] {
        while (!done) RilRequestHelper::Response(kRequest, 0, nullptr, 0, 0);
    };
    std::thread threads[] = {std::thread(answer), std::thread(answer)};
    for (int i = 0; i < 100; ++i) EXPECT_EQ(helper->Send(kRequest, nullptr, 0, 60), 0);
    done = true;
    for (std::thread& thread : threads) thread.join();
}

TEST_F(RequestTest, AnswersDuringTheExitOfTheProcessFindNoInstance) {
    constexpr int kProcesses = 10;
    Provide("full");
    auto exit_while_answered = [] {
        static std::atomic<int> answers{0};
        RilRequestHelper::GetInstance();
        linger_at_exit = true;
        for (int i = 0; i < 2; ++i) {
            std::thread([] {
                for (;; ++answers) RilRequestHelper::Response(kRequest, 0, nullptr, 0, 0);
            }).detach();
        }
        while (answers < 100) std::this_thread::yield();
        exit(0);
    };
    for (int i = 0; i < kProcesses; ++i) {
        EXPECT_EXIT(exit_while_answered(), testing::ExitedWithCode(0), "");
    }
    EXPECT_THAT(CallTexts(), SizeIs(kProcesses)) << "each process opens one client";
}

}  // namespace
