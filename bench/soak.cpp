// Keeps the service busy for a while with all that a modem and a phone do, and holds it to one
// right answer a request, to the files' contents, and to the memory, descriptors and threads that
// it had at first.

#include <cstdint>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>

#include "CLI/CLI.hpp"

#include "bench/service_phone.h"
#include "bench/soak_log.h"
#include "bench/soak_traffic.h"
#include "sim/modem/temporary_folder.h"

namespace velmar_bench {

namespace {

using velmar_sim::Clock;

constexpr int kFailed = 1;
constexpr int kBadInput = 2;

constexpr std::chrono::minutes kLongestWarmUp{1};
constexpr std::chrono::milliseconds kClientPeriod{700};
constexpr std::chrono::milliseconds kDisturbancePeriod{2000};
constexpr int kStepsBetweenLooks = 50;

constexpr size_t kServiceThreads = 3;
constexpr std::chrono::seconds kRestLimit{5};
constexpr std::chrono::milliseconds kRestPoll{5};

// What the heap may differ by between two moments at which nothing is in progress: the allocator
// gives memory back in pieces of this size.
constexpr int64_t kHeapSlackKib = 128;
// The record of a request of its own, which the service keeps for ever.
constexpr int64_t kKeptBytesOfRequest = 32;

struct Options {
    std::string velmar = ProgramBesideThis("velmar");
    double minutes = 1;
    uint64_t seed = 1;
    bool sanitized = false;
};

class Soak {
  public:
    explicit Soak(const Options& chosen)
        : options(chosen),
          duration(std::chrono::duration_cast<Clock::duration>(
                  std::chrono::duration<double, std::ratio<60>>(options.minutes))),
          phone(folder.path(), nullptr),
          traffic(options.velmar, options.seed, &phone, &log) {}

    // Gives the exit status.
    int Run() {
        try {
            Play();
            Finish();
            return 0;
        } catch (const std::exception& error) {
            std::cerr << "velmar_soak: FAILED after " << traffic.counts().messages
                      << " messages (--seed " << options.seed << "): " << error.what()
                      << EndOfService() << "\n  last log lines:\n"
                      << log.LastLines();
            return kFailed;
        }
    }

  private:
    // What to add to a failure when the service has ended, whatever showed it first.
    std::string EndOfService() {
        if (traffic.service().IsRunning()) return "";
        return "; the service has ended with " +
               velmar_sim::ChildProcess::DescribeEnd(traffic.service().wait_status());
    }

    void Play() {
        const auto begin = Clock::now();
        const auto warm = begin + std::min<Clock::duration>(duration / 4, kLongestWarmUp);
        auto client_due = begin;
        auto disturbance_due = begin;
        for (auto now = begin; now < begin + duration; now = Clock::now()) {
            for (int i = 0; i < kStepsBetweenLooks; ++i) traffic.Step();
            log.Check();
            if (now >= client_due) {
                traffic.RunClient();
                client_due = Clock::now() + kClientPeriod;
            }
            if (now >= disturbance_due) {
                Disturb();
                disturbance_due = Clock::now() + kDisturbancePeriod;
            }
            if (now >= warm && at_first.threads == 0) {
                traffic.Settle();
                traffic.LeaveOutWhatIsKept();
                at_first = FiguresAtRest();
                requests_at_first = traffic.counts().service_requests;
            }
        }
        traffic.Settle();
    }

    void Disturb() {
        if (disturbances++ % 3 == 2) {
            traffic.LoseChannel();
        } else {
            traffic.RestartModem();
        }
    }

    void Finish() {
        const ProcessFigures in_the_end = FiguresAtRest();
        if (!options.sanitized) RequireMemory(in_the_end);
        RequireEqual("descriptors", in_the_end.descriptors, at_first.descriptors);
        PrintSummary(in_the_end);
    }

    void RequireMemory(const ProcessFigures& in_the_end) const {
        const auto requests =
                static_cast<int64_t>(traffic.counts().service_requests - requests_at_first);
        const int64_t allowed_kib = kHeapSlackKib + requests * kKeptBytesOfRequest / 1024;
        RequireAtMost("resident KiB", in_the_end.rss_kib, at_first.rss_kib + allowed_kib);
        RequireAtMost("anonymous KiB", in_the_end.anonymous_kib,
                      at_first.anonymous_kib + allowed_kib);
    }

    void PrintSummary(const ProcessFigures& in_the_end) const {
        const SoakCounts& counts = traffic.counts();
        std::cout << "velmar_soak: PASSED in " << options.minutes << " minutes: " << counts.messages
                  << " messages, " << counts.answers << " answered, " << counts.indications
                  << " indications, " << counts.dropped << " dropped; " << counts.files
                  << " files of " << (counts.file_bytes >> 20) << " MiB in all; "
                  << counts.service_requests << " requests of the service; "
                  << counts.modem_restarts << " modem restarts, " << counts.channel_losses
                  << " losses of the channel, " << counts.client_runs << " client runs; KiB "
                  << at_first.rss_kib << " to " << in_the_end.rss_kib << " resident, "
                  << at_first.anonymous_kib << " to " << in_the_end.anonymous_kib << " anonymous, "
                  << at_first.pss_kib << " to " << in_the_end.pss_kib << " proportional; "
                  << in_the_end.descriptors << " descriptors, " << in_the_end.threads
                  << " threads\n";
    }

    // The radio's library answers on a thread of its own, which may still be there.
    ProcessFigures FiguresAtRest() {
        const auto limit = Clock::now() + kRestLimit;
        ProcessFigures figures = FiguresOf(traffic.service().id());
        if (options.sanitized) return figures;
        for (; figures.threads != kServiceThreads; figures = FiguresOf(traffic.service().id())) {
            if (Clock::now() > limit) RequireEqual("threads", figures.threads, kServiceThreads);
            std::this_thread::sleep_for(kRestPoll);
        }
        return figures;
    }

    static void RequireAtMost(const std::string& what, int64_t actual, int64_t limit) {
        if (actual <= limit) return;
        throw std::runtime_error(what + ": expected at most " + std::to_string(limit) + ", found " +
                                 std::to_string(actual));
    }

    static void RequireEqual(const std::string& what, size_t actual, size_t expected) {
        if (actual == expected) return;
        throw std::runtime_error(what + ": expected " + std::to_string(expected) +
                                 " as at first, " + "found " + std::to_string(actual));
    }

    const Options options;
    const Clock::duration duration;
    velmar_sim::TemporaryFolder folder;
    ServicePhone phone;
    SoakLog log;
    SoakTraffic traffic;
    ProcessFigures at_first;
    uint64_t requests_at_first = 0;
    int disturbances = 0;
};

int RunSoak(int argc, char** argv) {
    Options options;
    CLI::App app("Keeps velmar busy in a simulated phone, and checks that it stays as it was.");
    app.add_option("--velmar", options.velmar, "The service's executable")
            ->check(CLI::ExistingFile)
            ->capture_default_str();
    app.add_option("--minutes", options.minutes, "How long")
            ->check(CLI::Range(0.05, 100000.0))
            ->capture_default_str();
    app.add_option("--seed", options.seed, "The same seed picks the same traffic")
            ->capture_default_str();
    app.add_flag("--sanitized", options.sanitized,
                 "Leave out memory and threads, of which a sanitizer has some of its own");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kBadInput;
    }
    return Soak(options).Run();
}

}  // namespace

}  // namespace velmar_bench

int main(int argc, char** argv) {
    try {
        return velmar_bench::RunSoak(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "velmar_soak: " << error.what() << "\n";
        return velmar_bench::kFailed;
    }
}
