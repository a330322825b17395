#include <errno.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "io/modem_state_monitor.h"
#include "io/sit_io_channel.h"
#include "io/sit_io_handler.h"
#include "phone_test_case.h"
#include "waiting_calls.h"

using testing::Return;
using testing::StrictMock;

namespace {

constexpr char kChannel[] = "/dev/oem_ipc1";
constexpr int kLargestMessage = 65568;

using ChannelTest = PhoneTestCase;

TEST_F(ChannelTest, InterruptedTransfersGoOnAfterAPause) {
    StrictMock<WaitingCalls> calls;
    EXPECT_CALL(calls, Usleep(10000)).Times(5).WillRepeatedly(Return(0));
    SitIoChannel channel;
    char buffer[] = "data";
    ASSERT_EQ(channel.OpenChannel(), 0);
    for (const char* call : {"write", "read"}) {
        injector.Add({call, kChannel, EINTR});
        injector.Add({call, kChannel, EAGAIN});
    }
    injector.Add({"write", kChannel, 0, 0});
    EXPECT_EQ(channel.WriteToChannel(buffer, 4), 0);
    modem.SendBytes("abc");
    EXPECT_EQ(channel.ReadFromChannel(buffer, sizeof(buffer)), 3);
}

// As of a driver that lets its device be opened once.
TEST_F(ChannelTest, DeviceIsOpenedOnceByThreadsThatOpenAtTheSameTime) {
    for (int i = 0; i < 100 && !HasFailure(); ++i) {
        SitIoChannel channel;
        injector.Add({"open", kChannel, EBUSY, 0, 1, 1});
        std::atomic<int> ready{0};
        const auto open_together = [&] {
            for (++ready; ready < 2;) std::this_thread::yield();
            EXPECT_EQ(channel.OpenChannel(), 0);
        };
        std::thread sender(open_together);
        open_together();
        sender.join();
        EXPECT_EQ(injector.Left(), 1) << "opened twice";
        injector.Clear();
    }
}

TEST_F(ChannelTest, DescriptorOfAWriteThatIsUnderWayStaysOpen) {
    SitIoChannel channel;
    ASSERT_EQ(channel.OpenChannel(), 0);
    const int fd = channel.GetFd();
    modem.SetReading(false);
    std::atomic<int> writes{0};
    std::thread sender([&] {
        std::string message(kLargestMessage, 'x');
        while (channel.WriteToChannel(message.data(), kLargestMessage) == 0) ++writes;
    });
    for (int before = -1; before != writes;) {
        before = writes;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    channel.CloseChannel();
    EXPECT_EQ(channel.GetFd(), -1);
    EXPECT_NE(fcntl(fd, F_GETFD), -1) << "its number is free";
    modem.SetReading(true);
    sender.join();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

// A reader for the test's own thread.
class Reader : public SitIoHandler {
  public:
    explicit Reader(VelmarMessageHandler* hub) : SitIoHandler(hub) {
        buffer.reset(new char[kLargestMessage]);
        std::fill_n(buffer.get(), kLargestMessage, '?');
    }
    using SitIoHandler::channel;
};

class ReaderTest : public PhoneTestCase {
  protected:
    ReaderTest() { modem.SetState(kModemStateOnline); }

    // The reader ends when it cannot wait for the channel.
    void EndReader() { injector.Add({"select", kChannel, EBADF}); }

    // Sends what is to be read next, or ends the reader after the last one.
    int SendNext() {
        if (sent == sizes.size()) EndReader();
        if (sent < sizes.size()) modem.SendBytes(std::string(sizes[sent++], 'x'));
        return 0;
    }

    StrictMock<WaitingCalls> calls;
    StrictMock<MockHandler> handler;
    Reader reader{&handler};
    std::vector<int> sizes;
    size_t sent = 0;
};

TEST_F(ReaderTest, NapsUntilTheModemIsOnlineAndReadsMessagesFollowedByZeros) {
    sizes = {3, kLargestMessage + 1000, 2};
    modem.SetState(kModemStateOnline - 1);
    EXPECT_CALL(calls, Sleep(2)).WillOnce(Return(0)).WillOnce([this](unsigned int /*seconds*/) {
        modem.SetState(kModemStateOnline);
        return SendNext();
    });
    int fd = -1;
    EXPECT_CALL(handler, ProcessReceivedMessage(testing::_, testing::_))
            .Times(static_cast<int>(sizes.size()))
            .WillRepeatedly([&](void* data, int length) {
                fd = reader.channel->GetFd();
                const char* bytes = static_cast<const char*>(data);
                EXPECT_EQ(length, std::min(sizes[sent - 1], kLargestMessage));
                EXPECT_EQ(std::count(bytes + length, bytes + kLargestMessage, '\0'),
                          kLargestMessage - length);
                return SendNext();
            });
    reader.Run();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "the channel is still open";
    EXPECT_EQ(log.TakeLines(), "E IO handler timeout; E IO handler thread stopped");
}

TEST_F(ReaderTest, LostChannelIsOpenedAgainForAsLongAsItTakes) {
    sizes = {1, 1};
    injector.Add({"read", kChannel, EIO});
    injector.Add({"open", kChannel, ENXIO, 0, 8, 1});
    SendNext();
    std::vector<useconds_t> pauses;
    EXPECT_CALL(calls, Usleep(testing::_)).WillRepeatedly([&pauses](useconds_t pause) {
        pauses.push_back(pause);
        return 0;
    });
    EXPECT_CALL(handler, ProcessReceivedMessage(testing::_, 1))
            .WillOnce([this](void*, int) {
                injector.Add({"read", kChannel, 0, 0});
                injector.Add({"open", kChannel, ENXIO});
                return SendNext();
            })
            .WillOnce([this](void*, int) { return SendNext(); });
    reader.Run();
    EXPECT_THAT(pauses, testing::ElementsAre(20000, 40000, 80000, 160000, 320000, 640000, 1000000,
                                             1000000, 1000000, 20000, 40000));
    EXPECT_EQ(log.Count("E Failed to open IO channel, fd: -1"), 9);
    EXPECT_THAT(log.TakeLines(), testing::StartsWith("E Read channel error, size:-1, errno:5; "));
}

TEST_F(ReaderTest, LooksForTheModemOnceTheBootDeviceIsOpen) {
    auto* monitor = new ThreadlessMonitor(&handler);
    handler.state_monitor.reset(monitor);
    EndReader();
    std::thread opener([monitor] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        monitor->OpenDevice();
    });
    reader.Run();
    opener.join();
}

TEST_F(ReaderTest, InterruptedWaitEndsTheReader) {
    injector.Add({"select", kChannel, EINTR});
    EndReader();
    reader.Run();
    EXPECT_EQ(injector.Left(), 1) << "it waited again";
}

TEST_F(ReaderTest, EndsAtOnceWithoutAChannel) {
    folder.Remove(kChannel);
    reader.Run();
    EXPECT_EQ(log.TakeLines(), "E Failed to open IO channel, fd: -1; E Failed to open IO channel");
    char data[] = "x";
    EXPECT_EQ(reader.SendData(data, 1), -1);
    EXPECT_EQ(log.TakeLines(), "E Failed to open IO channel, fd: -1") << "not tried again";
}

using ThreadlessTest = PhoneTestCase;

class MonitorTest : public PhoneTestCase {
  protected:
    // How a wait for the boot device ends, and the modem's state from then on.
    struct WakeUp {
        int ready;
        short events;
        int state;
    };
    static WakeUp TimeOut(int state) { return {0, 0, state}; }
    static WakeUp On(short events, int state) { return {1, events, state}; }

    // What the monitor logs over these wake-ups, with its waits and what it tells the hub between.
    std::string Follow(const std::vector<WakeUp>& wake_ups) {
        struct Enough {};
        StrictMock<WaitingCalls> calls;
        StrictMock<MockHandler> handler;
        auto next = wake_ups.begin();
        int fd = -1;
        EXPECT_CALL(calls, Poll(testing::_, 1, testing::_))
                .WillRepeatedly([&](pollfd* device, nfds_t /*count*/, int timeout_ms) {
                    ALOGD("poll %d", timeout_ms);
                    fd = device->fd;
                    if (next == wake_ups.end()) throw Enough();
                    modem.SetState(next->state, 0);
                    device->revents = static_cast<short>(next->events & (device->events | POLLERR));
                    return next++->ready;
                });
        EXPECT_CALL(calls, Sleep(testing::_)).WillRepeatedly([](unsigned int seconds) {
            ALOGD("sleep %u", seconds);
            return 0;
        });
        EXPECT_CALL(handler, OnModemStateChanged(testing::_)).WillRepeatedly([](int state) {
            ALOGD("tell %d", state);
        });
        std::unique_ptr<ModemStateMonitor> monitor(ModemStateMonitor::MakeInstance(&handler));
        EXPECT_THROW(monitor->Run(), Enough);
        EXPECT_EQ(write(fd, "", 0), 0) << "the boot device is not open for writing";
        return log.TakeLines();
    }
};

TEST_F(MonitorTest, WaitsByTheStateAndTellsOfEachChangeToAValidOne) {
    const WakeUp failed_wait = {-1, 0, 4};
    EXPECT_EQ(Follow({TimeOut(0), TimeOut(0), On(POLLIN, 1), On(POLLIN, 2), TimeOut(3),
                      On(POLLHUP, 4), On(POLLRDNORM, 4), On(POLLERR, 0), On(POLLIN, 5), failed_wait,
                      On(POLLIN, -1), On(POLLERR, 4), On(POLLIN, -1)}),
              "I Start modem state monitoring; D poll 0; I Poll timeout. interval=0; "
              "I Modem state changed from -1 to 0; D tell 0; D poll 3000; "
              "I Poll timeout. interval=3000; D poll 3000; "
              "I Modem state changed from 0 to 1; D tell 1; D sleep 3; D poll 3000; "
              "I Modem state changed from 1 to 2; D tell 2; D sleep 3; D poll 3000; "
              "I Poll timeout. interval=3000; "
              "I Modem state changed from 2 to 3; D tell 3; D poll 3000; "
              "I Modem state changed from 3 to 4; D tell 4; D poll -1; D poll -1; "
              "E MODEM STATUS : unknown poll event (8); D sleep 3; D poll -1; "
              "E Invalid modem state 5; D poll 3000; "
              "E MODEM STATUS : unknown poll event (0); D sleep 3; D poll 3000; "
              "E Invalid modem state -1; D poll 0; "
              "I Modem state changed from -1 to 4; D tell 4; D poll -1; "
              "E Invalid modem state -1; D poll 0");
}

TEST_F(MonitorTest, BoardWithoutAModemIsWatchedByEventsOnly) {
    folder.SetProperty("persist.vendor.radio.no_modem_board", "1");
    EXPECT_EQ(Follow({On(POLLIN, 3)}),
              "I Start modem state monitoring; D poll -1; I Modem state changed from -1 to 3; "
              "D tell 3; D poll -1");
    folder.SetProperty("persist.vendor.radio.no_modem_board", "01");
    EXPECT_EQ(Follow({}), "I Start modem state monitoring; D poll 0");
}

// A stack that is larger than the address space.
TEST_F(ThreadlessTest, ServiceRunsOnWithoutThreadsThatCannotBeCreated) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, size_t{1} << 60), 0);
    ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
    TestHandler handler;
    handler.state_monitor.reset();
    EXPECT_EQ(handler.Start(), kStatusSuccess);
    handler.WaitForBootDevice();
    EXPECT_EQ(handler.SendServiceRequest(kCommandExtendedLog), kStatusOffline);
    EXPECT_EQ(log.TakeLines(),
              "I IO handler started; E MODEM_BOOT ioctl fd is invalid; E Modem is not online");
}

}  // namespace
