// Measures the service beside baselines that do only what cannot be left out, and works of the
// simulator beside smaller ones, and prints a table for each.

#include <chrono>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "CLI/CLI.hpp"

#include "bench/candidate.h"
#include "bench/comparison.h"
#include "bench/dispatch.h"
#include "bench/messages.h"
#include "bench/simulator.h"
#include "sim/tool/process_figures.h"

namespace velmar_bench {

namespace {

using std::chrono::steady_clock;
using velmar_sim::FiguresOf;

constexpr int kOnline = 4;
constexpr int kOffline = 0;
constexpr int kRequests = 500;
constexpr int kIndications = 2000;
constexpr size_t kFileSize = size_t{64} << 20;
constexpr double kPerMillisecond = 1000;

// While the modem is offline the reader looks every 2 s, the monitor every 3 s.
constexpr double kLooksASecond = 1.0 / 2 + 1.0 / 3;

struct Options {
    std::filesystem::path programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    int starts = 200;
    int rounds = 31;
    int idle_seconds = 60;
    bool simulator_only = false;
};

class Bench {
  public:
    explicit Bench(const Options& chosen) : options(chosen) {}

    void Run() {
        PrintHeading("product", "baseline", "ratio");
        MeasureStarts();
        MeasureRequests();
        MeasureFile();
        MeasureBurst("extended log indications", kExtendedLog);
        MeasureBurst("user-space log indications", kUserspaceLog);
        PrintMemory("after the traffic");
        PrintRow("executable, KiB", KibOf(velmar), KibOf(velmar_bare));
        MeasureWakeUps();
    }

  private:
    // From the start of the program to the response to its first message.
    void MeasureStarts() {
        std::vector<double> times[2];
        for (int start = 0; start < options.starts; ++start) {
            for (Candidate* candidate : {&product, &bare}) {
                const auto begin = steady_clock::now();
                candidate->Start();
                const std::chrono::duration<double, std::milli> taken = steady_clock::now() - begin;
                times[candidate == &bare ? 1 : 0].push_back(taken.count());
                candidate->Stop();
            }
        }
        const std::string what = "start to first response, ";
        PrintRow(what + "median, ms", Quantile(times[0]), Quantile(times[1]));
        PrintRow(what + "slowest, ms", Quantile(times[0], 1), Quantile(times[1], 1));
        PrintRow(what + "slowest, beside a median", Quantile(times[0], 1), Quantile(times[1]),
                 "3.00");
        product.Start();
        bare.Start();
        fixed.Start();
        idle.StartIdle();
        offline.StartIdle();
        // What does nothing has done all of it by now.
        std::this_thread::sleep_for(std::chrono::seconds(1));
        PrintMemory("after the start");
    }

    void MeasureRequests() {
        const auto side = [](const Candidate& candidate) {
            const auto exchange = [&candidate, request = Encode(kAbsentRead),
                                   response = Encode(kAbsentResponse)] {
                candidate.channel().Exchange(request, response);
            };
            return Side{exchange, candidate.id()};
        };
        const auto all =
                TakeTurns({side(product), side(bare), side(fixed)}, options.rounds, kRequests);
        const std::string what = "request to response, ";
        const double medians[] = {Quantile(all[0].wall_us), Quantile(all[1].wall_us)};
        PrintRow(what + "median, us", medians[0], medians[1], "1.15");
        PrintRow(what + "99th of 100, us", Quantile(all[0].wall_us, 0.99),
                 Quantile(all[1].wall_us, 0.99));
        PrintRow(what + "a second", 1e6 / medians[0], 1e6 / medians[1]);
        PrintRow(what + "processor time, us", Quantile(all[0].processor_us),
                 Quantile(all[1].processor_us), "1.15");
        PrintRow("the same beside a fixed response, median, us", medians[0],
                 Quantile(all[2].wall_us));
    }

    // Prints what an operation of the service and of its baseline takes, divided by `divisor`.
    void Compare(const std::string& what, const std::string& unit, double divisor,
                 const char* wanted, const std::function<void(const Candidate&)>& work) {
        const auto side = [&work](const Candidate& candidate) {
            return Side{[&] { work(candidate); }, candidate.id()};
        };
        const auto all = TakeTurns({side(product), side(bare)}, options.rounds, 1);
        PrintRow(what + ", " + unit, Quantile(all[0].wall_us) / divisor,
                 Quantile(all[1].wall_us) / divisor, wanted);
        PrintRow(what + ", processor time, " + unit, Quantile(all[0].processor_us) / divisor,
                 Quantile(all[1].processor_us) / divisor, wanted);
    }

    void MeasureFile() {
        std::vector<std::string> chunks;
        for (size_t offset = 0; offset < kFileSize; offset += kChunkSize) {
            chunks.push_back(
                    EncodeChunk(kFileSize, offset, std::min(kChunkSize, kFileSize - offset)));
        }
        const std::string response = Encode(kChunkResponse);
        Compare("file of 64 MiB", "ms", kPerMillisecond, "1.10", [&](const Candidate& candidate) {
            for (const std::string& chunk : chunks) candidate.channel().Exchange(chunk, response);
        });
        for (const Candidate* candidate : {&product, &bare}) {
            const auto stored = candidate->folder().HostPath(std::string(velmar_sim::kMdsFiles) +
                                                             "/" + kFileName);
            if (std::filesystem::file_size(stored) != kFileSize) {
                throw std::runtime_error(stored + ": expected a file of 64 MiB");
            }
            std::filesystem::remove(stored);
        }
    }

    void MeasureBurst(const std::string& what, const char* text) {
        const std::string message = Encode(text);
        const std::string request = Encode(kAbsentRead);
        const std::string response = Encode(kAbsentResponse);
        Compare(what, "us each", kIndications, "", [&](const Candidate& candidate) {
            for (int i = 0; i < kIndications; ++i) candidate.channel().Send(message);
            // Its response comes after all that was sent before it is done.
            candidate.channel().Exchange(request, response);
        });
    }

    void PrintMemory(const std::string& when) {
        PrintRow("resident memory " + when + ", KiB", FiguresOf(product.id()).resident_kib,
                 FiguresOf(idle.id()).resident_kib, "1.30");
    }

    static double KibOf(const std::string& path) {
        return static_cast<double>(std::filesystem::file_size(path)) / 1024;
    }

    // How often the threads wake up without any message, with the modem online and offline; in the
    // meantime there is other work.
    void MeasureWakeUps() {
        const auto begin = steady_clock::now();
        const int online_before = FiguresOf(product.id()).sleeps;
        const int offline_before = FiguresOf(offline.id()).sleeps;
        MeasureDispatch(options.rounds);
        std::this_thread::sleep_until(begin + std::chrono::seconds(options.idle_seconds));
        const std::chrono::duration<double> taken = steady_clock::now() - begin;
        const std::string what =
                "wake-ups in " + std::to_string(static_cast<int>(taken.count())) + " s, modem ";
        PrintRow(what + "online", FiguresOf(product.id()).sleeps - online_before, 0, "0");
        PrintRow(what + "offline, beside required", FiguresOf(offline.id()).sleeps - offline_before,
                 taken.count() * kLooksASecond, "1.00");
    }

    const Options options;
    const std::string velmar = options.programs / "velmar";
    const std::string velmar_bare = options.programs / "velmar_bare";
    Candidate product{velmar, "--server", kOnline};
    Candidate bare{velmar_bare, "serve", kOnline};
    Candidate fixed{velmar_bare, "fixed", kOnline};
    Candidate idle{velmar_bare, "idle", kOnline};
    Candidate offline{velmar, "--server", kOffline};
};

}  // namespace

}  // namespace velmar_bench

int main(int argc, char** argv) try {
    velmar_bench::Options options;
    CLI::App app("Measures velmar beside baselines, in simulated phones.");
    app.option_defaults()->always_capture_default();
    app.add_option("--programs", options.programs, "The folder of velmar and velmar_bare")
            ->check(CLI::ExistingDirectory);
    app.add_option("--starts", options.starts, "How often each is started")
            ->check(CLI::Range(1, 100000));
    app.add_option("--rounds", options.rounds, "How many turns each has")
            ->check(CLI::Range(1, 10000));
    app.add_option("--idle-seconds", options.idle_seconds, "For how long wake-ups are counted")
            ->check(CLI::Range(1, 86400));
    app.add_flag("--simulator-only", options.simulator_only, "Leave out the service's table");
    CLI11_PARSE(app, argc, argv);
    if (!options.simulator_only) velmar_bench::Bench(options).Run();
    velmar_bench::MeasureSimulator(
            std::filesystem::read_symlink("/proc/self/exe").replace_filename("velmar_sim"),
            options.programs / "velmar");
    return 0;
} catch (const std::exception& error) {
    std::cerr << "velmar_bench: " << error.what() << "\n";
    return 1;
}
