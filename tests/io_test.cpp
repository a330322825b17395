#include <errno.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "io/modem_state_monitor.h"
#include "io/sit_io_channel.h"
#include "io/sit_io_handler.h"
#include "phone_test_case.h"

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr size_t kLargestMessage = 65568;

class ChannelTest : public PhoneTestCase {
  protected:
    SitIoChannel channel;
    char buffer[16];
};

TEST_F(ChannelTest, ClosedChannelRefusesAndOpensOnce) {
    char data[] = "x";
    EXPECT_EQ(channel.GetFd(), -1);
    EXPECT_EQ(channel.ReadFromChannel(buffer, sizeof(buffer)), -1);
    EXPECT_EQ(channel.WriteToChannel(data, 1), -1);
    EXPECT_EQ(channel.CloseChannel(), 0);
    EXPECT_EQ(channel.OpenChannel(), 0);
    int fd = channel.GetFd();
    EXPECT_EQ(channel.OpenChannel(), 0);
    EXPECT_EQ(channel.GetFd(), fd);
    EXPECT_EQ(channel.ReadFromChannel(nullptr, 1), -1);
    EXPECT_EQ(channel.WriteToChannel(nullptr, 1), -1);
    EXPECT_EQ(channel.WriteToChannel(data, 0), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_FALSE(modem.Receive(milliseconds(50)));
}

TEST_F(ChannelTest, MissingDeviceIsLogged) {
    folder.Remove("/dev/oem_ipc1");
    EXPECT_EQ(channel.OpenChannel(), -1);
    EXPECT_LT(channel.GetFd(), 0);
    EXPECT_THAT(log.Lines(), ElementsAre("E Failed to open IO channel, fd: -1"));
}

TEST_F(ChannelTest, InterruptedAndPartialTransfersAreCarriedOn) {
    ASSERT_EQ(channel.OpenChannel(), 0);
    ASSERT_TRUE(modem.WaitForChannel(milliseconds(5000)));
    std::string bytes = Encode("type: RESPONSE token: 5 result: FAILURE");
    for (const char* call : {"write", "read"}) {
        injector.Add({call, "/dev/oem_ipc1", EINTR, 0, 2});
        injector.Add({call, "/dev/oem_ipc1", EAGAIN, 0, 2});
    }
    injector.Add({"write", "/dev/oem_ipc1", 0, 1, 2});
    EXPECT_EQ(channel.WriteToChannel(bytes.data(), static_cast<int>(bytes.size())), 0);
    auto received = modem.Receive(milliseconds(5000));
    ASSERT_TRUE(received);
    EXPECT_EQ(received->bytes, bytes);

    modem.SendBytes("hello");
    ASSERT_EQ(channel.ReadFromChannel(buffer, sizeof(buffer)), 5);
    EXPECT_EQ(std::string(buffer, 5), "hello");
}

TEST_F(ChannelTest, HardErrorsAndEndOfFileEndTheTransfer) {
    ASSERT_EQ(channel.OpenChannel(), 0);
    ASSERT_TRUE(modem.WaitForChannel(milliseconds(5000)));
    char data[] = "data";
    injector.Add({"write", "/dev/oem_ipc1", EIO});
    EXPECT_EQ(channel.WriteToChannel(data, 4), -1);
    injector.Add({"read", "/dev/oem_ipc1", EIO});
    EXPECT_EQ(channel.ReadFromChannel(buffer, sizeof(buffer)), -1);
    modem.SendEndOfFile();
    EXPECT_EQ(channel.ReadFromChannel(buffer, sizeof(buffer)), 0);
}

// Keeps what the reader hands on, and whether zeros follow it in the buffer.
class MessageKeeper : public TestHandler {
  public:
    struct Kept {
        size_t length;
        bool zeros_follow;
    };

    int ProcessReceivedMessage(void* data, unsigned int length) override {
        const char* bytes = static_cast<const char*>(data);
        bool zeros = std::all_of(bytes + length, bytes + kLargestMessage,
                                 [](char byte) { return byte == 0; });
        std::lock_guard<std::mutex> guard(lock);
        kept.push_back({length, zeros});
        reader_thread = pthread_self();
        changed.notify_all();
        return 0;
    }

    bool WaitFor(size_t count, milliseconds limit = milliseconds(5000)) {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, limit, [&] { return kept.size() >= count; });
    }

    std::mutex lock;
    std::condition_variable changed;
    std::vector<Kept> kept;
    pthread_t reader_thread;
};

// A monitor whose device takes its time to open.
class LateMonitor : public ModemStateMonitor {
  public:
    explicit LateMonitor(VelmarMessageHandler* message_handler)
        : ModemStateMonitor(message_handler) {}
    ~LateMonitor() override { close(boot_fd); }

    void OpenDevice() {
        boot_fd = open("/dev/umts_boot0", O_RDWR);
        EndWaitForDevice();
    }
};

class ReaderTest : public PhoneTestCase {};

TEST_F(ReaderTest, OneReadIsOneMessageFollowedByZeros) {
    modem.SetState(kModemStateOnline);
    MessageKeeper handler;
    SitIoHandler reader(&handler);
    ASSERT_TRUE(reader.Start());
    ASSERT_TRUE(modem.WaitForChannel(milliseconds(5000)));
    const size_t sizes[] = {3, kLargestMessage, 7, 1, kLargestMessage + 1000, 2};
    for (size_t size : sizes) modem.SendBytes(std::string(size, 'x'));
    ASSERT_TRUE(handler.WaitFor(std::size(sizes)));
    for (size_t i = 0; i < std::size(sizes); ++i) {
        EXPECT_EQ(handler.kept[i].length, std::min(sizes[i], kLargestMessage));
        EXPECT_TRUE(handler.kept[i].zeros_follow) << "after message " << i;
    }
    injector.Add({"select", "/dev/oem_ipc1", EBADF});
    modem.SendBytes("last");
}

TEST_F(ReaderTest, DeviceThatIsGoneIsOpenedAgainWhenItIsBack) {
    modem.SetState(kModemStateOnline);
    MessageKeeper handler;
    SitIoHandler reader(&handler);
    ASSERT_TRUE(reader.Start());
    ASSERT_TRUE(modem.WaitForChannel(milliseconds(5000)));
    injector.Add({"open", "/dev/oem_ipc1", ENXIO, 0, 5});
    modem.SendEndOfFile();
    ASSERT_TRUE(modem.WaitForChannel(milliseconds(5000)));
    modem.SendBytes("back");
    EXPECT_TRUE(handler.WaitFor(1));
    EXPECT_EQ(log.Count("E Failed to open IO channel, fd: -1"), 5);
    injector.Add({"select", "/dev/oem_ipc1", EBADF});
    modem.SendBytes("last");
}

TEST_F(ReaderTest, LooksForTheModemOnceTheBootDeviceIsOpen) {
    modem.SetState(kModemStateOnline);
    MessageKeeper handler;
    handler.state_monitor = std::make_unique<LateMonitor>(&handler);
    SitIoHandler reader(&handler);
    ASSERT_TRUE(reader.Start());
    ASSERT_TRUE(modem.WaitForChannel(milliseconds(5000)));
    modem.SendBytes("waits");
    EXPECT_FALSE(handler.WaitFor(1, milliseconds(200)));
    EXPECT_THAT(log.Lines(), ElementsAre("I IO handler started"));
    static_cast<LateMonitor*>(handler.state_monitor.get())->OpenDevice();
    EXPECT_TRUE(handler.WaitFor(1, milliseconds(1000)));
    injector.Add({"select", "/dev/oem_ipc1", EBADF});
    modem.SendBytes("last");
}

// Select fails when a signal interrupts it on the reader's thread: the reader ends.
TEST_F(ReaderTest, InterruptedWaitEndsTheReader) {
    ASSERT_NE(signal(SIGURG, [](int /*signo*/) {}), SIG_ERR);
    modem.SetState(kModemStateOnline);
    MessageKeeper handler;
    auto reader = std::make_unique<SitIoHandler>(&handler);
    ASSERT_TRUE(reader->Start());
    ASSERT_TRUE(modem.WaitForChannel(milliseconds(5000)));
    modem.SendBytes("read");
    ASSERT_TRUE(handler.WaitFor(1));
    while (log.Count("E IO handler timeout") == 0) {
        pthread_kill(handler.reader_thread, SIGURG);
        std::this_thread::sleep_for(milliseconds(10));
    }
    reader.reset();
    EXPECT_THAT(log.Lines(), ElementsAre("I IO handler started", "E IO handler timeout",
                                         "E IO handler thread stopped"));
}

// Keeps the states that are reported.
class StateKeeper : public TestHandler {
  public:
    void OnModemStateChanged(int state) override { states.push_back(state); }
    std::vector<int> states;
};

class MonitorTest : public PhoneTestCase {};

TEST_F(MonitorTest, ReportsEachChangeToAValidState) {
    StateKeeper handler;
    OpenMonitor monitor(&handler);
    for (int state : {0, 0, 3, 4, 4, 7, 7, 4, -1, -1, 4, 5, 0}) {
        modem.SetState(state);
        monitor.PollModemState();
    }
    EXPECT_THAT(handler.states, ElementsAre(0, 3, 4, 4, 4, 0));
    EXPECT_THAT(
            log.Lines(),
            ElementsAre("I Modem state changed from -1 to 0", "I Modem state changed from 0 to 3",
                        "I Modem state changed from 3 to 4", "E Invalid modem state 7",
                        "I Modem state changed from 7 to 4", "E Invalid modem state -1",
                        "I Modem state changed from -1 to 4", "E Invalid modem state 5",
                        "I Modem state changed from 5 to 0"));
}

TEST_F(MonitorTest, HasNoStateBeforeTheDeviceIsOpen) {
    EXPECT_EQ(ModemStateMonitor::MakeInstance(nullptr), nullptr);
    TestHandler handler;
    std::unique_ptr<ModemStateMonitor> monitor(ModemStateMonitor::MakeInstance(&handler));
    EXPECT_EQ(monitor->GetModemState(), -1);
    monitor->PollModemState();
    EXPECT_THAT(log.Lines(), ElementsAre("E MODEM_BOOT ioctl fd is invalid",
                                         "E MODEM_BOOT ioctl fd is invalid"));
}

TEST_F(MonitorTest, EndsWhenTheDeviceCannotBeOpened) {
    TestHandler handler;
    folder.Remove("/dev/umts_boot0");
    std::unique_ptr<ModemStateMonitor> monitor(ModemStateMonitor::MakeInstance(&handler));
    EXPECT_EQ(monitor->Start(), 0);
    monitor.reset();
    EXPECT_THAT(log.Lines(), ElementsAre("E Failed to open MODEM_BOOT ioctl node"));
}

}  // namespace
