#include "sim/tool/preview_command.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "android-base/strings.h"
#include "google/protobuf/stubs/strutil.h"

#include "sim/tool/bad_input.h"
#include "sim/tool/config_lines.h"
#include "sim/tool/interruption.h"
#include "sim/tool/message_text.h"
#include "sim/tool/session.h"

namespace velmar_sim {

namespace {

using std::chrono::milliseconds;

constexpr int kServiceEnded = 3;

constexpr char kFooter[] =
        "Exit status: 0 all is sent as it is written, 1 warnings or lines that are not sent, 2 bad "
        "usage or a file that cannot be used, 3 the service ended.";

constexpr int kOnline = 4;
constexpr int kOffline = 0;
// The first line about the last of the three configurations, and the first one after it.
constexpr char kGnssBegin[] = "Configuring GNSS coex";
constexpr char kGnssEnd[] = "Modem state changed from 4 to 0";

// The service drops a response that comes before it has noted its request. The modem responds at
// once, and again for the case that this was too early.
constexpr uint32_t kResponsesAgainMs[] = {1, 5, 50};
// The service itself waits for 5 s at most.
constexpr milliseconds kTimeout{10000};
constexpr milliseconds kLookInterval{20};

// Texts up to this width are aligned.
constexpr size_t kMaxAlignedText = 40;

// In this folder of the phone.
constexpr char kConfigFolder[] = "/data/vendor/radio/";

struct ConfigFile {
    ConfigKind kind;
    // For --as.
    const char* kind_name;
    const char* name;
};

constexpr ConfigFile kConfigFiles[] = {
        {ConfigKind::kStatistics, "statistics", "modem_stat.conf"},
        {ConfigKind::kLogging, "logging", "modem_userspace_logging.conf"},
        {ConfigKind::kGnss, "gnss", "gnss_blanking.csv"},
};

struct Options {
    std::vector<std::string> paths;
    std::string as;
    SessionOptions session;
};

// A file of the workstation.
struct Input {
    std::string path;
    const ConfigFile* config;
    std::string text;
};

const ConfigFile* FindConfig(const std::string& path, const std::string& as) {
    const std::string name = std::filesystem::path(path).filename();
    std::string names;
    for (const ConfigFile& config : kConfigFiles) {
        if (as.empty() ? name == config.name : as == config.kind_name) return &config;
        names += std::string(config.name) + ", ";
    }
    throw BadInput(path + ": expected a file named " + names + "or the option --as");
}

Input ReadConfig(const std::string& path, const std::string& as) {
    Input input = {path, FindConfig(path, as), ReadInput(path)};
    int number = 0;
    for (const std::string& line : android::base::Split(input.text, "\n")) {
        const std::string place = path + ":" + std::to_string(++number) + ": ";
        if (line.find('\0') != std::string::npos) {
            throw BadInput(place + "expected text, found a byte 0");
        }
        if (input.config->kind == ConfigKind::kGnss && line.size() > kMaxGnssLine) {
            throw BadInput(place + "expected a line of at most " + CountOf(kMaxGnssLine, "byte") +
                           ", found " + std::to_string(line.size()));
        }
    }
    return input;
}

// A phone whose modem is online at boot, and whose radio responds before the service begins to
// wait.
Phone MakePhone(const Input& input) {
    Phone phone;
    phone.set_modem_state(kOnline);
    File* file = phone.add_file();
    file->set_path(std::string(kConfigFolder) + input.config->name);
    file->set_content(input.text);
    phone.set_no_radio_library(input.config->kind != ConfigKind::kGnss);
    RadioResponse* response = phone.mutable_radio()->add_answer();
    response->set_early(true);
    response->set_delay_ms(0);
    return phone;
}

// "SIGABRT: " and what the service wrote outside of its log.
std::string DescribeEnd(int status, const std::vector<LogLine>& log) {
    std::string text = ChildProcess::DescribeEnd(status);
    const char* separator = ": ";
    for (const LogLine& line : log) {
        if (line.tag != kStandardErrorTag) continue;
        text += std::exchange(separator, " ") + android::base::Trim(line.text);
    }
    return text;
}

std::string Padded(std::string text, size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

// Plays one configuration, and prints its rows as they come.
class Preview {
  public:
    Preview(const Input& config, const SessionOptions& options)
        : input(config),
          factor(options.time_factor),
          rows(config.config->kind, config.text),
          writers(options),
          phone(MakePhone(config)),
          session(config.path, phone, options, writers) {
        for (const ConfigRow& row : rows.all()) {
            place_width = std::max(place_width, PlaceOf(row).size());
            const size_t size = TextOf(row).size();
            if (size <= kMaxAlignedText) text_width = std::max(text_width, size);
        }
    }

    // Returns the exit status that the rows stand for.
    int Play() {
        Simulation& simulation = session.simulation();
        ResponsePolicy policy;
        policy.set_delay_ms(0);
        for (const uint32_t delay : kResponsesAgainMs) {
            policy.add_again_ms(static_cast<uint32_t>(delay * factor));
        }
        simulation.modem().SetResponsePolicy(policy);

        const auto service = simulation.Start({"--server"}, nullptr);
        bool runs = AwaitLog(kGnssBegin, service.get());
        if (runs && input.config->kind == ConfigKind::kGnss) {
            // The service logs nothing when it has done with it, but then looks for the modem's
            // state.
            simulation.modem().SetState(kOffline);
            runs = AwaitLog(kGnssEnd, service.get());
        }
        if (runs) service->Kill();
        Look("");
        rows.Finish(runs ? ""
                         : DescribeEnd(service->wait_status(), simulation.log().Last(SIZE_MAX)));
        if (rows.all().empty()) std::cout << input.path << ": nothing is sent" << std::endl;
        Show(rows.all().size());
        return status;
    }

  private:
    std::string PlaceOf(const ConfigRow& row) const {
        return input.path + ":" + std::to_string(row.line) + ": ";
    }

    static std::string TextOf(const ConfigRow& row) {
        return google::protobuf::strings::Utf8SafeCEscape(row.text);
    }

    // Waits for the log line; false when the service has ended.
    bool AwaitLog(const std::string& text, ChildProcess* service) {
        const auto matches = [&text](const LogLine& line) { return line.text == text; };
        const milliseconds timeout(static_cast<milliseconds::rep>(kTimeout.count() * factor));
        while (!Look(text)) {
            ThrowIfInterrupted();
            if (!service->IsRunning()) return false;
            if (session.events().QuietTime() > timeout) {
                throw BadInput("--velmar: expected the service to log \"" + text +
                               "\", it has been silent for " + std::to_string(timeout.count()) +
                               " ms");
            }
            session.simulation().log().Find(seen_lines, matches, kLookInterval);
        }
        return true;
    }

    // Shows what has come since the last look; whether there is a log line `text` in it.
    bool Look(const std::string& text) {
        Simulation& simulation = session.simulation();
        ConfigNews news;
        // The log first: what was sent before its last line has come then.
        news.log = simulation.log().From(seen_lines);
        seen_lines += news.log.size();
        while (const auto message = simulation.modem().Receive(milliseconds(0))) {
            news.messages.push_back(message->message);
        }
        while (const auto request = simulation.radio().Take()) {
            news.radio_requests.push_back(*request);
        }
        Show(rows.Take(news));
        return std::any_of(news.log.begin(), news.log.end(),
                           [&text](const LogLine& line) { return line.text == text; });
    }

    // Prints the first `count` rows, as far as they were not printed before.
    void Show(size_t count) {
        for (; shown < count; ++shown) {
            const ConfigRow& row = rows.all()[shown];
            std::cout << Padded(PlaceOf(row), place_width) << Padded(TextOf(row), text_width)
                      << "   " << row.result << (row.warnings.empty() ? "" : "  warning: ")
                      << android::base::Join(row.warnings, "; ") << "\n";
            if (!row.is_sent || !row.warnings.empty()) status = std::max(status, kFailed);
            if (row.ends_service) status = kServiceEnded;
        }
        std::cout << std::flush;
    }

    const Input& input;
    const double factor;
    ConfigRows rows;
    const SessionWriters writers;
    const Phone phone;
    Session session;
    size_t place_width = 0;
    size_t text_width = 0;
    size_t seen_lines = 0;
    size_t shown = 0;
    int status = kPassed;
};

int PreviewAll(const Options& options) {
    CheckSessionOptions(options.session);
    std::vector<Input> inputs;
    for (const std::string& path : options.paths) inputs.push_back(ReadConfig(path, options.as));
    int status = kPassed;
    for (const Input& input : inputs) {
        status = std::max(status, Preview(input, options.session).Play());
    }
    return status;
}

}  // namespace

void AddPreviewCommand(CLI::App* app, int* status) {
    CLI::App* preview = app->add_subcommand(
            "preview", "Shows what the service sends for each line of a configuration");
    // The command lives as long as its callback.
    const auto options = std::make_shared<Options>();
    preview->add_option("FILE", options->paths,
                        "Configurations, each on a fresh simulated phone; - is standard input")
            ->required();
    std::vector<std::string> kinds;
    for (const ConfigFile& config : kConfigFiles) kinds.emplace_back(config.kind_name);
    preview->add_option("--as", options->as, "What the files are, whatever their names")
            ->check(CLI::IsMember(kinds));
    options->session.quiet = true;
    AddServiceOptions(preview, &options->session);
    preview->footer(kFooter);
    preview->callback([options, status] { *status = PreviewAll(*options); });
}

}  // namespace velmar_sim
