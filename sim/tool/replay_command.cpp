#include "sim/tool/replay_command.h"

#include <signal.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "sim/tool/bad_input.h"
#include "sim/tool/interruption.h"
#include "sim/tool/message_text.h"
#include "sim/tool/replay.h"
#include "sim/tool/scenario_reader.h"
#include "sim/tool/session.h"

namespace velmar_sim {

namespace {

constexpr int kOnline = 4;

constexpr char kFooter[] =
        "Exit status: 0 the service sent what it did in the trace, 1 it did not, 2 bad usage or a "
        "bad trace.";

struct Options {
    std::string path;
    std::string phone_path;
    bool fast = false;
    SessionOptions session;
};

// What the phone is to hold at boot. The first state of the modem that comes before the service has
// opened anything is one that it has at boot.
Phone PhoneOf(RecordedSession* recorded, const Options& options) {
    if (options.phone_path.empty() && !recorded->phone) {
        throw BadInput(options.path +
                       ": says nothing of the phone: expected --phone FILE.textproto with what it "
                       "held: modem_state, properties and files");
    }
    Phone phone = options.phone_path.empty()
                          ? *recorded->phone
                          : ParsePhone(options.phone_path, ReadInput(options.phone_path));
    // The trace has the responses of the modem.
    phone.clear_answer();
    auto& rows = recorded->rows;
    const auto first = std::find_if(rows.begin(), rows.end(), [](const auto& row) {
        return row.event.kind == Event::Kind::kState || row.event.kind == Event::Kind::kOpened ||
               row.event.kind == Event::Kind::kSent || row.event.kind == Event::Kind::kReceived;
    });
    if (first != rows.end() && first->event.kind == Event::Kind::kState) {
        if (!phone.has_modem_state()) phone.set_modem_state(static_cast<int>(first->event.number));
        if (phone.modem_state() == first->event.number) rows.erase(first);
    }
    const auto is_any = [&rows](const auto& holds) {
        return std::any_of(rows.begin(), rows.end(),
                           [&holds](const auto& row) { return holds(row.event); });
    };
    const bool has_messages = is_any([](const Event& event) {
        return event.kind == Event::Kind::kSent || event.kind == Event::Kind::kReceived;
    });
    const bool comes_online = is_any([](const Event& event) {
        return event.kind == Event::Kind::kState && event.number == kOnline;
    });
    if (has_messages && phone.modem_state() != kOnline && !comes_online) {
        throw BadInput(options.path +
                       ": the modem never comes online: expected a row with modem_state 4, or "
                       "--phone FILE.textproto with modem_state: 4");
    }
    return phone;
}

int ReplayTrace(const Options& options) {
    CheckSessionOptions(options.session);
    std::vector<RecordedSession> sessions = ReadSessions(options.path);
    std::vector<Phone> phones;
    phones.reserve(sessions.size());
    for (RecordedSession& one : sessions) phones.push_back(PhoneOf(&one, options));
    if (sessions.size() > 1 && IsKeptAt(options.session)) {
        throw BadInput("--keep=DIR: expected a trace of one session, found " +
                       std::to_string(sessions.size()));
    }
    SessionWriters writers(options.session);
    ReplayResult all;
    for (size_t i = 0; i < sessions.size() && NotedSignal() == 0; ++i) {
        Session session("replay of " + options.path, phones[i], options.session, writers);
        const ReplayResult result =
                Replay(sessions[i], options.fast, options.session.time_factor, &session);
        // Nobody reads on.
        if (NotedSignal() == SIGPIPE) return kFailed;
        std::cerr << Printable(result.failure);
        all.failure += result.failure;
        all.messages += result.messages;
        all.differing += result.differing;
    }
    const std::string count = CountOf(all.messages, "message");
    if (all.failure.empty()) {
        std::cout << "PASSED: " << count << std::endl;
    } else {
        std::cout << "FAILED: " << all.differing << " of " << count << std::endl;
    }
    writers.Finish();
    return all.failure.empty() ? kPassed : kFailed;
}

}  // namespace

void AddReplayCommand(CLI::App* app, int* status) {
    CLI::App* replay = app->add_subcommand(
            "replay",
            "Plays the modem's side of a trace again and compares what the service sends");
    // The command lives as long as its callback.
    const auto options = std::make_shared<Options>();
    replay->add_option("TRACE", options->path, "A trace, as decode reads it; - is standard input")
            ->required();
    replay->add_option("--phone", options->phone_path,
                       "What the phone holds at boot, as in a scenario, in place of what the trace "
                       "says")
            ->type_name("FILE");
    replay->add_flag("--fast", options->fast,
                     "Wait only for what the service sent before, not for the time");
    AddSessionOptions(replay, &options->session);
    replay->footer(kFooter);
    replay->callback([options, status] { *status = ReplayTrace(*options); });
}

}  // namespace velmar_sim
