#include "sim/tool/step_player.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include "android-base/scopeguard.h"
#include "android-base/stringprintf.h"
#include "android-base/strings.h"

#include "sim/tool/differences.h"
#include "sim/tool/interruption.h"
#include "sim/tool/message_text.h"
#include "sim/tool/names.h"
#include "sim/tool/patterns.h"
#include "sim/tool/pid_file.h"

namespace velmar_sim {

namespace {

using android::base::StringPrintf;
using std::chrono::milliseconds;
using velmar_message::VelmarMessage;

constexpr char kServerOption[] = "--server";
constexpr milliseconds kPollInterval{2};
// After so long without an event nothing more is due to come of a message.
constexpr uint32_t kQuietMs = 300;

LogStream::Matcher LogMatcher(const LogPattern& pattern) {
    const std::optional<char> priority = PriorityFromText(pattern.priority());
    return [pattern, priority](const LogLine& line) {
        if (line.tag != pattern.tag() || (priority && *priority != line.priority)) return false;
        if (pattern.has_text()) return line.text == pattern.text();
        return MatchesPattern(line.text, pattern.matching());
    };
}

std::string DescribePattern(const LogPattern& pattern) {
    return pattern.priority() + (pattern.has_priority() ? " " : "") + pattern.tag() + ": " +
           (pattern.has_text() ? pattern.text() : "matching " + QuoteBytes(pattern.matching()));
}

// Whether the step acts on the phone in a way that neither the modem nor the service shows.
bool ChangesPhone(const Step& step) {
    return step.has_set_property() || step.has_write_file() || step.has_remove_file() ||
           step.has_fault() || step.has_clear_faults() || step.has_radio();
}

// Whether those who replay a session have to know of the step.
bool IsReplayed(const Step& step) {
    return ChangesPhone(step) || step.has_end_of_file() || step.has_hang_up() ||
           step.has_signal() || step.has_client() || step.has_exit() || step.has_restart();
}

std::string DescribeExit(int status) {
    return "exit status " + std::to_string(status);
}

void RequireNone(const std::string& difference) {
    if (!difference.empty()) throw StepFailure(difference);
}

}  // namespace

UnexpectedEnd::UnexpectedEnd(int wait_status)
    : StepFailure("velmar ended unexpectedly: " + ChildProcess::DescribeEnd(wait_status)) {
    if (WIFSIGNALED(wait_status)) {
        exit.set_signal(SignalName(WTERMSIG(wait_status)));
    } else {
        exit.set_status(WEXITSTATUS(wait_status));
    }
}

std::vector<bool> AwaitedEnds(size_t count, const std::function<Step::ActionCase(size_t)>& action) {
    std::vector<bool> ends(count + 1);
    for (size_t i = count; i > 0; --i) {
        const Step::ActionCase here = action(i - 1);
        ends[i - 1] = here == Step::kExit || (ends[i] && here != Step::kRestart);
    }
    return ends;
}

StepPlayer::StepPlayer(const Phone& description, double factor, Simulation* simulated,
                       EventStream* event_stream)
    : phone(description),
      time_factor(factor),
      simulation(simulated),
      events(event_stream),
      within(Scaled(Step::default_instance().within_ms())) {}

void StepPlayer::Start() {
    for (const ResponsePolicy& policy : phone.answer()) SetResponse(policy);
    if (!phone.no_server()) StartService();
}

void StepPlayer::Play(const Step& step, bool is_end_awaited) {
    within = Scaled(step.within_ms());
    end_awaited = is_end_awaited;
    CheckService();
    if (IsReplayed(step)) {
        Step whole = step;
        if (step.has_write_file()) *whole.mutable_write_file() = WithContent(step.write_file());
        events->Emit({Event::Kind::kStep, whole.SerializeAsString()});
    }
    PlayAction(step);
    has_sent = step.has_send() || step.has_send_bytes() || step.has_send_hex();
}

void StepPlayer::Look() {
    end_awaited = false;
    CheckService();
}

void StepPlayer::AwaitQuiet() {
    const auto limit = Scaled(Step::default_instance().within_ms());
    WaitUntil(limit, [this] { return events->QuietTime() >= Scaled(kQuietMs); });
}

void StepPlayer::Finish() {
    end_awaited = false;
    // What comes of a message is shown although no step awaits it.
    if (has_sent) AwaitQuiet();
    CheckService();
    // Afterwards all that it wrote is in the log.
    service.reset();
    service_expected = false;
    simulation->radio().Look();
    simulation->faults().Look();
    events->Show(EventStream::Which::kAll);
    if (simulation->log().Find(0, IsSanitizerReport, milliseconds(0))) {
        throw StepFailure("a sanitizer reported a fault of velmar");
    }
    const std::vector<std::string> idle = simulation->faults().WithoutHit();
    if (!idle.empty()) {
        throw StepFailure("faults have hit nothing: " + android::base::Join(idle, ", "));
    }
}

void StepPlayer::PlayAction(const Step& step) {
    const PhoneFolder& folder = simulation->folder();
    SimulatedModem& modem = simulation->modem();
    if (ChangesPhone(step)) events->EmitText("phone " + ShortText(step));

    if (step.has_say()) return events->Emit({Event::Kind::kHeading, step.say()});
    if (step.has_pause_ms()) return Pause(Scaled(step.pause_ms()));

    if (step.has_send()) return Send(step.send().SerializeAsString());
    if (step.has_send_bytes()) return Send(step.send_bytes());
    if (step.has_send_hex()) return Send(BytesFromHex(step.send_hex()).value_or(""));
    if (step.has_expect()) return ExpectMessage(step.expect(), step.any_token(), "");
    if (step.has_expect_nothing()) return ExpectNoMessage(step.expect_nothing());
    if (step.has_push()) return PushFile(step.push());
    if (step.has_answer()) return SetResponse(step.answer());
    if (step.has_modem_state()) return modem.SetState(step.modem_state());
    if (step.has_end_of_file()) return WithChannel([&] { modem.SendEndOfFile(); });
    if (step.has_hang_up()) return WithChannel([&] { modem.HangUp(); });

    if (step.has_signal()) return SendSignal(step.signal());
    if (step.has_client()) return RunClient(step.client());
    if (step.has_exit()) return AwaitExit(step.exit());
    if (step.has_running()) return RequireRunning();
    if (step.has_restart()) return StartService();

    if (step.has_log()) return AwaitLog(step.log());
    if (step.has_no_log()) return ExpectNoLog(step.no_log());
    if (step.has_file()) {
        return WaitUntilEqual([&] { return FileDifference(step.file(), folder); });
    }
    if (step.has_property()) {
        return WaitUntilEqual([&] { return PropertyDifference(step.property(), folder); });
    }
    if (step.has_thermal()) return AwaitThermalWrites(step.thermal());

    if (step.has_set_property()) {
        return folder.SetProperty(step.set_property().name(), step.set_property().value());
    }
    if (step.has_write_file()) return simulation->WriteFile(step.write_file());
    if (step.has_remove_file()) return simulation->Remove(step.remove_file());
    if (step.has_fault()) return InjectFault(step.fault());
    if (step.has_clear_faults()) return simulation->faults().Clear();

    if (step.has_radio()) return simulation->radio().Behave(step.radio());
    if (step.has_radio_request()) return ExpectRadioRequest(step.radio_request());
    if (step.has_no_radio_request()) return ExpectNoRadioRequest(step.no_radio_request());
    throw StepFailure("expected an action that can be played");
}

void StepPlayer::Send(const std::string& bytes) {
    WithChannel([&] { simulation->modem().SendBytes(bytes); });
}

// The next message is `expected`; `place` stands before what is said of another.
void StepPlayer::ExpectMessage(const VelmarMessage& expected, bool any_token,
                               const std::string& place) {
    WaitUntilEqual([&] {
        const auto message = simulation->modem().Receive(kPollInterval);
        if (!message) {
            return place + "no message came" + WithinText() +
                   ExpectedActual(DescribeMessage(expected.SerializeAsString()), "-");
        }
        std::string difference = MessageDifference(expected, *message, any_token);
        RequireNone(difference.empty() ? "" : place + difference);
        return difference;
    });
}

void StepPlayer::ExpectNoMessage(const Silence& silence) {
    WaitUntil(Milliseconds(silence.for_ms()), [this] {
        const auto message = simulation->modem().Receive(kPollInterval);
        if (!message) return false;
        throw StepFailure("a message came" + ExpectedActual("-", DescribeMessage(message->bytes)));
    });
}

void StepPlayer::PushFile(const Push& push) {
    WithChannel([] {});
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

void StepPlayer::SetResponse(ResponsePolicy policy) {
    const auto delay = static_cast<uint32_t>(Scaled(policy.delay_ms()).count());
    if (!policy.has_delay_ms()) policy.set_delay_ms(delay);
    simulation->modem().SetResponsePolicy(policy);
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
    AwaitEnd("the run", run.get(), DescribeExit(client.exit_status()));
    if (client.has_output() && client.output() != output) {
        throw StepFailure("the run wrote something else" +
                          ExpectedActual(QuoteBytes(client.output()), QuoteBytes(output)));
    }
}

void StepPlayer::AwaitExit(const Exit& exit) {
    if (service == nullptr) throw StepFailure("the phone runs no service");
    AwaitEnd("velmar", service.get(),
             exit.has_signal() ? exit.signal() : DescribeExit(exit.status()));
    service_expected = false;
}

void StepPlayer::AwaitEnd(const std::string& name, ChildProcess* program,
                          const std::string& expected) {
    if (!WaitUntil(within, [program] { return !program->IsRunning(); })) {
        throw StepFailure(name + " did not end" + WithinText());
    }
    const std::string end = ChildProcess::DescribeEnd(program->wait_status());
    events->EmitText(name + " ended: " + end);
    if (end != expected)
        throw StepFailure(name + " ended otherwise" + ExpectedActual(expected, end));
}

void StepPlayer::RequireRunning() {
    if (service == nullptr || !service->IsRunning()) throw StepFailure("velmar does not run");
}

void StepPlayer::StartService() {
    if (service != nullptr && service->IsRunning()) throw StepFailure("velmar still runs");
    const auto& arguments = phone.argument();
    std::vector<std::string> all(arguments.begin(), arguments.end());
    if (all.empty()) all.emplace_back(kServerOption);
    const PidFile pid_file(phone, simulation->folder());
    service = simulation->Start(all, nullptr);
    // Before that a signal would end it, and a client run would not find it.
    WaitUntil(within, [&] { return pid_file.IsDone() || !service->IsRunning(); });
    service_expected = true;
}

void StepPlayer::AwaitLog(const LogPattern& pattern) {
    const auto found = FindLog(pattern, within);
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
    simulation->faults().Add({fault.call(), fault.path(), ErrorFromName(fault.error()).value_or(0),
                              static_cast<int>(fault.length()), static_cast<int>(fault.times()),
                              static_cast<int>(fault.skip()), fault.optional()});
}

void StepPlayer::ExpectRadioRequest(const RadioRequest& expected) {
    WaitUntilEqual([&] {
        const auto request = simulation->radio().Take();
        if (request) RequireNone(RadioDifference(expected, *request));
        return request ? ""
                       : "no request reached the radio" + WithinText() +
                                 ExpectedActual(DescribeRadioRequest(expected), "-");
    });
}

void StepPlayer::ExpectNoRadioRequest(const Silence& silence) {
    WaitUntil(Milliseconds(silence.for_ms()), [this] {
        const auto request = simulation->radio().Take();
        if (!request) return false;
        throw StepFailure("a request reached the radio" +
                          ExpectedActual("-", DescribeRadioRequest(*request)));
    });
}

StepPlayer::Milliseconds StepPlayer::Scaled(uint32_t ms) const {
    return Milliseconds(static_cast<Milliseconds::rep>(ms * time_factor));
}

std::string StepPlayer::WithinText() const {
    return " within " + std::to_string(within.count()) + " ms";
}

// Acts once the service has the channel open.
void StepPlayer::WithChannel(const std::function<void()>& action) {
    RequireRunning();
    const auto is_open = [this] { return simulation->modem().WaitForChannel(kPollInterval); };
    if (!WaitUntil(within, is_open)) {
        throw StepFailure("velmar has not opened the channel" + WithinText());
    }
    action();
}

void StepPlayer::Pause(Milliseconds time) {
    WaitUntil(time, [] { return false; });
}

// Looks again and again until `holds` does or `limit` has passed, at least once; returns whether it
// did. A look may wait for as long as kPollInterval.
bool StepPlayer::WaitUntil(Milliseconds limit, const std::function<bool()>& holds) {
    const auto deadline = Clock::now() + limit;
    while (!holds()) {
        CheckService();
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

// Looks until there is no difference; fails with the last one.
void StepPlayer::WaitUntilEqual(const std::function<std::string()>& find_difference) {
    std::string difference;
    const auto is_equal = [&] { return (difference = find_difference()).empty(); };
    if (!WaitUntil(within, is_equal)) RequireNone(difference);
}

// Position of the first line that matches, after those that are done with unless it may be
// anywhere.
std::optional<size_t> StepPlayer::FindLog(const LogPattern& pattern, Milliseconds limit) {
    const LogStream::Matcher matches = LogMatcher(pattern);
    const size_t begin = pattern.anywhere() ? 0 : log_position;
    std::optional<size_t> found;
    WaitUntil(limit, [&] {
        return (found = simulation->log().Find(begin, matches, kPollInterval)).has_value();
    });
    return found;
}

void StepPlayer::CheckService() {
    ThrowIfInterrupted();
    simulation->radio().Look();
    simulation->faults().Look();
    events->Show();
    if (!service_expected || end_awaited || service->IsRunning()) return;
    service_expected = false;
    throw UnexpectedEnd(service->wait_status());
}

}  // namespace velmar_sim
