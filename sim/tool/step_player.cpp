#include "sim/tool/step_player.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>
#include <thread>
#include <utility>
#include <vector>

#include "android-base/scopeguard.h"
#include "android-base/stringprintf.h"

#include "sim/tool/differences.h"
#include "sim/tool/interruption.h"
#include "sim/tool/message_text.h"
#include "sim/tool/names.h"

namespace velmar_sim {

namespace {

using android::base::StringPrintf;
using std::chrono::milliseconds;
using velmar_message::VelmarMessage;

constexpr char kServerOption[] = "--server";
// How long a wait goes on before it looks whether the service still runs.
constexpr milliseconds kCheckInterval{20};
// Between two looks at something that tells no one of its change.
constexpr milliseconds kPollInterval{2};

LogStream::Matcher LogMatcher(const LogPattern& pattern) {
    const std::regex expression(pattern.matching());
    const std::optional<char> priority = PriorityFromText(pattern.priority());
    return [pattern, expression, priority](const LogLine& line) {
        if (line.tag != pattern.tag() || (priority && *priority != line.priority)) return false;
        if (pattern.has_text()) return line.text == pattern.text();
        return MatchesPattern(line.text, expression);
    };
}

std::string DescribePattern(const LogPattern& pattern) {
    return pattern.priority() + (pattern.has_priority() ? " " : "") + pattern.tag() + ": " +
           (pattern.has_text() ? pattern.text() : "/" + pattern.matching() + "/");
}

// Whether the step acts on the phone in a way that neither the modem nor the service shows.
bool ChangesPhone(const Step& step) {
    return step.has_set_property() || step.has_write_file() || step.has_remove_file() ||
           step.has_fault() || step.has_clear_faults() || step.has_radio();
}

bool IsExpectedEnd(const Exit& exit, int status) {
    if (exit.has_signal()) {
        return WIFSIGNALED(status) && WTERMSIG(status) == SignalFromName(exit.signal());
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == exit.status();
}

}  // namespace

StepPlayer::StepPlayer(const Phone& description, double factor, Simulation* simulated,
                       EventStream* event_stream)
    : phone(description), time_factor(factor), simulation(simulated), events(event_stream) {}

void StepPlayer::Start() {
    if (!phone.no_server()) StartService();
}

void StepPlayer::Play(const Step& step, bool is_end_awaited) {
    within = Scaled(step.within_ms());
    end_awaited = is_end_awaited;
    CheckService();
    PlayAction(step);
}

void StepPlayer::Finish() {
    end_awaited = false;
    CheckService();
    EndService();
    if (simulation->log().Find(0, IsSanitizerReport, milliseconds(0))) {
        throw StepFailure("a sanitizer reported a fault of velmar");
    }
}

void StepPlayer::EndService() {
    service_expected = false;
    if (service != nullptr) service->Kill();
    simulation->radio().Look();
}

void StepPlayer::PlayAction(const Step& step) {
    const PhoneFolder& folder = simulation->folder();
    if (ChangesPhone(step)) events->EmitText("phone " + ShortText(step));
    switch (step.action_case()) {
        case Step::kSay:
            return events->Emit({Event::Kind::kHeading, step.say()});
        case Step::kSend:
        case Step::kSendBytes:
            return Send(step);
        case Step::kExpect:
            return ExpectMessage(step.expect(), step.any_token(), "");
        case Step::kExpectNothing:
            return ExpectNothing(step.expect_nothing());
        case Step::kAnswer:
            return SetResponse(step.answer());
        case Step::kModemState:
            return simulation->modem().SetState(step.modem_state());
        case Step::kEndOfFile:
            AwaitChannel();
            return simulation->modem().SendEndOfFile();
        case Step::kHangUp:
            AwaitChannel();
            return simulation->modem().HangUp();
        case Step::kPush:
            return PushFile(step.push());
        case Step::kSignal:
            return SendSignal(step.signal());
        case Step::kClient:
            return RunClient(step.client());
        case Step::kExit:
            return AwaitExit(step.exit());
        case Step::kRunning:
            return RequireRunning();
        case Step::kRestart:
            return StartService();
        case Step::kLog:
            return AwaitLog(step.log());
        case Step::kNoLog:
            return ExpectNoLog(step.no_log());
        case Step::kFile:
            return WaitUntilEqual([&] { return FileDifference(step.file(), folder); });
        case Step::kProperty:
            return WaitUntilEqual([&] { return PropertyDifference(step.property(), folder); });
        case Step::kThermal:
            return AwaitThermalWrites(step.thermal());
        case Step::kSetProperty:
            return folder.SetProperty(step.set_property().name(), step.set_property().value());
        case Step::kWriteFile:
            return folder.WriteFile(step.write_file().path(), step.write_file().content(),
                                    ModeFromText(step.write_file().mode()).value_or(0));
        case Step::kRemoveFile:
            return folder.Remove(step.remove_file());
        case Step::kFault:
            return InjectFault(step.fault());
        case Step::kClearFaults:
            return simulation->faults().Clear();
        case Step::kRadio:
            return simulation->radio().Behave(step.radio());
        case Step::kRadioRequest:
            return ExpectRadioRequest(step.radio_request());
        case Step::kNoRadioRequest:
            return ExpectNoRadioRequest(step.no_radio_request());
        case Step::kPauseMs:
            WaitFor(Scaled(step.pause_ms()), [](Milliseconds limit) {
                std::this_thread::sleep_for(limit);
                return false;
            });
            return;
        case Step::ACTION_NOT_SET:
            throw StepFailure("expected an action");
    }
}

void StepPlayer::Send(const Step& step) {
    AwaitChannel();
    simulation->modem().SendBytes(step.has_send() ? step.send().SerializeAsString()
                                                  : step.send_bytes());
}

// The next message is `expected`; `place` stands before what is said of another.
void StepPlayer::ExpectMessage(const VelmarMessage& expected, bool any_token,
                               const std::string& place) {
    const std::optional<ReceivedMessage> message = Receive(within);
    if (!message) {
        throw StepFailure(place + "no message came" + WithinText() +
                          ExpectedActual(DescribeMessage(expected.SerializeAsString()), "-"));
    }
    const std::string difference = MessageDifference(expected, *message, any_token);
    if (!difference.empty()) throw StepFailure(place + difference);
}

void StepPlayer::ExpectNothing(const Silence& silence) {
    const std::optional<ReceivedMessage> message = Receive(Milliseconds(silence.for_ms()));
    if (message) {
        throw StepFailure("a message came" + ExpectedActual("-", DescribeMessage(message->bytes)));
    }
}

void StepPlayer::PushFile(const Push& push) {
    AwaitChannel();
    FilePush file(push, simulation->folder());
    const std::string whole = std::to_string(file.size()) + " bytes in " +
                              std::to_string(file.chunk_count()) + " chunks to " + file.target();
    events->EmitText("push " + whole);
    const auto begin = Clock::now();
    file.Next();
    SendChunk(file);
    SendFurtherChunks(&file);
    const std::chrono::duration<double> taken = Clock::now() - begin;
    events->EmitText("pushed and compared " + whole + ": " +
                     StringPrintf("%.3f s, %.1f MB/s", taken.count(),
                                  static_cast<double>(file.size()) / 1e6 / taken.count()));
}

// Sends the rest of the file and compares what was stored.
void StepPlayer::SendFurtherChunks(FilePush* file) {
    events->Emit({Event::Kind::kRepetitionBegin});
    const auto end = android::base::make_scope_guard(
            [this] { events->Emit({Event::Kind::kRepetitionEnd}); });
    while (file->Next()) {
        SendChunk(*file);
        Event progress = {Event::Kind::kProgress};
        progress.number = static_cast<int64_t>(file->done());
        progress.total = static_cast<int64_t>(file->size());
        events->Emit(progress);
    }
    WaitUntilEqual([file] { return file->StoredDifference(); });
    // Log lines that are read late belong to the repetition too.
    WaitUntil([this] { return !service->HasUnreadOutput(); });
}

void StepPlayer::SendChunk(const FilePush& file) {
    const std::string place = file.ChunkName() + ": ";
    try {
        simulation->modem().Send(file.message());
    } catch (const std::runtime_error& error) {
        throw StepFailure(place + error.what());
    }
    const std::optional<VelmarMessage> response = file.ExpectedResponse();
    if (!response) return CheckService();
    ExpectMessage(*response, false, place);
}

void StepPlayer::SetResponse(const ModemResponse& response) {
    ResponsePolicy policy;
    policy.responds = !response.none();
    policy.result = response.no_result() ? std::nullopt : std::make_optional(response.result());
    policy.delay = response.has_delay_ms()
                           ? Milliseconds(response.delay_ms())
                           : Scaled(static_cast<uint32_t>(ResponsePolicy::kUsualDelay.count()));
    policy.copies = response.twice() ? 2 : 1;
    policy.unknown_token_first = response.unknown_token_first();
    const auto* field = VelmarMessage::descriptor()->FindFieldByName(response.payload());
    simulation->modem().SetResponsePolicy(
            policy, field == nullptr ? VelmarMessage::PAYLOAD_NOT_SET
                                     : static_cast<VelmarMessage::PayloadCase>(field->number()));
}

void StepPlayer::SendSignal(const std::string& name) {
    RequireRunning();
    events->EmitText("signal " + name);
    service->Signal(SignalFromName(name).value_or(0));
}

void StepPlayer::RunClient(const Client& client) {
    std::string output;
    const std::unique_ptr<ChildProcess> run =
            simulation->Start({client.argument().begin(), client.argument().end()}, &output);
    if (!AwaitEnd(run.get())) {
        throw StepFailure("the run did not end" + WithinText());
    }
    const std::string end = ChildProcess::DescribeEnd(run->wait_status());
    events->EmitText("run ended: " + end);
    Exit expected;
    expected.set_status(client.exit_status());
    if (!IsExpectedEnd(expected, run->wait_status())) {
        throw StepFailure(
                "the run ended otherwise" +
                ExpectedActual("exit status " + std::to_string(client.exit_status()), end));
    }
    if (client.has_output() && client.output() != output) {
        throw StepFailure("the run wrote something else" +
                          ExpectedActual(QuoteBytes(client.output()), QuoteBytes(output)));
    }
}

void StepPlayer::AwaitExit(const Exit& exit) {
    if (service == nullptr) throw StepFailure("the phone runs no service");
    if (!AwaitEnd(service.get())) {
        throw StepFailure("velmar did not end" + WithinText());
    }
    service_expected = false;
    const std::string end = ChildProcess::DescribeEnd(service->wait_status());
    events->EmitText("velmar ended: " + end);
    if (!IsExpectedEnd(exit, service->wait_status())) {
        throw StepFailure("velmar ended otherwise" +
                          ExpectedActual(exit.has_signal()
                                                 ? exit.signal()
                                                 : "exit status " + std::to_string(exit.status()),
                                         end));
    }
}

void StepPlayer::RequireRunning() {
    if (service == nullptr || !service->IsRunning()) throw StepFailure("velmar does not run");
}

void StepPlayer::StartService() {
    if (service != nullptr && service->IsRunning()) throw StepFailure("velmar still runs");
    const auto& arguments = phone.argument();
    std::vector<std::string> all(arguments.begin(), arguments.end());
    if (all.empty()) all.emplace_back(kServerOption);
    service = simulation->Start(all, nullptr);
    service_expected = true;
}

void StepPlayer::AwaitLog(const LogPattern& pattern) {
    const std::optional<size_t> found = FindLog(pattern, within);
    if (!found) {
        throw StepFailure("no such log line came" + WithinText() +
                          ExpectedActual(DescribePattern(pattern), "-"));
    }
    if (!pattern.anywhere()) log_position = *found + 1;
}

void StepPlayer::ExpectNoLog(const LogPattern& pattern) {
    if (FindLog(pattern, Milliseconds(pattern.for_ms()))) {
        throw StepFailure("such a log line came: " + DescribePattern(pattern));
    }
}

void StepPlayer::AwaitThermalWrites(const ThermalWrites& expected) {
    std::vector<std::string> writes;
    WaitUntilEqual([&] {
        for (std::string& write : simulation->thermal().TakeWrites()) {
            writes.push_back(std::move(write));
        }
        return ThermalDifference(expected, writes);
    });
}

void StepPlayer::InjectFault(const Fault& fault) {
    FaultRule rule;
    rule.call = fault.call();
    rule.path = fault.path();
    rule.error = ErrorFromName(fault.error()).value_or(0);
    rule.length = static_cast<int>(fault.length());
    rule.times = static_cast<int>(fault.times());
    rule.skip = static_cast<int>(fault.skip());
    simulation->faults().Add(rule);
}

std::optional<RadioRequest> StepPlayer::ReceiveRadioRequest(Milliseconds limit) {
    std::optional<RadioRequest> request;
    WaitFor(limit, [&](Milliseconds slice) {
        request = simulation->radio().Receive(slice);
        return request.has_value();
    });
    return request;
}

void StepPlayer::ExpectRadioRequest(const RadioRequest& expected) {
    const std::optional<RadioRequest> actual = ReceiveRadioRequest(within);
    if (!actual) {
        throw StepFailure("no request reached the radio" + WithinText() +
                          ExpectedActual(DescribeRadioRequest(expected), "-"));
    }
    const std::string difference = RadioDifference(expected, *actual);
    if (!difference.empty()) throw StepFailure(difference);
}

void StepPlayer::ExpectNoRadioRequest(const Silence& silence) {
    const std::optional<RadioRequest> request = ReceiveRadioRequest(Milliseconds(silence.for_ms()));
    if (!request) return;
    throw StepFailure("a request reached the radio" +
                      ExpectedActual("-", DescribeRadioRequest(*request)));
}

StepPlayer::Milliseconds StepPlayer::Scaled(uint32_t ms) const {
    return Milliseconds(static_cast<Milliseconds::rep>(ms * time_factor));
}

std::string StepPlayer::WithinText() const {
    return " within " + std::to_string(within.count()) + " ms";
}

void StepPlayer::AwaitChannel() {
    const bool opened = WaitFor(within, [this](Milliseconds limit) {
        return simulation->modem().WaitForChannel(limit);
    });
    if (!opened) throw StepFailure("velmar has not opened the channel" + WithinText());
}

// Makes attempts, each of which may take as long as it is told, until one succeeds or `limit` has
// passed. At least one is made.
bool StepPlayer::WaitFor(Milliseconds limit, const std::function<bool(Milliseconds)>& attempt) {
    const auto deadline = Clock::now() + limit;
    while (true) {
        const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
        if (attempt(std::clamp(left, Milliseconds(0), kCheckInterval))) return true;
        CheckService();
        if (Clock::now() >= deadline) return false;
    }
}

std::optional<ReceivedMessage> StepPlayer::Receive(Milliseconds limit) {
    std::optional<ReceivedMessage> message;
    WaitFor(limit, [&](Milliseconds slice) {
        message = simulation->modem().Receive(slice);
        return message.has_value();
    });
    return message;
}

// Position of the first line that matches, after those that are done with unless it may be
// anywhere.
std::optional<size_t> StepPlayer::FindLog(const LogPattern& pattern, Milliseconds limit) {
    const LogStream::Matcher matches = LogMatcher(pattern);
    const size_t begin = pattern.anywhere() ? 0 : log_position;
    std::optional<size_t> found;
    WaitFor(limit, [&](Milliseconds slice) {
        found = simulation->log().Find(begin, matches, slice);
        return found.has_value();
    });
    return found;
}

// Looks again and again, for the step's time; returns whether it holds at last.
bool StepPlayer::WaitUntil(const std::function<bool()>& holds) {
    return WaitFor(within, [&](Milliseconds limit) {
        if (holds()) return true;
        std::this_thread::sleep_for(std::min(limit, kPollInterval));
        return false;
    });
}

bool StepPlayer::AwaitEnd(ChildProcess* program) {
    return WaitUntil([program] { return !program->IsRunning(); });
}

// Looks until there is no difference; fails with the last one.
void StepPlayer::WaitUntilEqual(const std::function<std::string()>& find_difference) {
    std::string difference;
    const auto is_equal = [&] { return (difference = find_difference()).empty(); };
    if (!WaitUntil(is_equal)) throw StepFailure(difference);
}

void StepPlayer::CheckService() {
    ThrowIfInterrupted();
    simulation->radio().Look();
    if (!service_expected || end_awaited || service->IsRunning()) return;
    throw StepFailure("velmar ended unexpectedly: " +
                      ChildProcess::DescribeEnd(service->wait_status()));
}

}  // namespace velmar_sim
