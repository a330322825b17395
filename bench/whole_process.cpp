#include "bench/whole_process.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "bench/messages.h"

namespace velmar_bench {

namespace {

using std::chrono::duration;
using std::chrono::steady_clock;

constexpr int kOnline = 4;
constexpr int kOffline = 0;
constexpr int kRequestsInARound = 500;
constexpr int kIndicationsInABurst = 2000;
constexpr size_t kFileSize = size_t{64} << 20;
constexpr double kMicrosecondsPerMillisecond = 1000;

// While the modem is offline the reader looks every 2 s, the monitor every 3 s.
constexpr int kReaderSeconds = 2;
constexpr int kMonitorSeconds = 3;

double MicrosecondsOf(std::chrono::nanoseconds time) {
    return duration<double, std::micro>(time).count();
}

// The chunks of a whole file, as they are sent.
std::vector<std::string> ChunksOfFile() {
    std::vector<std::string> chunks;
    for (size_t offset = 0; offset < kFileSize; offset += kChunkSize) {
        const std::string content(std::min(kChunkSize, kFileSize - offset), 'c');
        chunks.push_back(FileRequest(kFileSize, offset, content).SerializeAsString());
    }
    return chunks;
}

}  // namespace

WholeProcess::WholeProcess(const std::string& folder, const Programs& programs, int round_count,
                           Report* to)
    : rounds(round_count),
      report(to),
      product(folder + "/product", {programs.velmar, "--server"}, kOnline),
      bare(folder + "/bare", {programs.bare, "serve"}, kOnline),
      fixed(folder + "/fixed", {programs.bare, "fixed"}, kOnline),
      idle(folder + "/idle", {programs.bare, "idle"}, kOnline),
      offline(folder + "/offline", {programs.velmar, "--server"}, kOffline) {}

WholeProcess::Samples WholeProcess::Round(const Contender& contender, const Work& work) const {
    Samples samples;
    const auto begin = contender.ProcessorTime();
    work(contender, &samples.wall_us);
    const auto used = MicrosecondsOf(contender.ProcessorTime() - begin);
    samples.processor_us.push_back(used / static_cast<double>(samples.wall_us.size()));
    return samples;
}

std::vector<WholeProcess::Samples> WholeProcess::TakeTurns(
        const std::vector<const Contender*>& contenders, const Work& work) const {
    std::vector<Samples> all(contenders.size());
    for (int round = -1; round < rounds; ++round) {
        for (size_t i = 0; i < contenders.size(); ++i) {
            const Samples samples = Round(*contenders[i], work);
            // The first round warms up.
            if (round < 0) continue;
            all[i].wall_us.insert(all[i].wall_us.end(), samples.wall_us.begin(),
                                  samples.wall_us.end());
            all[i].processor_us.push_back(samples.processor_us.front());
        }
    }
    return all;
}

void WholeProcess::MeasureStart() {
    // Has done all that it does by the time that it is looked at.
    idle.StartIdle();
    std::vector<double> times[2];
    for (int round = 0; round < rounds; ++round) {
        for (Contender* contender : {&product, &bare}) {
            const auto begin = steady_clock::now();
            contender->Start();
            times[contender == &bare ? 1 : 0].push_back(
                    MicrosecondsOf(steady_clock::now() - begin));
            contender->Stop();
        }
    }
    report->Add("start to first answer, median, ms",
                Quantile(times[0]) / kMicrosecondsPerMillisecond,
                Quantile(times[1]) / kMicrosecondsPerMillisecond, "");
    report->Add("start to first answer, slowest, ms",
                Quantile(times[0], 1) / kMicrosecondsPerMillisecond,
                Quantile(times[1], 1) / kMicrosecondsPerMillisecond, "");
    product.Start();
    bare.Start();
    fixed.Start();
    AddMemory("after the start");
}

void WholeProcess::MeasureRequests() {
    const std::string request = AbsentPropertyRead().SerializeAsString();
    const std::string answer = AnswerToAbsentPropertyRead().SerializeAsString();
    const auto work = [&](const Contender& contender, std::vector<double>* times) {
        for (int i = 0; i < kRequestsInARound; ++i) {
            const auto begin = steady_clock::now();
            contender.Exchange(request, answer);
            times->push_back(MicrosecondsOf(steady_clock::now() - begin));
        }
    };
    const auto all = TakeTurns({&product, &bare, &fixed}, work);
    const auto add = [&](const std::string& what, auto figure, const std::string& wanted) {
        report->Add("request to answer, " + what, figure(all[0]), figure(all[1]), wanted);
    };
    add(
            "median, us", [](const Samples& s) { return Quantile(s.wall_us); }, "1.15");
    add(
            "99th of 100, us", [](const Samples& s) { return Quantile(s.wall_us, 0.99); }, "");
    add(
            "a second", [](const Samples& s) { return 1e6 / Quantile(s.wall_us); }, "");
    add(
            "processor time, us", [](const Samples& s) { return Quantile(s.processor_us); },
            "1.15");
    report->Add("the same beside a fixed answer, median, us", Quantile(all[0].wall_us),
                Quantile(all[2].wall_us), "");
}

void WholeProcess::MeasureFile() {
    const std::vector<std::string> chunks = ChunksOfFile();
    const std::string answer =
            AnswerToFilePart(FileRequest(kFileSize, 0, ""), velmar_message::FILE_RESULT_DEFAULT)
                    .SerializeAsString();
    const auto work = [&](const Contender& contender, std::vector<double>* times) {
        const auto begin = steady_clock::now();
        for (const std::string& chunk : chunks) contender.Exchange(chunk, answer);
        times->push_back(MicrosecondsOf(steady_clock::now() - begin));
    };
    const auto all = TakeTurns({&product, &bare}, work);
    for (const Contender* contender : {&product, &bare}) {
        const auto stored =
                contender->folder().HostPath(std::string(velmar_sim::kMdsFiles) + "/" + kFileName);
        if (std::filesystem::file_size(stored) != kFileSize) {
            throw std::runtime_error(stored + ": expected a file of 64 MiB");
        }
        std::filesystem::remove(stored);
    }
    report->Add("file of 64 MiB, ms", Quantile(all[0].wall_us) / kMicrosecondsPerMillisecond,
                Quantile(all[1].wall_us) / kMicrosecondsPerMillisecond, "1.10");
    report->Add("file of 64 MiB, processor time, ms",
                Quantile(all[0].processor_us) / kMicrosecondsPerMillisecond,
                Quantile(all[1].processor_us) / kMicrosecondsPerMillisecond, "1.10");
}

void WholeProcess::MeasureBurst(const std::string& what, const std::string& message, int count) {
    const std::string request = AbsentPropertyRead().SerializeAsString();
    const std::string answer = AnswerToAbsentPropertyRead().SerializeAsString();
    const auto work = [&](const Contender& contender, std::vector<double>* times) {
        const auto begin = steady_clock::now();
        for (int i = 0; i < count; ++i) contender.channel().Send(message);
        // Its answer comes after all that was sent before it is done.
        contender.Exchange(request, answer);
        times->push_back(MicrosecondsOf(steady_clock::now() - begin) / count);
    };
    const auto all = TakeTurns({&product, &bare}, work);
    report->Add(what + ", us each", Quantile(all[0].wall_us), Quantile(all[1].wall_us), "");
    report->Add(what + ", processor time, us each", Quantile(all[0].processor_us) / count,
                Quantile(all[1].processor_us) / count, "");
}

void WholeProcess::MeasureBursts() {
    MeasureBurst("extended log indications", ExtendedLog().SerializeAsString(),
                 kIndicationsInABurst);
    MeasureBurst("user-space log indications", UserspaceLog().SerializeAsString(),
                 kIndicationsInABurst);
}

void WholeProcess::AddMemory(const std::string& when) {
    report->Add("resident memory " + when + ", KiB", static_cast<double>(product.Figures().rss_kib),
                static_cast<double>(idle.Figures().rss_kib), "1.30");
}

void WholeProcess::MeasureMemory() {
    AddMemory("after the traffic");
}

void WholeProcess::MeasureSize(const Programs& programs) {
    const auto kib = [](const std::string& path) {
        return static_cast<double>(std::filesystem::file_size(path)) / 1024;
    };
    report->Add("executable, KiB", kib(programs.velmar), kib(programs.bare), "");
}

void WholeProcess::MeasureWakeUps(int seconds, const std::function<void()>& work) {
    offline.StartIdle();
    // Its start is not measured.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const auto begin = steady_clock::now();
    const int64_t online_before = product.Figures().sleeps;
    const int64_t offline_before = offline.Figures().sleeps;
    work();
    std::this_thread::sleep_until(begin + std::chrono::seconds(seconds));
    const auto taken = duration<double>(steady_clock::now() - begin).count();
    const auto required = taken / kReaderSeconds + taken / kMonitorSeconds;
    report->Add("wake-ups in " + std::to_string(static_cast<int>(taken)) + " s, modem online",
                static_cast<double>(product.Figures().sleeps - online_before), 0, "0");
    report->Add("wake-ups in " + std::to_string(static_cast<int>(taken)) +
                        " s, modem offline, beside required",
                static_cast<double>(offline.Figures().sleeps - offline_before), required, "1.00");
}

}  // namespace velmar_bench
