#include "sim/tool/step_player.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>
#include <thread>
#include <utility>
#include <vector>

#include "sim/tool/differences.h"
#include "sim/tool/message_text.h"
#include "sim/tool/names.h"

namespace velmar_sim {

namespace {

using std::chrono::milliseconds;
using velmar_message::VelmarMessage;

constexpr char kServerOption[] = "--server";
// How long a wait goes on before it looks whether the service still runs.
constexpr milliseconds kSlice{20};
// Between two looks at something that tells no one of its change.
constexpr milliseconds kLookAgain{2};

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

StepPlayer::StepPlayer(const Scenario& scenario, double factor, SimulatedPhone* simulated_phone,
                       Transcript* transcript)
    : story(scenario), time_factor(factor), phone(simulated_phone), show(transcript) {}

void StepPlayer::Play() {
    try {
        PlaySteps();
    } catch (const std::exception&) {
        EndService();
        throw;
    }
    EndService();
    if (phone->log().Find(0, IsSanitizerReport, milliseconds(0))) {
        throw StepFailure("a sanitizer reported a fault of velmar");
    }
}

void StepPlayer::PlaySteps() {
    if (!story.phone().no_server()) StartService();
    for (; current < story.step_size(); ++current) {
        const Step& step = story.step(current);
        within = Scaled(step.within_ms());
        CheckService();
        PlayStep(step);
    }
    CheckService();
}

// Afterwards all that the service wrote is in the log.
void StepPlayer::EndService() {
    service_expected = false;
    if (service != nullptr) service->Kill();
    phone->radio().Look();
}

void StepPlayer::PlayStep(const Step& step) {
    const PhoneFolder& folder = phone->folder();
    if (ChangesPhone(step)) show->OnEvent("phone " + ShortText(step));
    switch (step.action_case()) {
        case Step::kSay:
            return show->Say(step.say());
        case Step::kSend:
        case Step::kSendBytes:
            return Send(step);
        case Step::kExpect:
            return Expect(step);
        case Step::kExpectNothing:
            return ExpectNothing(step.expect_nothing());
        case Step::kAnswer:
            return SetAnswer(step.answer());
        case Step::kModemState:
            return phone->modem().SetState(step.modem_state());
        case Step::kEndOfFile:
            AwaitChannel();
            return phone->modem().SendEndOfFile();
        case Step::kHangUp:
            AwaitChannel();
            return phone->modem().HangUp();
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
            return RefuseLog(step.no_log());
        case Step::kFile:
            return AwaitRight([&] { return FileDifference(step.file(), folder); });
        case Step::kProperty:
            return AwaitRight([&] { return PropertyDifference(step.property(), folder); });
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
            return phone->modem().ClearFaults();
        case Step::kRadio:
            return phone->radio().Behave(step.radio());
        case Step::kRadioRequest:
            return ExpectRadioRequest(step.radio_request());
        case Step::kNoRadioRequest:
            return RefuseRadioRequest(step.no_radio_request());
        case Step::kPauseMs:
            WaitFor(Scaled(step.pause_ms()), [](Milliseconds slice) {
                std::this_thread::sleep_for(slice);
                return false;
            });
            return;
        case Step::ACTION_NOT_SET:
            throw StepFailure("expected an action");
    }
}

void StepPlayer::Send(const Step& step) {
    AwaitChannel();
    if (step.has_send()) {
        phone->modem().Send(step.send());
    } else {
        phone->modem().SendBytes(step.send_bytes());
    }
}

void StepPlayer::Expect(const Step& step) {
    const std::optional<ReceivedMessage> message = Receive(within);
    if (!message) throw StepFailure(NoMessage(step.expect()));
    const std::string difference = MessageDifference(step.expect(), *message, step.any_token());
    if (!difference.empty()) throw StepFailure(difference);
}

void StepPlayer::ExpectNothing(const Silence& silence) {
    const std::optional<ReceivedMessage> message = Receive(Milliseconds(silence.for_ms()));
    if (message) {
        throw StepFailure("a message came" + ExpectedActual("-", DescribeMessage(message->bytes)));
    }
}

void StepPlayer::PushFile(const Push& push) {
    AwaitChannel();
    FilePush file(push, phone->folder());
    const std::string whole = std::to_string(file.size()) + " bytes in " +
                              std::to_string(file.chunk_count()) + " chunks to " + file.target();
    show->OnEvent("push " + whole);
    const auto begin = Clock::now();
    std::chrono::duration<double> taken;
    file.Next();
    SendChunk(file);
    {
        const TranscriptSummary summary(show);
        while (file.Next()) {
            SendChunk(file);
            show->ShowProgress(file.done(), file.size());
        }
        AwaitRight([&] { return file.StoredDifference(); });
        taken = Clock::now() - begin;
        // Log lines that are read late belong to the summary too.
        WaitFor(within, [&](Milliseconds slice) {
            if (!service->HasUnreadOutput()) return true;
            std::this_thread::sleep_for(std::min(slice, kLookAgain));
            return false;
        });
    }
    show->OnEvent("pushed and compared " + whole + ": " + RateText(file.size(), taken));
}

void StepPlayer::SendChunk(const FilePush& file) {
    try {
        phone->modem().Send(file.message());
    } catch (const std::runtime_error& error) {
        throw StepFailure(file.ChunkName() + ": " + error.what());
    }
    const std::optional<VelmarMessage> answer = file.Answer();
    if (!answer) return CheckService();
    const std::optional<ReceivedMessage> message = Receive(within);
    if (!message) throw StepFailure(file.ChunkName() + ": " + NoMessage(*answer));
    const std::string difference = MessageDifference(*answer, *message, false);
    if (!difference.empty()) throw StepFailure(file.ChunkName() + ": " + difference);
}

void StepPlayer::SetAnswer(const Answer& answer) {
    AnswerPolicy policy;
    policy.answer = !answer.none();
    policy.result = answer.no_result() ? std::nullopt : std::make_optional(answer.result());
    policy.delay = answer.has_delay_ms()
                           ? Milliseconds(answer.delay_ms())
                           : Scaled(static_cast<uint32_t>(AnswerPolicy::kUsualDelay.count()));
    policy.copies = answer.twice() ? 2 : 1;
    policy.unknown_token_first = answer.unknown_token_first();
    const auto* field = VelmarMessage::descriptor()->FindFieldByName(answer.payload());
    phone->modem().SetAnswerPolicy(
            policy, field == nullptr ? VelmarMessage::PAYLOAD_NOT_SET
                                     : static_cast<VelmarMessage::PayloadCase>(field->number()));
}

void StepPlayer::SendSignal(const std::string& name) {
    RequireRunning();
    show->OnEvent("signal " + name);
    service->Signal(SignalFromName(name).value_or(0));
}

void StepPlayer::RunClient(const Client& client) {
    std::string output;
    const std::unique_ptr<ChildProcess> run =
            phone->Start({client.argument().begin(), client.argument().end()}, &output);
    if (!AwaitEnd(run.get())) {
        throw StepFailure("the run did not end within " + std::to_string(within.count()) + " ms");
    }
    const std::string end = ChildProcess::DescribeEnd(run->wait_status());
    show->OnEvent("run ended: " + end);
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
        throw StepFailure("velmar still runs after " + std::to_string(within.count()) + " ms");
    }
    service_expected = false;
    const std::string end = ChildProcess::DescribeEnd(service->wait_status());
    show->OnEvent("velmar ended: " + end);
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
    const auto& arguments = story.phone().argument();
    std::vector<std::string> all(arguments.begin(), arguments.end());
    if (all.empty()) all.emplace_back(kServerOption);
    service = phone->Start(all, nullptr);
    service_expected = true;
}

void StepPlayer::AwaitLog(const LogPattern& pattern) {
    const std::optional<size_t> found = FindLog(pattern, within);
    if (!found) {
        throw StepFailure("no such log line came within " + std::to_string(within.count()) + " ms" +
                          ExpectedActual(DescribePattern(pattern), "-"));
    }
    if (!pattern.anywhere()) log_position = *found + 1;
}

void StepPlayer::RefuseLog(const LogPattern& pattern) {
    if (FindLog(pattern, Milliseconds(pattern.for_ms()))) {
        throw StepFailure("such a log line came: " + DescribePattern(pattern));
    }
}

void StepPlayer::AwaitThermalWrites(const ThermalWrites& expected) {
    std::vector<std::string> writes;
    AwaitRight([&] {
        for (std::string& write : phone->modem().TakeThermalWrites()) {
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
    phone->modem().AddFault(rule);
}

// Says that the step's time has passed without this message.
std::string StepPlayer::NoMessage(const VelmarMessage& expected) const {
    return "no message came within " + std::to_string(within.count()) + " ms" +
           ExpectedActual(DescribeMessage(expected.SerializeAsString()), "-");
}

std::optional<RadioRequest> StepPlayer::ReceiveRadioRequest(Milliseconds limit) {
    std::optional<RadioRequest> request;
    WaitFor(limit, [&](Milliseconds slice) {
        request = phone->radio().Receive(slice);
        return request.has_value();
    });
    return request;
}

void StepPlayer::ExpectRadioRequest(const RadioRequest& expected) {
    const std::optional<RadioRequest> actual = ReceiveRadioRequest(within);
    if (!actual) {
        throw StepFailure("no request reached the radio within " + std::to_string(within.count()) +
                          " ms" + ExpectedActual(DescribeRadioRequest(expected), "-"));
    }
    const std::string difference = RadioDifference(expected, *actual);
    if (!difference.empty()) throw StepFailure(difference);
}

void StepPlayer::RefuseRadioRequest(const Silence& silence) {
    const std::optional<RadioRequest> request = ReceiveRadioRequest(Milliseconds(silence.for_ms()));
    if (!request) return;
    throw StepFailure("a request reached the radio" +
                      ExpectedActual("-", DescribeRadioRequest(*request)));
}

StepPlayer::Milliseconds StepPlayer::Scaled(uint32_t ms) const {
    return Milliseconds(static_cast<Milliseconds::rep>(ms * time_factor));
}

void StepPlayer::AwaitChannel() {
    const bool opened = WaitFor(
            within, [this](Milliseconds slice) { return phone->modem().WaitForChannel(slice); });
    if (!opened) {
        throw StepFailure("velmar has not opened the channel within " +
                          std::to_string(within.count()) + " ms");
    }
}

// Makes attempts, each of which may take as long as it is told, until one succeeds or `limit` has
// passed. At least one is made.
bool StepPlayer::WaitFor(Milliseconds limit, const std::function<bool(Milliseconds)>& attempt) {
    const auto deadline = Clock::now() + limit;
    while (true) {
        const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
        if (attempt(std::clamp(left, Milliseconds(0), kSlice))) return true;
        CheckService();
        if (Clock::now() >= deadline) return false;
    }
}

std::optional<ReceivedMessage> StepPlayer::Receive(Milliseconds limit) {
    std::optional<ReceivedMessage> message;
    WaitFor(limit, [&](Milliseconds slice) {
        message = phone->modem().Receive(slice);
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
        found = phone->log().Find(begin, matches, slice);
        return found.has_value();
    });
    return found;
}

// Whether the program ends within the step's time.
bool StepPlayer::AwaitEnd(ChildProcess* program) {
    return WaitFor(within, [&](Milliseconds) {
        if (!program->IsRunning()) return true;
        std::this_thread::sleep_for(kLookAgain);
        return false;
    });
}

// Looks until there is no difference; fails with the last one.
void StepPlayer::AwaitRight(const std::function<std::string()>& find_difference) {
    std::string difference;
    const bool right = WaitFor(within, [&](Milliseconds) {
        difference = find_difference();
        if (difference.empty()) return true;
        std::this_thread::sleep_for(kLookAgain);
        return false;
    });
    if (!right) throw StepFailure(difference);
}

void StepPlayer::CheckService() {
    phone->radio().Look();
    if (!service_expected || service->IsRunning() || ExitFollows()) return;
    throw StepFailure("velmar ended unexpectedly: " +
                      ChildProcess::DescribeEnd(service->wait_status()));
}

// Whether a later step, or this one, awaits the end of the service that was started last.
bool StepPlayer::ExitFollows() const {
    for (int i = current; i < story.step_size(); ++i) {
        if (story.step(i).has_exit()) return true;
        if (story.step(i).has_restart()) return false;
    }
    return false;
}

}  // namespace velmar_sim
