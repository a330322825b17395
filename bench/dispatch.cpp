#include "bench/dispatch.h"

#include <android/log.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <stdexcept>

#include "android-base/unique_fd.h"

#include "bench/bare_service.h"
#include "bench/contender.h"
#include "bench/messages.h"
#include "handler/velmar_message_handler.h"
#include "sim/phone/phone_state.h"

namespace velmar_bench {

namespace {

using velmar_message::VelmarMessage;

constexpr char kProduct[] = "product/";
constexpr char kBare[] = "bare/";
constexpr char kCoding[] = "coding/";

// A message handler without threads: the benchmark is its reader.
class ThreadlessHandler : public VelmarMessageHandler {
  public:
    ThreadlessHandler() {
        io_handler = std::make_unique<SitIoHandler>(this);
        service_handler = std::make_unique<VelmarServiceHandler>(this);
        request_list = new RequestList();
    }
};

// Formatting a line counts, what becomes of it does not.
void LoseLine(const __android_logger_data*, const char*) {}

class MedianKeeper : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name == "median") {
                medians[run.run_name.function_name] = run.GetAdjustedCPUTime();
            }
        }
    }
    double operator[](const std::string& name) const { return medians.at(name); }

  private:
    std::map<std::string, double> medians;
};

// Both write their answers to a channel of their own, from which the benchmark takes them.
template <typename Handle>
void HandleAndTakeAnswer(benchmark::State& state, const VelmarMessage& message,
                         const BareChannel& channel, const Handle& handle) {
    std::string bytes = message.SerializeAsString();
    const bool is_answered = message.type() == velmar_message::REQUEST;
    for (auto _ : state) {
        handle(bytes.data(), static_cast<int>(bytes.size()));
        if (is_answered) channel.Receive();
    }
}

// The answer to a message, as it was received; empty when there is none.
std::string AnswerTo(const VelmarMessage& message, const BareService& service,
                     const BareChannel& channel) {
    const std::string bytes = message.SerializeAsString();
    service.Handle(bytes.data(), static_cast<int>(bytes.size()));
    return message.type() == velmar_message::REQUEST ? channel.Receive() : "";
}

void DecodeAndEncode(benchmark::State& state, const VelmarMessage& message,
                     const std::string& answer_bytes) {
    const std::string bytes = message.SerializeAsString();
    VelmarMessage answer;
    answer.ParseFromString(answer_bytes);
    std::string buffer(answer_bytes.size(), '\0');
    for (auto _ : state) {
        VelmarMessage decoded;
        decoded.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
        benchmark::DoNotOptimize(answer.ByteSizeLong());
        answer.SerializeToArray(buffer.data(), static_cast<int>(buffer.size()));
        benchmark::DoNotOptimize(decoded);
    }
}

void RunBenchmarks(MedianKeeper* keeper) {
    std::string arguments[] = {"velmar_bench", "--benchmark_enable_random_interleaving=true",
                               "--benchmark_repetitions=11", "--benchmark_min_time=0.02",
                               "--benchmark_report_aggregates_only=true"};
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    int count = static_cast<int>(pointers.size());
    benchmark::Initialize(&count, pointers.data());
    benchmark::RunSpecifiedBenchmarks(keeper);
}

}  // namespace

void MeasureDispatch(const std::string& folder, Report* report) {
    const velmar_sim::PhoneFolder phone(folder);
    phone.SetProperty(kPropertyName, kPropertyValue);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread looks at it.
    setenv(velmar_phone::kRootVariable, phone.root().c_str(), 1);
    __android_log_set_logger(LoseLine);

    BareChannel channel(phone);
    const android::base::unique_fd bare_end(open(velmar_phone::kChannelDevice, O_RDWR));
    channel.Accept();
    const BareService bare(bare_end.get());

    BareChannel product_channel(phone);
    ThreadlessHandler product;
    const auto handle_by_product = [&](char* data, int length) {
        product.ProcessReceivedMessage(data, static_cast<unsigned int>(length));
    };
    // The first answer opens the channel.
    std::string first = AbsentPropertyRead().SerializeAsString();
    handle_by_product(first.data(), static_cast<int>(first.size()));
    product_channel.Accept();
    product_channel.Receive();

    const std::vector<MessageKind> kinds = OneOfEachKind();
    for (const MessageKind& kind : kinds) {
        const VelmarMessage& message = kind.message;
        const std::string answer = AnswerTo(message, bare, channel);
        benchmark::RegisterBenchmark(
                (std::string(kProduct) + kind.name).c_str(), [&](benchmark::State& state) {
                    HandleAndTakeAnswer(state, message, product_channel, handle_by_product);
                });
        benchmark::RegisterBenchmark(
                (std::string(kBare) + kind.name).c_str(), [&](benchmark::State& state) {
                    HandleAndTakeAnswer(state, message, channel, [&](const char* data, int length) {
                        bare.Handle(data, length);
                    });
                });
        benchmark::RegisterBenchmark((std::string(kCoding) + kind.name).c_str(),
                                     [&message, answer](benchmark::State& state) {
                                         DecodeAndEncode(state, message, answer);
                                     });
    }
    MedianKeeper keeper;
    RunBenchmarks(&keeper);
    for (const MessageKind& kind : kinds) {
        report->Add("dispatch, " + std::string(kind.name) + ", ns",
                    keeper[kProduct + std::string(kind.name)],
                    keeper[kBare + std::string(kind.name)], "");
    }
    for (const MessageKind& kind : kinds) {
        // Beside what files cost, coding is nothing.
        if (kind.needs_files) continue;
        report->Add("beside coding alone, " + std::string(kind.name) + ", ns",
                    keeper[kProduct + std::string(kind.name)],
                    keeper[kCoding + std::string(kind.name)], "");
    }
}

}  // namespace velmar_bench
