#include "sim/tool/replay.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "sim/tool/bad_input.h"
#include "sim/tool/differences.h"
#include "sim/tool/message_text.h"
#include "sim/tool/simulated_radio.h"
#include "sim/tool/trace.h"

namespace velmar_sim {

namespace {

using std::chrono::milliseconds;
using velmar_message::VelmarMessage;

constexpr char kRadioGroup[] = "radio";
constexpr char kResponseGroup[] = "response ";
constexpr milliseconds kPollInterval{2};
// So long, times the factor, is waited for a message that has to come.
constexpr milliseconds kMessageLimit{5000};
// After so long, times the factor, without an event nothing more is due to come.
constexpr milliseconds kQuietTime{300};
// The service lets no more time pass by itself: so long it asks a radio that is not available.
constexpr std::chrono::microseconds kLongestOwnPause = std::chrono::minutes(2);
// In a trace without times: a service that notes its request only after it has written it misses a
// response that comes at once.
constexpr milliseconds kResponseDelay{50};

bool IsMessage(const Event& event) {
    return event.kind == Event::Kind::kSent || event.kind == Event::Kind::kReceived;
}

// The step that does what the row tells; without an action if nobody but the service did it.
Step StepFrom(const Event& event) {
    Step step;
    if (event.kind == Event::Kind::kSent) step.set_send_bytes(event.text);
    if (event.kind == Event::Kind::kState) step.set_modem_state(static_cast<int>(event.number));
    if (event.kind == Event::Kind::kStep) step.ParseFromString(event.text);
    return step;
}

// Something that the service sent.
struct Sent {
    // Messages of one group have an order among themselves.
    std::string group;
    // The same for messages that are alike. The service numbers its requests by itself, so their
    // tokens do not count.
    std::string content;
    // What went over the channel; empty for what went to the radio. Messages are kept like this,
    // since decoded they need several times as much memory.
    std::string bytes;
    size_t number = 0;
};

// What the service sent in the trace, and what stands for it in the replay.
struct Expected {
    Sent sent;
    size_t row;
    // Rows of the modem's responses.
    std::vector<size_t> responses;
    std::optional<Sent> actual;
};

// Some of the expected messages, in their order. Those before `next` no longer count.
struct Queue {
    std::vector<size_t> members;
    size_t next = 0;
};

struct PlannedResponse {
    size_t row;
    uint32_t token;
};

bool IsResponse(const Sent& sent) {
    return sent.group.rfind(kResponseGroup, 0) == 0;
}

// Takes `line` out of `from`, or adds it to `to` if it is not there.
void Cancel(const std::string& line, std::multiset<std::string>* from,
            std::multiset<std::string>* to) {
    const auto found = from->find(line);
    if (found == from->end()) {
        to->insert(line);
    } else {
        from->erase(found);
    }
}

ReceivedMessage Decode(const std::string& bytes) {
    ReceivedMessage received;
    received.bytes = bytes;
    received.decoded = received.message.ParseFromString(bytes);
    return received;
}

// Messages that one thread of the service sends have the same group: its responses, of which those
// to one token are told apart by their order alone, and its requests of one kind.
Sent FromMessage(const std::string& bytes) {
    Sent sent;
    sent.bytes = sent.content = bytes;
    VelmarMessage message = Decode(bytes).message;
    if (message.type() == velmar_message::RESPONSE) {
        sent.group = kResponseGroup + std::to_string(message.token());
    } else if (message.type() == velmar_message::REQUEST) {
        // A client run asks for a report while the state monitor enables statistics.
        sent.group = "request " + std::to_string(message.payload_case()) + " " +
                     std::to_string(message.modem_stat_message().ModemStat_case());
        message.clear_token();
        sent.content = message.SerializeAsString();
    }
    return sent;
}

Sent FromRadio(const RadioRequest& request) {
    Sent sent;
    sent.group = kRadioGroup;
    sent.content = request.SerializeAsString();
    return sent;
}

std::string Describe(const Sent& sent) {
    if (sent.group != kRadioGroup) return DescribeMessage(sent.bytes);
    RadioRequest request;
    request.ParseFromString(sent.content);
    return "to the radio: " + DescribeRadioRequest(request);
}

std::string Difference(const Sent& expected, const Sent& actual) {
    if (expected.content == actual.content) return "";
    const ReceivedMessage message = Decode(expected.bytes);
    if (expected.group == kRadioGroup || !message.decoded) {
        return "the message differs" + ExpectedActual(Describe(expected), Describe(actual));
    }
    const bool is_request = message.message.type() == velmar_message::REQUEST;
    return MessageDifference(message.message, Decode(actual.bytes), is_request);
}

class Replayer {
  public:
    Replayer(const RecordedSession& recorded, bool fast, double time_factor,
             Session* replaying_session)
        : trace(recorded),
          is_fast(fast),
          factor(time_factor),
          session(replaying_session),
          is_response(recorded.rows.size()),
          ends_awaited(AwaitedEnds(recorded.rows.size(), [&recorded](size_t row) {
              return StepFrom(recorded.rows[row].event).action_case();
          })) {
        for (size_t row = 0; row < trace.rows.size(); ++row) {
            const Event& event = trace.rows[row].event;
            times.push_back(event.since_boot);
            if (event.kind == Event::Kind::kReceived) Expect(row, FromMessage(event.text));
            if (event.kind == Event::Kind::kSent) Link(row);
            RadioCall call;
            if (event.kind != Event::Kind::kRadio || !call.ParseFromString(event.text)) continue;
            has_radio = true;
            if (call.has_request()) Expect(row, FromRadio(call.request()));
        }
        times.push_back(times.empty() ? std::chrono::microseconds(0) : times.back());
    }

    ReplayResult Play() {
        size_t row = 0;
        std::string stop;
        try {
            session->player().Start();
            for (; row < trace.rows.size(); ++row) {
                const Event& event = trace.rows[row].event;
                if (event.kind == Event::Kind::kLog) {
                    Cancel(DescribeLogLine(event), &early_lines, &missing_lines);
                }
                const Step step = StepFrom(event);
                if (step.action_case() == Step::ACTION_NOT_SET || is_response[row]) continue;
                Await(row);
                session->player().Play(step, ends_awaited[row]);
            }
            Await(row);
            const auto limit = Clock::now() + kMessageLimit;
            while (session->events().QuietTime() < kQuietTime * factor && Clock::now() < limit)
                LookAround(row);
            session->player().Finish();
        } catch (const std::exception& error) {
            stop = Place(row) + error.what() + "\n";
        }
        session->events().Show(EventStream::Which::kAll);
        ReplayResult result = Compare();
        result.failure += stop;
        return result;
    }

  private:
    void Expect(size_t row, const Sent& sent) {
        const VelmarMessage message = Decode(sent.bytes).message;
        if (message.type() == velmar_message::REQUEST) requests[message.token()] = expected.size();
        by_group[sent.group].members.push_back(expected.size());
        // Equal responses to a token that was used again are told apart by their order.
        if (!IsResponse(sent)) {
            by_content[{sent.group, sent.content}].members.push_back(expected.size());
        }
        expected.push_back({sent, row, {}, std::nullopt});
    }

    // A response of the modem belongs to the service's request; one to nobody is sent like a
    // request.
    void Link(size_t row) {
        VelmarMessage message;
        if (!message.ParseFromString(trace.rows[row].event.text)) return;
        const auto request = requests.find(message.token());
        if (message.type() != velmar_message::RESPONSE || request == requests.end()) return;
        expected[request->second].responses.push_back(row);
        is_response[row] = true;
    }

    // Waits for the row's time, and for all that the service sent before it. In the trace somebody
    // may have waited for a log line as well; one that does not come while nothing happens is let
    // go.
    void Await(size_t row) {
        const auto now = Clock::now();
        const auto due = is_fast ? now : begin + (times[row] - times[0]);
        // What came late in the trace may do so again.
        const auto gap = times[row] - times[last_action];
        const auto from = std::max(due, now + (is_fast ? std::min(gap, kLongestOwnPause) : gap));
        const std::chrono::duration<double, std::milli> limit = kMessageLimit * factor;
        const auto is_quiet = [&] {
            return Clock::now() > from && session->events().QuietTime() > kQuietTime * factor;
        };
        while (Clock::now() < due || (!IsSettled(row) && Clock::now() < from + limit) ||
               (!IsLogged() && !is_quiet())) {
            LookAround(row);
        }
        // What did not come now is not waited for again.
        missing_lines.clear();
        last_action = row;
    }

    bool IsLogged() {
        for (const LogLine& line : session->simulation().log().From(seen_lines)) {
            Cancel(DescribeLogLine(line), &missing_lines, &early_lines);
            ++seen_lines;
        }
        return missing_lines.empty();
    }

    bool IsGivenUp(const Expected& one) const { return one.row < last_action; }

    bool IsSettled(size_t row) {
        while (settled < expected.size() &&
               (expected[settled].actual || IsGivenUp(expected[settled]))) {
            ++settled;
        }
        return std::none_of(planned.begin(), planned.end(),
                            [row](const auto& one) { return one.second.row < row; }) &&
               (settled == expected.size() || expected[settled].row >= row);
    }

    // Takes what the service has sent and sends the responses that are due.
    void LookAround(size_t row) {
        Simulation& simulation = session->simulation();
        if (const auto message = simulation.modem().Receive(kPollInterval)) {
            Take(FromMessage(message->bytes));
        } else {
            Step pause;
            pause.set_pause_ms(1);
            session->player().Play(pause, ends_awaited[row]);
            while (const auto request = simulation.radio().Take()) {
                if (has_radio) Take(FromRadio(*request));
            }
        }
        SendDueResponses();
    }

    // Finds what stands for the message in the trace. It may have to make way for a later one that
    // is equal to that.
    void Take(Sent actual) {
        actual.number = taken++;
        Expected* found = FindEqual(actual);
        if (found == nullptr) found = FindOpen(actual);
        if (found == nullptr) {
            surplus.push_back(actual);
            return;
        }
        const uint32_t token = Decode(actual.bytes).message.token();
        for (const size_t row : found->responses) {
            const auto delay =
                    times.back().count() > 0 ? times[row] - times[found->row] : kResponseDelay;
            planned.emplace(Clock::now() + delay, PlannedResponse{row, token});
        }
        std::optional<Sent> displaced = std::exchange(found->actual, actual);
        if (!displaced) return;
        Expected* next = FindOpen(*displaced);
        if (next == nullptr) {
            surplus.push_back(*displaced);
        } else {
            next->actual = displaced;
        }
    }

    Expected* FindEqual(const Sent& actual) {
        return FindFirst(&by_content[{actual.group, actual.content}], [](const Expected& one) {
            return one.actual && one.actual->content == one.sent.content;
        });
    }

    Expected* FindOpen(const Sent& actual) {
        return FindFirst(&by_group[actual.group],
                         [](const Expected& one) { return one.actual.has_value(); });
    }

    // The first one in the queue that is not taken. One that is taken stays so.
    Expected* FindFirst(Queue* queue, bool (*is_taken)(const Expected& one)) {
        for (; queue->next < queue->members.size(); ++queue->next) {
            Expected& one = expected[queue->members[queue->next]];
            if (!is_taken(one)) return &one;
        }
        return nullptr;
    }

    void SendDueResponses() {
        while (!planned.empty() && planned.begin()->first <= Clock::now()) {
            const PlannedResponse response = planned.begin()->second;
            planned.erase(planned.begin());
            VelmarMessage message;
            message.ParseFromString(trace.rows[response.row].event.text);
            message.set_token(response.token);
            session->simulation().modem().Send(message);
        }
    }

    std::string Place(size_t row) const {
        if (row >= trace.rows.size()) return trace.path + ": ";
        return trace.path + ":" + std::to_string(trace.rows[row].place) + ": ";
    }

    // Of what the replay has not got to only the number is told.
    ReplayResult Compare() const {
        ReplayResult result;
        result.messages = expected.size() + surplus.size();
        result.differing = surplus.size();
        std::map<std::string, size_t> last;
        for (const Expected& one : expected) {
            std::string difference;
            if (!one.actual) {
                difference = "no message came" + ExpectedActual(Describe(one.sent), "-");
            } else {
                difference = Difference(one.sent, *one.actual);
                size_t& number = last[one.sent.group];
                if (difference.empty() && one.actual->number < number) {
                    difference = "the message came in another order: " + Describe(one.sent);
                }
                number = std::max(number, one.actual->number);
            }
            if (difference.empty()) continue;
            ++result.differing;
            if (one.actual || IsGivenUp(one)) result.failure += Place(one.row) + difference + "\n";
        }
        for (const Sent& one : surplus) {
            result.failure += trace.path + ": a message came that the trace does not have" +
                              ExpectedActual("-", Describe(one)) + "\n";
        }
        return result;
    }

    const RecordedSession& trace;
    const bool is_fast;
    const double factor;
    Session* const session;
    const Clock::time_point begin = Clock::now();
    // Of the rows, and of the end; all are 0 in a trace without times.
    std::vector<std::chrono::microseconds> times;
    // By its token, the service's last request before the row that is linked.
    std::map<uint32_t, size_t> requests;
    // Rows that the modem sends once their request has come.
    std::vector<bool> is_response;
    // Of the rows, and of the end.
    const std::vector<bool> ends_awaited;
    bool has_radio = false;
    std::vector<Expected> expected;
    std::map<std::string, Queue> by_group;
    // By group and content.
    std::map<std::pair<std::string, std::string>, Queue> by_content;
    // Nothing before this one of the expected messages is still awaited.
    size_t settled = 0;
    std::multimap<Clock::time_point, PlannedResponse> planned;
    std::vector<Sent> surplus;
    size_t taken = 0;
    // Log lines of the trace since the last action that have not come, and lines that came and do
    // not stand in the trace up to this row.
    std::multiset<std::string> missing_lines;
    std::multiset<std::string> early_lines;
    size_t seen_lines = 0;
    size_t last_action = 0;
};

}  // namespace

std::vector<RecordedSession> ReadSessions(const std::string& path) {
    std::vector<RecordedSession> sessions = {{path, std::nullopt, {}}};
    ReadTrace(path, OpenInput(path), [&](const Event& event, int place) {
        if (IsMessage(event) && event.total > 0) {
            throw BadInput(
                    path + ":" + std::to_string(place) + ": expected a whole message, found " +
                    std::to_string(event.text.size()) + " of " + CountOf(event.total, "byte"));
        }
        if (event.kind == Event::Kind::kPhone) {
            if (sessions.back().phone) sessions.push_back({path, std::nullopt, {}});
            sessions.back().phone.emplace().ParseFromString(event.text);
        }
        // The heading of a session stands before its phone.
        if (event.kind != Event::Kind::kHeading) sessions.back().rows.push_back({event, place});
    });
    if (sessions.back().rows.empty())
        throw BadInput(path + ": expected rows, found none to replay");
    return sessions;
}

ReplayResult Replay(const RecordedSession& recorded, bool fast, double factor, Session* session) {
    return Replayer(recorded, fast, factor, session).Play();
}

}  // namespace velmar_sim
