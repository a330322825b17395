#include "sim/tool/shell_command.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "android-base/file.h"
#include "android-base/scopeguard.h"
#include "android-base/strings.h"

#include "sim/tool/bad_input.h"
#include "sim/tool/interruption.h"
#include "sim/tool/line_input.h"
#include "sim/tool/message_text.h"
#include "sim/tool/saved_scenario.h"
#include "sim/tool/scenario_reader.h"
#include "sim/tool/session.h"
#include "sim/tool/step_help.h"

namespace velmar_sim {

namespace {

using android::base::StartsWith;

constexpr char kTitle[] = "a phone, by hand; help says what a line can be";
constexpr char kFooter[] =
        "Exit status: 0 every step passed, 1 one failed or the service ended without an exit step, "
        "2 bad usage, or a line that is no step.";
constexpr char kHelpOf[] = "help ";
constexpr char kQuit[] = "quit";
constexpr char kHelp[] =
        "help [STEP]   what a line can be, what STEP is, or a field in it: help send.file_message\n"
        "phone         names the phone's folder\n"
        "save FILE     writes a new file: what was done as a scenario, with what the service sent\n"
        "quit          ends the session, as the end of the input does\n"
        "Every other line is what stands in \"step { ... }\" of a scenario:\n";

struct Options {
    std::string phone_file;
    std::optional<int> modem_state;
    std::vector<std::string> properties;
    std::vector<std::string> files;
    SessionOptions session;
};

// "NAME=VALUE" in two.
std::pair<std::string, std::string> Split(const std::string& option, const std::string& text) {
    const size_t middle = text.find('=');
    if (middle == std::string::npos || middle == 0) {
        throw BadInput(option + ": expected two texts with = between them, found " + text);
    }
    return {text.substr(0, middle), text.substr(middle + 1)};
}

Phone PhoneFrom(const Options& options) {
    if (options.phone_file == "-") {
        throw BadInput("--phone: expected a file, found -: standard input has the steps");
    }
    Phone phone;
    if (!options.phone_file.empty()) {
        phone = ParsePhone(options.phone_file, ReadInput(options.phone_file));
    }
    if (options.modem_state) phone.set_modem_state(*options.modem_state);
    for (const std::string& text : options.properties) {
        Phone more;
        Property* property = more.add_property();
        std::tie(*property->mutable_name(), *property->mutable_value()) = Split("--property", text);
        phone.MergeFrom(ParsePhone("--property", more.ShortDebugString()));
    }
    for (const std::string& text : options.files) {
        Phone more;
        File* file = more.add_file();
        std::tie(*file->mutable_path(), *file->mutable_source()) = Split("--file", text);
        phone.MergeFrom(ParsePhone("--file", more.ShortDebugString()));
    }
    return phone;
}

std::vector<std::string> CompleteLine(const std::string& text) {
    const bool is_help = StartsWith(text, kHelpOf);
    if (StartsWith(text, "save ")) return {};
    // "help send.file_message" names what stands in "send { file_message".
    std::vector<std::string> names = CompleteStep(
            is_help ? android::base::StringReplace(text.substr(strlen(kHelpOf)), ".", " { ", true)
                    : text);
    if (is_help) {
        for (auto& name : names) name = name.substr(0, name.find_first_of(" :"));
        return names;
    }
    for (const char* command : {kHelpOf, "phone", "save ", kQuit}) {
        if (StartsWith(command, text)) names.emplace_back(command);
    }
    return names;
}

// One session: reads lines and does what they say.
class Shell {
  public:
    explicit Shell(const Options& options)
        : phone(PhoneFrom(options)),
          saved(phone),
          input(CompleteLine, [this] { return Look(); }),
          writers(options.session),
          session(kTitle, phone, options.session, writers) {
        session.events().Attach(&saved);
    }

    // Returns the exit status.
    int Run() {
        StepPlayer& player = session.player();
        Try([&] { player.Start(); });
        while (NotedSignal() == 0) {
            const std::optional<std::string> text = input.Next();
            ++line;
            const std::string trimmed = android::base::Trim(text.value_or(kQuit));
            if (trimmed == kQuit) break;
            if (!trimmed.empty() && trimmed[0] != '#') Try([&] { Execute(*text, trimmed); });
        }
        if (!input.is_terminal()) Try([&] { player.AwaitQuiet(); });
        Try([&] { player.Finish(); });
        Try([&] { writers.Finish(); });
        return status;
    }

  private:
    // What fails is told, and the session goes on.
    void Try(const std::function<void()>& action) {
        const std::string place = std::to_string(line) + ": ";
        try {
            action();
        } catch (const BadScenario& error) {
            Say(error.what(), kBadInput);
        } catch (const BadInput& error) {
            Say(place + error.what(), kBadInput);
        } catch (const UnexpectedEnd& error) {
            Step exit;
            *exit.mutable_exit() = error.end();
            saved.Begin(exit);
            saved.End(true);
            Say(place + error.what() + "; restart {} starts it again", kFailed);
        } catch (const std::runtime_error& error) {
            if (NotedSignal() == 0) Say(place + error.what(), kFailed);
        }
    }

    void Say(const std::string& text, int its_status) {
        ShowAll();
        std::cerr << Printable(text) + "\n" << std::flush;
        status = std::max(status, its_status);
    }

    void ShowAll() { session.events().Show(EventStream::Which::kAll); }

    // Shows what happens between two lines. In a pipe the next line may await the end of the
    // service. Returns false after a signal.
    bool Look() {
        if (input.is_terminal()) Try([this] { session.player().Look(); });
        return NotedSignal() == 0;
    }

    void Execute(const std::string& text, const std::string& trimmed) {
        ShowAll();
        const size_t middle = std::min(trimmed.find(' '), trimmed.size());
        const std::string command = trimmed.substr(0, middle);
        const std::string argument = android::base::Trim(trimmed.substr(middle));
        if (trimmed == "help") {
            std::cout << kHelp + android::base::Join(CompleteStep(""), ' ') << std::endl;
        } else if (command == "help") {
            std::cout << DescribeStep(argument) << std::flush;
        } else if (trimmed == "phone") {
            std::cout << session.simulation().folder().root() << std::endl;
        } else if (command == "save") {
            Save(argument);
        } else {
            Play(ParseStep(line, text));
        }
    }

    void Save(const std::string& path) {
        if (path.empty()) throw BadInput("save: expected the name of a file");
        Try([this] { session.player().AwaitQuiet(); });
        ShowAll();
        const auto own = saved_files.find(path);
        std::string found;
        std::error_code missing;
        if (std::filesystem::is_regular_file(path, missing) &&
            (own == saved_files.end() || !android::base::ReadFileToString(path, &found, true) ||
             found != own->second)) {
            throw BadInput("save: " + path +
                           ": exists: expected a new file, or one as this session has saved it");
        }
        size_t steps = 0;
        const std::string text = saved.Text(std::filesystem::absolute(path).parent_path(), &steps);
        if (!(std::ofstream(path, std::ios::binary) << text << std::flush)) {
            throw BadInput("save: " + path + ": cannot be written: " + strerrordesc_np(errno));
        }
        saved_files[path] = text;
        std::cout << "saved " + CountOf(steps, "step") + " to " + path << std::endl;
    }

    void Play(const Step& step) {
        StepPlayer& player = session.player();
        if (!step.has_exit()) Try([&] { player.Look(); });
        // Its responses are those that come next.
        while (step.has_push() && session.simulation().modem().Receive({})) {
        }
        saved.Begin(step);
        bool has_passed = false;
        const auto note = android::base::make_scope_guard([&] {
            ShowAll();
            saved.End(has_passed);
        });
        player.Play(step, step.has_exit());
        has_passed = true;
    }

    const Phone phone;
    SavedScenario saved;
    LineInput input;
    SessionWriters writers;
    Session session;
    // What was saved, by the names of the files.
    std::map<std::string, std::string> saved_files;
    // Number of the last line.
    size_t line = 0;
    int status = kPassed;
};

}  // namespace

void AddShellCommand(CLI::App* app, int* status) {
    CLI::App* shell = app->add_subcommand(
            "shell", "Boots a phone and plays steps, line by line from standard input");
    // The command lives as long as its callback.
    const auto options = std::make_shared<Options>();
    shell->add_option("--phone", options->phone_file, "The phone at boot, in a scenario's words");
    shell->add_option("--modem-state", options->modem_state,
                      "The modem's state at boot; 4: online");
    shell->add_option("--property", options->properties, "NAME=VALUE of a property at boot")
            ->allow_extra_args(false);
    shell->add_option("--file", options->files,
                      "PHONE_PATH=FILE: what FILE has is on the phone at boot")
            ->allow_extra_args(false);
    AddSessionOptions(shell, &options->session);
    shell->footer(kFooter);
    shell->callback([options, status] {
        CheckSessionOptions(options->session);
        *status = Shell(*options).Run();
    });
}

}  // namespace velmar_sim
