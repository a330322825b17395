#include "bench/dispatch.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "android-base/unique_fd.h"

#include "bench/bare_service.h"
#include "bench/candidate.h"
#include "bench/comparison.h"
#include "bench/messages.h"
#include "handler/velmar_message_handler.h"

namespace velmar_bench {

namespace {

using velmar_message::VelmarMessage;

constexpr double kNanosecondsPerMicrosecond = 1000;
// Messages in one operation, so that reading the clock does not count.
constexpr int kMessages = 2000;
constexpr int kMessagesWithFiles = 50;

constexpr size_t kMaxResponse = 256;

// A message handler without threads: the benchmark is its reader.
class ThreadlessHandler : public VelmarMessageHandler {
  public:
    ThreadlessHandler() {
        io_handler = std::make_unique<SitIoHandler>(this);
        service_handler = std::make_unique<VelmarServiceHandler>(this);
        request_list = new RequestList();
    }
};

void DecodeAndEncode(const std::string& bytes, const VelmarMessage& response) {
    VelmarMessage decoded;
    decoded.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
    char buffer[kMaxResponse];
    const size_t size = response.ByteSizeLong();
    response.SerializeToArray(buffer, static_cast<int>(size));
}

}  // namespace

void MeasureDispatch(int rounds) {
    const velmar_sim::PhoneFolder phone;
    phone.SetProperty("ro.product.model", "Phone");
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread looks at it.
    setenv(velmar_phone::kRootVariable, phone.root().c_str(), 1);
    BareChannel bare_channel(phone);
    const android::base::unique_fd bare_end(open(velmar_phone::kChannelDevice, O_RDWR));
    bare_channel.Accept();
    BareChannel product_channel(phone);
    ThreadlessHandler product;
    // The first response opens the channel.
    std::string first = Encode(kAbsentRead);
    product.ProcessReceivedMessage(first.data(), first.size());
    product_channel.Accept();
    product_channel.Receive();

    for (const MessageKind& kind : kKinds) {
        std::string bytes = Encode(kind.text);
        const int length = static_cast<int>(bytes.size());
        const bool has_response = std::string(kind.text).rfind("type: REQUEST", 0) == 0;
        VelmarMessage response;
        if (has_response) {
            HandleBare(bare_end, bytes.data(), length);
            response.ParseFromString(bare_channel.Receive());
        }
        const int messages = kind.needs_files ? kMessagesWithFiles : kMessages;
        const auto side = [messages](const auto& handle) {
            const auto repeat = [handle, messages] {
                for (int i = 0; i < messages; ++i) handle();
            };
            return Side{repeat, getpid()};
        };
        const auto all = TakeTurns({side([&] {
                                        product.ProcessReceivedMessage(bytes.data(), bytes.size());
                                        if (has_response) product_channel.Receive();
                                    }),
                                    side([&] {
                                        HandleBare(bare_end, bytes.data(), length);
                                        if (has_response) bare_channel.Receive();
                                    }),
                                    side([&] { DecodeAndEncode(bytes, response); })},
                                   rounds, 1);
        const auto nanoseconds = [&](int i) {
            return Quantile(all[i].processor_us) * kNanosecondsPerMicrosecond / messages;
        };
        PrintRow(std::string("dispatch, ") + kind.name + ", ns", nanoseconds(0), nanoseconds(1));
        // Beside what files cost, coding is nothing.
        if (kind.needs_files) continue;
        PrintRow(std::string("beside coding alone, ") + kind.name + ", ns", nanoseconds(0),
                 nanoseconds(2));
    }
}

}  // namespace velmar_bench
