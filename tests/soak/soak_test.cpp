// Keeps the service busy for a while with all that a modem and a phone do with it. What only time
// shows has to stay as it was: memory, descriptors and threads, one response to each request, the
// stored files. Of the service it knows no more than the result of each request.
//   VELMAR_SOAK_SECONDS  how long; 60 by default
//   VELMAR_SOAK_SEED     the same seed picks the same traffic; 1 by default

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "android-base/stringprintf.h"
#include "google/protobuf/text_format.h"

#include "sim/tool/file_push.h"
#include "sim/tool/process_figures.h"
#include "sim/tool/simulation.h"

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
constexpr auto kPollInterval = 5ms;
// Between client runs, restarts of the modem and losses of the channel.
constexpr auto kEventInterval = 700ms;
constexpr auto kLongestWarmUp = 60s;
// Long enough for a busy workstation: a response that comes before the service has recorded its
// request is lost.
constexpr uint32_t kResponseDelayMs = 200;

constexpr int kOnline = 4;
constexpr int kOffline = 0;
constexpr size_t kMaxAwaited = 8;
constexpr int kMaxWord = 80;
constexpr int kMaxNoise = velmar_sim::kMaxMessageForPhone - 16;
constexpr int kMaxFile = 300000;
constexpr int kMinChunk = 2000;
constexpr int kMaxChunk = 60000;
constexpr size_t kKeptLines = 20;

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
// Each option makes the service send one request.
// NOLINTNEXTLINE(cert-err58-cpp): without memory for it there is nothing to test.
const std::vector<std::string> kClientRuns[] = {{"--modemstat"}, {"--extendedlog"}, {"-m", "-e"}};

// Lines of the log of which the number is known; a modem that responds never leads to the last.
constexpr char kStateChanged[] = "Modem state changed from ";
constexpr char kResponseTaken[] = "response successful";
constexpr char kRequestFailed[] = "Failed to send request";

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

int Variable(const char* name, int otherwise) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change.
    const char* text = getenv(name);
    return text != nullptr ? static_cast<int>(strtol(text, nullptr, 10)) : otherwise;
}

void Require(bool holds, const std::string& what) {
    if (!holds) throw std::runtime_error(what);
}

template <typename Message>
Message FromText(const std::string& text) {
    Message message;
    Require(google::protobuf::TextFormat::ParseFromString(text, &message), text);
    return message;
}

// Counts lines of the service's log. Any thread.
class LogCounts {
  public:
    // Takes what one write of the service holds, a whole line of the log.
    void Take(const std::string& line) {
        const std::lock_guard<std::mutex> guard(lock);
        for (auto& [text, count] : counts) count += line.find(text) != std::string::npos ? 1 : 0;
        last_lines.push_back(line);
        if (last_lines.size() > kKeptLines) last_lines.pop_front();
        grown.notify_all();
    }

    // Waits until lines with `text` have come `count` times, and no more.
    void Await(const char* text, int count) {
        std::unique_lock<std::mutex> guard(lock);
        grown.wait_for(guard, kTimeout, [&] { return counts[text] >= count; });
        Require(counts[text] == count,
                StringPrintf("logged %d times in place of %d: %s", counts[text], count, text));
    }

    void Print() {
        const std::lock_guard<std::mutex> guard(lock);
        for (const std::string& line : last_lines) std::cerr << "    " << line;
    }

  private:
    std::mutex lock;
    std::condition_variable grown;
    std::map<std::string, int> counts{{kStateChanged, 0}, {kResponseTaken, 0}, {kRequestFailed, 0}};
    std::deque<std::string> last_lines;
};

// Operations throw std::runtime_error when something else has come than is due.
class SoakTest : public testing::Test {
  protected:
    SoakTest() {
        velmar_sim::ResponsePolicy policy;
        policy.set_delay_ms(kResponseDelayMs);
        simulation.modem().SetResponsePolicy(policy);
    }

    void TearDown() override {
        if (!HasFailure()) return;
        const bool has_ended = !service->IsRunning();
        if (has_ended) std::cerr << ChildProcess::DescribeEnd(service->wait_status()) << "\n";
        std::cerr << "last log lines:\n";
        log.Print();
    }

    int Random(int limit) { return static_cast<int>(random() % limit); }

    void SendBytes(const std::string& bytes) {
        simulation.modem().SendBytes(bytes);
        ++messages;
    }

    // Gives a request its token, and awaits the responses to all but the last few requests.
    void Send(VelmarMessage message, int result) {
        if (message.type() == velmar_message::REQUEST) message.set_token(++last_token);
        if (result != kNoResponse) awaited[last_token] = result;
        SendBytes(message.SerializeAsString());
        while (awaited.size() > kMaxAwaited) Receive();
    }

    void SendKind(int kind) {
        std::string text = kKinds[kind].first;
        const size_t word = text.find('#');
        if (word != std::string::npos) text.replace(word, 1, 1 + Random(kMaxWord), 'x');
        Send(FromText<VelmarMessage>(text), kKinds[kind].second);
    }

    void SendSomething() {
        const int kind = Random(std::size(kKinds) + 6);
        if (kind < static_cast<int>(std::size(kKinds))) {
            SendKind(kind);
        } else if (kind == std::size(kKinds)) {
            // An indication that breaks off with a tag that no message has.
            SendBytes("\x08\x03\x07" + std::string(Random(kMaxNoise), 'x'));
        } else {
            PushFile();
        }
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

    // Sends the next part of a file, or compares what is stored once all are sent.
    void PushFile() {
        if (!push) {
            file = FromText<velmar_sim::Push>(StringPrintf(
                    "generated { size: %d seed: %d } chunk_size: %d file_name: 'file%d' "
                    "file_dir: %d as: %d",
                    1 + Random(kMaxFile), files, kMinChunk + Random(kMaxChunk - kMinChunk),
                    files % 3, 1 + files % 2, files % 5 == 0 ? 0 : 2));
            push = std::make_unique<velmar_sim::FilePush>(file, simulation.folder());
        }
        if (push->Next()) {
            return Send(push->message(), push->ExpectedResponse() ? 0 : kNoResponse);
        }
        AwaitResponses();
        Require(push->StoredDifference().empty(), push->StoredDifference());
        push.reset();
        ++files;
    }

    // The response to the last request comes after all that was sent before it is done.
    void AwaitResponses() {
        SendKind(0);
        while (!awaited.empty()) Receive();
    }

    void AwaitRadioRequest() {
        const auto deadline = Clock::now() + kTimeout;
        while (!simulation.radio().Take()) {
            Require(Clock::now() < deadline, "no request for the radio");
            std::this_thread::sleep_for(kPollInterval);
        }
    }

    // Waits until all that was begun is done.
    void Settle() {
        AwaitResponses();
        while (requests < requests_due) Receive();
        log.Await(kResponseTaken, requests_due);
        log.Await(kRequestFailed, 0);
        for (; radio_due > 0; --radio_due) {
            AwaitRadioRequest();
        }
        while (client && client->IsRunning()) std::this_thread::sleep_for(kPollInterval);
        Require(!client || client->wait_status() == 0, "a client run failed");
        Require(!simulation.modem().Receive(0ms), "the service sent a message more");
    }

    void RunClient() {
        const auto& arguments = kClientRuns[client_runs++ % std::size(kClientRuns)];
        requests_due += static_cast<int>(arguments.size());
        client = std::make_unique<ChildProcess>(simulation.LaunchOf(arguments), nullptr, nullptr);
    }

    // With requests that wait for the modem to come back.
    void RestartModem() {
        simulation.modem().SetState(kOffline);
        log.Await(kStateChanged, 2 + 2 * restarts);
        for (int i = 0; i < 2; ++i) SendKind(0);
        simulation.modem().SetState(kOnline);
        log.Await(kStateChanged, 3 + 2 * restarts++);
        requests_due += kStartUpRequests;
        radio_due += kRadioRequests;
    }

    void LoseChannel() {
        if (losses++ % 2 == 0) {
            simulation.modem().SendEndOfFile();
        } else {
            simulation.modem().HangUp();
        }
        Require(simulation.modem().WaitForChannel(kTimeout), "the channel is not opened again");
    }

    void CauseEvent() {
        Settle();
        const int turn = (client_runs + restarts + losses) % 4;
        if (turn == 0) return RestartModem();
        if (turn == 2) return LoseChannel();
        RunClient();
    }

    // The radio's library responds on a thread of its own, which may still be there.
    ProcessFigures FiguresAtRest() {
        Settle();
        ProcessFigures figures = velmar_sim::FiguresOf(service->id());
        for (const auto limit = Clock::now() + kTimeout;
             figures.threads != kServiceThreads && !kInstrumented && Clock::now() < limit;) {
            std::this_thread::sleep_for(kPollInterval);
            figures = velmar_sim::FiguresOf(service->id());
        }
        return figures;
    }

    std::mt19937 random{static_cast<unsigned int>(Variable("VELMAR_SOAK_SEED", 1))};
    velmar_sim::EventStream events;
    velmar_sim::Simulation simulation{FromText<velmar_sim::Phone>(kPhone), VELMAR_PATH,
                                      velmar_sim::PhoneFolder(), &events};
    LogCounts log;
    const std::unique_ptr<ChildProcess> service = std::make_unique<ChildProcess>(
            simulation.LaunchOf({"--server"}), nullptr,
            [this](const std::string& written) { log.Take(written); });
    std::unique_ptr<ChildProcess> client;

    // Results in the responses that have to come, by token.
    std::map<uint32_t, int> awaited;
    uint32_t last_token = 0;
    // The requests of the service, how many it has to send, and the radio's.
    std::set<uint32_t> tokens;
    int requests = 0;
    int requests_due = kStartUpRequests;
    int radio_due = kRadioRequests;
    // The file that is being sent.
    velmar_sim::Push file;
    std::unique_ptr<velmar_sim::FilePush> push;

    int messages = 0;
    int files = 0;
    int client_runs = 0;
    int restarts = 0;
    int losses = 0;
};

TEST_F(SoakTest, LeavesMemoryDescriptorsAndThreadsAsTheyWere) {
    const std::chrono::seconds duration(Variable("VELMAR_SOAK_SECONDS", 60));
    const auto begin = Clock::now();
    const auto warm = begin + std::min<Clock::duration>(duration / 4, kLongestWarmUp);
    auto event_due = begin;
    ProcessFigures first;
    for (auto now = begin; now < begin + duration; now = Clock::now()) {
        for (int i = 0; i < 50; ++i) SendSomething();
        if (now >= event_due) {
            CauseEvent();
            event_due = Clock::now() + kEventInterval;
        }
        if (first.threads == 0 && now >= warm) first = FiguresAtRest();
    }
    const ProcessFigures last = FiguresAtRest();
    const int kept_kib = requests * kKeptBytesOfRequest / 1024;
    EXPECT_EQ(last.descriptors, first.descriptors);
    if (!kInstrumented) {
        EXPECT_EQ(last.threads, kServiceThreads);
        EXPECT_LE(last.resident_kib, first.resident_kib + kHeapSlackKib + kept_kib);
        EXPECT_LE(last.anonymous_kib, first.anonymous_kib + kHeapSlackKib + kept_kib);
    }
    std::cout << StringPrintf(
            "%d messages, %d files, %d requests of the service, %d client runs, %d modem restarts, "
            "%d losses of the channel; resident KiB %d to %d, anonymous %d to %d, descriptors %d\n",
            messages, files, requests, client_runs, restarts, losses, first.resident_kib,
            last.resident_kib, first.anonymous_kib, last.anonymous_kib, last.descriptors);
}

}  // namespace
