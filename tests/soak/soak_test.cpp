// Keeps the service busy for a while with all that a modem and a phone do with it. What only time
// shows has to stay as it was: memory, descriptors and threads, one response to each request, the
// stored files. Of the service it knows no more than the result of each request.
//   VELMAR_SOAK_SECONDS  how long; 60 by default
//   VELMAR_SOAK_SEED     the same seed picks the same traffic; 1 by default

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "android-base/stringprintf.h"

#include "sim/tool/file_push.h"
#include "sim/tool/process_figures.h"
#include "sim/tool/simulation.h"
#include "tests/simulation_test.h"

namespace {

using android::base::StringPrintf;
using velmar_message::VelmarMessage;
using velmar_sim::ChildProcess;
using velmar_sim::Clock;
using velmar_sim::ProcessFigures;
using namespace std::chrono_literals;

// Memory and threads are not the service's own under a sanitizer or an emulator.
constexpr bool kInstrumented = sizeof(VELMAR_INSTRUMENTS) > 1;

constexpr auto kTimeout = 20s;
// Between client runs, restarts of the modem and losses of the channel.
constexpr auto kEventInterval = 700ms;
constexpr size_t kMaxAwaited = 8;

constexpr int kServiceThreads = 3;
// What the heap may differ by between two moments at which nothing is in progress: the allocator
// gives memory back in pieces of this size.
constexpr int kHeapSlackKib = 128;
// The record of a request of its own, which the service keeps for ever.
constexpr int kKeptBytesOfRequest = 32;

constexpr char kPhone[] = R"(
        modem_state: 4
        property { name: "vendor.soak" value: "on" }
        refused_property: "refused"
        file { path: "/data/vendor/radio/modem_stat.conf" content: "soak:v=1,t=2" }
        file { path: "/data/vendor/radio/modem_userspace_logging.conf" content: "soak" }
        file { path: "/data/vendor/radio/gnss_blanking.csv" content: "258\nB3,10" })";

// The requests to a modem that has come online, and those to the radio then.
constexpr int kStartUpRequests = 2;
constexpr int kRadioRequests = 2;
// Client runs, and how many requests each sets off.
constexpr std::pair<const char*, int> kClientRuns[] = {
        {"--modemstat", 1}, {"--extendedlog", 1}, {"-me", 2}};

// Beside the numbers of a VelmarResult: a response without one, and no response.
constexpr int kNoResult = -1;
constexpr int kNoResponse = -2;

// What the modem sends beside files, and the result in the response. "#" stands for a word of
// random length.
constexpr std::pair<const char*, int> kKinds[] = {
        {"type: REQUEST property_message { read_request { name: 'vendor.soak' } }", 0},
        {"type: REQUEST property_message { read_request { name: '#' } }", 7},
        {"type: REQUEST property_message { write_request { name: 'vendor.soak' value: '#' } }", 0},
        {"type: REQUEST property_message { write_request { name: 'refused' value: '#' } }", 7},
        {"type: REQUEST file_message { file_write_request { file_name: '#' file_dir: 3 } }", 5},
        {"type: REQUEST modem_temperature_message { set_request { sensors { } } }", kNoResult},
        {"type: REQUEST file_message { file_write_request { data: '#' } }", kNoResponse},
        {"type: RESPONSE token: 4294967294 result: SUCCESS", kNoResponse},
        {"type: INDICATION modem_stat_message { report_indication { data: '#' } }", kNoResponse},
        {"type: INDICATION extended_log_message { indication { data: '#' } }", kNoResponse},
        {"type: INDICATION userspace_log_message { indication { text: '#' } }", kNoResponse},
};

void Require(bool holds, const std::string& what) {
    if (!holds) throw std::runtime_error(what);
}

// Waits until `holds`; `what` says what has not come otherwise.
void Await(const std::function<bool()>& holds, const std::string& what) {
    for (const auto deadline = Clock::now() + kTimeout; !holds();) {
        Require(Clock::now() < deadline, "did not come in time: " + what);
        std::this_thread::sleep_for(5ms);
    }
}

// Operations throw std::runtime_error when something else has come than is due.
class SoakTest : public testing::Test {
  protected:
    SoakTest() {
        // A response that comes before the service has recorded its request is lost, and a busy
        // workstation may keep the service from that for long.
        simulation.modem().SetResponsePolicy(
                FromText<velmar_sim::ResponsePolicy>("delay_ms: 100 again_ms: 1500"));
    }

    ~SoakTest() override {
        if (!service.IsRunning()) std::cerr << ChildProcess::DescribeEnd(service.wait_status());
    }

    void CountLine(const std::string& line) {
        if (line.find("Modem state changed from ") != std::string::npos) ++changes_logged;
        if (line.find(" response successful") != std::string::npos) ++responses_logged;
    }

    int Random(int limit) { return static_cast<int>(random() % limit); }

    // Gives a request its token, and awaits the responses to all but the last few requests.
    void Send(VelmarMessage message, int result) {
        if (message.type() == velmar_message::REQUEST) message.set_token(++last_token);
        if (result != kNoResponse) awaited[last_token] = result;
        simulation.modem().Send(message);
        while (awaited.size() > kMaxAwaited) Receive();
    }

    void SendKind(int kind) {
        std::string text = kKinds[kind].first;
        const size_t word = text.find('#');
        if (word != std::string::npos) text.replace(word, 1, 1 + Random(80), 'x');
        Send(FromText<VelmarMessage>(text), kKinds[kind].second);
    }

    void SendSomething() {
        const size_t kind = Random(std::size(kKinds) + 6);
        ++messages;
        if (kind < std::size(kKinds)) return SendKind(static_cast<int>(kind));
        if (kind > std::size(kKinds)) return PushFile();
        // An indication that breaks off with a tag that no message has.
        simulation.modem().SendBytes("\x08\x03\x07" + std::string(Random(65550), 'x'));
    }

    void Receive() {
        const auto received = simulation.modem().Receive(kTimeout);
        Require(received.has_value(), "no message comes from the service");
        const VelmarMessage& message = received->message;
        const auto found = awaited.find(message.token());
        const int result = message.has_result() ? message.result() : kNoResult;
        if (message.type() == velmar_message::REQUEST) {
            ++requests;
            Require(tokens.insert(message.token()).second && requests <= requests_due,
                    "not due, or its token again: " + message.ShortDebugString());
        } else {
            Require(message.type() == velmar_message::RESPONSE && found != awaited.end() &&
                            found->second == result,
                    "not due, or another result is: " + message.ShortDebugString());
            awaited.erase(found);
        }
    }

    void PushFile() {
        const auto file = FromText<velmar_sim::Push>(StringPrintf(
                "generated { size: %d seed: %d } chunk_size: %d file_name: 'file%d' file_dir: %d "
                "as: %d",
                1 + Random(300000), files, 2000 + Random(58000), files % 3, 1 + files % 2,
                files % 5 == 0 ? 0 : 2));
        velmar_sim::FilePush push(file, simulation.folder());
        while (push.Next()) Send(push.message(), push.ExpectedResponse() ? 0 : kNoResponse);
        AwaitResponses();
        Require(push.StoredDifference().empty(), push.StoredDifference());
        ++files;
    }

    // The response to the last request comes after all that was sent before it is done.
    void AwaitResponses() {
        SendKind(0);
        while (!awaited.empty()) Receive();
    }

    // Waits until all that was begun is done.
    void Settle() {
        AwaitResponses();
        while (requests < requests_due) Receive();
        Await([this] { return responses_logged == requests_due; }, "a line for each response");
        for (; radio_due > 0; --radio_due) {
            Await([this] { return simulation.radio().Take().has_value(); }, "a radio request");
        }
        Await([this] { return !client || !client->IsRunning(); }, "the end of a client run");
        Require(!client || client->wait_status() == 0, "a client run failed");
        Require(!simulation.modem().Receive(0ms), "the service sent a message more");
    }

    void ChangeState(int state) {
        ++changes_due;
        simulation.modem().SetState(state);
        Await([&] { return changes_logged == changes_due; }, "a line for the new state");
    }

    // By turns the modem restarts, while requests wait for it, a client runs, and the channel ends.
    void CauseEvent() {
        Settle();
        const int turn = events_caused % 4;
        const int round = events_caused++ / 4;
        if (turn == 0) {
            ChangeState(0);
            for (int i = 0; i < 2; ++i) SendKind(0);
            ChangeState(4);
            requests_due += kStartUpRequests;
            radio_due += kRadioRequests;
        } else if (turn == 2) {
            round % 2 == 0 ? simulation.modem().HangUp() : simulation.modem().SendEndOfFile();
            Require(simulation.modem().WaitForChannel(kTimeout), "the channel is not opened again");
        } else {
            const auto& [option, count] = kClientRuns[events_caused / 2 % std::size(kClientRuns)];
            requests_due += count;
            client =
                    std::make_unique<ChildProcess>(simulation.LaunchOf({option}), nullptr, nullptr);
        }
    }

    // The radio's library responds on a thread of its own, which may still be there.
    ProcessFigures FiguresAtRest() {
        Settle();
        ProcessFigures figures;
        const auto is_at_rest = [&] {
            figures = velmar_sim::FiguresOf(service.id());
            return kInstrumented || figures.threads == kServiceThreads;
        };
        Await(is_at_rest, "the end of every thread but the service's own");
        return figures;
    }

    std::mt19937 random{static_cast<unsigned int>(Variable("VELMAR_SOAK_SEED", 1))};
    velmar_sim::EventStream events;
    velmar_sim::Simulation simulation{
            FromText<velmar_sim::Phone>(kPhone), VELMAR_PATH, {}, &events};
    std::atomic<int> changes_logged = 0;
    std::atomic<int> responses_logged = 0;
    // In the place of the simulation's, which keeps all lines.
    velmar_sim::LogSocket log{simulation.folder(),
                              [this](const velmar_sim::LogLine& line) { CountLine(line.text); }};
    ChildProcess service{simulation.LaunchOf({"--server"}), nullptr, nullptr};
    std::unique_ptr<ChildProcess> client;

    // Results in the responses that have to come, by token.
    std::map<uint32_t, int> awaited;
    uint32_t last_token = 0;
    // The requests of the service, how many it has to send, and the radio's.
    std::set<uint32_t> tokens;
    int requests = 0;
    int requests_due = kStartUpRequests;
    int radio_due = kRadioRequests;
    int changes_due = 1;

    int messages = 0;
    int files = 0;
    int events_caused = 0;
};

TEST_F(SoakTest, LeavesMemoryDescriptorsAndThreadsAsTheyWere) {
    const std::chrono::seconds duration(static_cast<int>(Variable("VELMAR_SOAK_SECONDS", 60)));
    const auto begin = Clock::now();
    auto event_due = begin;
    ProcessFigures first;
    for (auto now = begin; now < begin + duration; now = Clock::now()) {
        for (int i = 0; i < 50; ++i) SendSomething();
        if (now >= event_due) {
            CauseEvent();
            event_due = Clock::now() + kEventInterval;
        }
        if (first.threads == 0 && now >= begin + duration / 4) first = FiguresAtRest();
    }
    const ProcessFigures last = FiguresAtRest();
    const int kept_kib = requests * kKeptBytesOfRequest / 1024;
    EXPECT_EQ(last.descriptors, first.descriptors);
    if (!kInstrumented) {
        EXPECT_LE(last.resident_kib, first.resident_kib + kHeapSlackKib + kept_kib);
        EXPECT_LE(last.anonymous_kib, first.anonymous_kib + kHeapSlackKib + kept_kib);
    }
    std::cout << StringPrintf(
            "%d messages, %d files, %d events, %d requests of the service; KiB "
            "resident %d to %d, anonymous %d to %d; %d descriptors\n",
            messages, files, events_caused, requests, first.resident_kib, last.resident_kib,
            first.anonymous_kib, last.anonymous_kib, last.descriptors);
}

}  // namespace
