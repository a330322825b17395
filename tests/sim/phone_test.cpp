#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/system_properties.h>

#include "sim/modem/device_socket.h"
#include "sim/modem/fault_injector.h"
#include "sim/modem/log_socket.h"
#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/phone/phone_state.h"

namespace {

namespace fs = std::filesystem;
using android::base::unique_fd;
using velmar_phone::kBootDevice;
using velmar_phone::kChannelDevice;
using std::chrono_literals::operator""ms;

// No other thread runs while a test changes its environment. Null unsets the variable.
void SetRoot(const char* root) {
    const char* name = velmar_phone::kRootVariable;
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    EXPECT_EQ(root == nullptr ? unsetenv(name) : setenv(name, root, 1), 0);
}

// A phone, longer in its path than a socket's address may be, beside a file that nothing may reach.
class PhoneTest : public testing::Test {
  protected:
    PhoneTest() {
        std::ofstream(base + "/canary") << "untouched";
        phone.WriteFile("/etc/inside", "inside");
        phone.WriteFile("/data/file", "0123456789");
        SetRoot(phone.root().c_str());
    }
    ~PhoneTest() override {
        EXPECT_EQ(fs::file_size(base + "/canary"), strlen("untouched"));
        fs::remove_all(base);
    }

    std::string base = (fs::temp_directory_path() / "phone_test.XXXXXX").string();
    const velmar_sim::PhoneFolder phone{mkdtemp(base.data()) + ("/" + std::string(120, 'r'))};
    char buffer[16];
};

class DeviceTest : public PhoneTest {
  protected:
    velmar_sim::SimulatedModem modem{phone};
    velmar_sim::FaultInjector injector{phone};
};

TEST_F(PhoneTest, PathsResolveAsInARootOfTheirOwn) {
    const std::string canary = base + "/canary";
    const std::string links[][2] = {
            {"../../../../../etc/inside", "climbing"},
            {canary, "canary"},
            {"loop", "loop"},
            {"/data/new", "dangling"},
            {"/etc", "folder"},
    };
    for (const auto& [target, link] : links) {
        EXPECT_EQ(symlink(target.c_str(), ("/data/" + link).c_str()), 0);
    }
    const struct {
        std::string path;
        // Where it leads in the phone; or the error.
        const char* file;
        int error;
    } kCases[] = {
            {"/.//data/.//file", "/data/file", 0},
            {"/tmp/../data/file", "/data/file", 0},
            {"/data/climbing", "/etc/inside", 0},
            {"/data/folder/../data/file", "/data/file", 0},
            {"/data/canary", "", ENOENT},
            {"/data/../../../../../../../../.." + canary, "", ENOENT},
            {"/data/loop", "", ELOOP},
            {"/data/file/../file", "", ENOTDIR},
            {canary, "/../canary", 0},
    };
    for (const auto& [path, file, error] : kCases) {
        EXPECT_EQ(access(path.c_str(), F_OK) < 0 ? errno : 0, error) << path;
        EXPECT_TRUE(error != 0 || fs::equivalent(path, phone.root() + file)) << path;
    }
    EXPECT_EQ(open("/data/dangling", O_RDWR | O_CREAT | O_EXCL, 0600), -1);
    std::ofstream("/data/dangling") << "through the link";
    EXPECT_EQ(phone.ReadFile("/data/new"), "through the link");
    EXPECT_EQ(fs::read_symlink("/data/folder"), "/etc");
    EXPECT_EQ(fs::canonical("/data/../etc/inside"), fs::canonical(phone.HostPath("/etc/inside")));
    EXPECT_EQ(open("/data/climbing", O_RDONLY | O_NOFOLLOW), -1);
    // The linker says where it has looked.
    EXPECT_EQ(dlopen("/data/lib.so", RTLD_NOW), nullptr);
    EXPECT_EQ(std::string(dlerror()).find(phone.HostPath("/data/lib.so")), 0U);  // NOLINT
    SetRoot(nullptr);
    EXPECT_FALSE(fs::exists("/data/file"));
    EXPECT_EQ(property_set("a.b", "1"), -1);
}

using PhoneDeathTest = PhoneTest;

TEST_F(PhoneDeathTest, AnUnusableFolderIsLoud) {
    const std::string kFolders[][2] = {
            {"relative", "expected the absolute path"},
            {"/data/phone", "expected a folder that does not lie below"},
            {"/nowhere/at/all", "expected a folder that can be opened"},
            {base, "expected a file phone_state"},
    };
    for (const auto& [folder, message] : kFolders) {
        SetRoot(folder.c_str());
        EXPECT_DEATH(static_cast<void>(access("/data", F_OK)), message);
    }
}

TEST_F(PhoneTest, PropertiesFollowTheRulesOfThePlatform) {
    phone.RefuseProperty("sys.refused");
    const std::string longest(91, 'v');
    const std::string too_long(92, 'v');
    const struct {
        std::string name;
        std::string value;
        bool is_set;
        // What property_get gives afterwards.
        std::string result;
    } kSettings[] = {
            {"persist.vendor.a-b_c@d:e", "1", true, "1"},
            {"sys.too_long", too_long, false, "default"},
            {"ro.too_long", too_long, true, "Must use __system_property_read_callback() to read"},
            {"ro.once", "first", true, "first"},
            {"ro.once", "second", false, "first"},
            {"sys.longest", "short", true, "short"},
            {"sys.longest", longest, true, longest},
            {"sys.refused", "1", false, "default"},
            {"sys.empty", "", true, "default"},
            {"", "1", false, "default"},
            {"../etc/inside", "1", false, "default"},
    };
    for (const auto& [name, set_value, is_set, result] : kSettings) {
        SCOPED_TRACE(name);
        char value[PROPERTY_VALUE_MAX];
        EXPECT_EQ(property_set(name.c_str(), set_value.c_str()) == 0, is_set);
        EXPECT_EQ(property_get(name.c_str(), value, "default"), static_cast<int>(result.size()));
        EXPECT_EQ(value, result);
        EXPECT_EQ(__system_property_find(name.c_str()) != nullptr, is_set || name == "ro.once");
    }
    EXPECT_EQ(phone.GetProperty("ro.too_long"), too_long);
    EXPECT_EQ(std::distance(fs::directory_iterator(phone.root() + "/properties"), {}), 5);
}

TEST_F(PhoneTest, LogLinesKeepTheirTimeThreadBufferAndPriority) {
    std::vector<velmar_sim::LogLine> lines;
    velmar_sim::LogSocket log(phone, [&](const auto& line) { lines.push_back(line); });
    const auto begin = velmar_sim::Clock::now();
    __android_log_print(ANDROID_LOG_VERBOSE, "velmar", "two\nlines, %d", 2);
    __android_log_buf_print(LOG_ID_RADIO, ANDROID_LOG_FATAL, "radio", "%s", "");
    __android_log_print(ANDROID_LOG_INFO, "velmar", "%s", std::string(2000, 'x').c_str());
    const auto end = velmar_sim::Clock::now();
    SetRoot(nullptr);
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_ERROR, "velmar", "without a phone");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("without a phone"), std::string::npos);
    log.Drain();

    ASSERT_EQ(lines.size(), 3U);
    const struct {
        char priority;
        std::string tag, text;
        int64_t buffer;
    } kExpected[] = {{'V', "velmar", "two\nlines, 2", 0},
                     {'F', "radio", "", LOG_ID_RADIO},
                     {'I', "velmar", std::string(1023, 'x'), 0}};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].priority, kExpected[i].priority);
        EXPECT_EQ(lines[i].tag, kExpected[i].tag);
        EXPECT_EQ(lines[i].text, kExpected[i].text);
        EXPECT_EQ(lines[i].total, kExpected[i].buffer);
        EXPECT_EQ(lines[i].number, gettid() & 0xFFFF);
        // The wall clock may be adjusted meanwhile.
        EXPECT_GE(lines[i].time, begin - 1ms);
        EXPECT_LE(lines[i].time, end + 1ms);
    }
}

TEST_F(PhoneTest, ALogThatNobodyReadsStopsNobodyAndSaysWhatItLost) {
    const unique_fd log = velmar_sim::ReceiveAt(phone.HostPath(velmar_phone::kLogSocket));
    const auto read_line = [&] {
        std::string line(1000, '\0');
        const ssize_t size = recv(log, line.data(), line.size(), MSG_DONTWAIT);
        return size < 0 ? "" : line.substr(line.find('\0', 12) + 1);
    };
    // More than the kernel keeps for a socket.
    constexpr int kLines = 1000;
    for (int i = 0; i < kLines; ++i) __android_log_print(ANDROID_LOG_INFO, "velmar", "line");
    int kept = 0;
    while (!read_line().empty()) ++kept;
    EXPECT_GT(kept, 1);
    __android_log_print(ANDROID_LOG_INFO, "velmar", "there is room again");
    const std::string lost = std::to_string(kLines - kept) + " lines lost: the log was not read";
    EXPECT_STREQ(read_line().c_str(), lost.c_str());
    EXPECT_STREQ(read_line().c_str(), "there is room again");
}

TEST_F(DeviceTest, OpenHonoursItsFlags) {
    for (const int flags : {O_RDWR | O_CLOEXEC, O_RDONLY, O_WRONLY}) {
        const unique_fd fd(open(kChannelDevice, flags | O_NONBLOCK));
        const unique_fd copy(dup(fd));
        EXPECT_EQ(fcntl(fd, F_GETFD), (flags & O_CLOEXEC) != 0 ? FD_CLOEXEC : 0);
        EXPECT_EQ(read(copy, buffer, 1), -1);
        EXPECT_EQ(errno, flags == O_WRONLY ? EBADF : EAGAIN);
        EXPECT_EQ(write(copy, "x", 1), flags == O_RDONLY ? -1 : 1);
        EXPECT_TRUE(flags != O_RDONLY || errno == EBADF);
    }
}

TEST_F(DeviceTest, AModemThatIsGoneGivesErrors) {
    const unique_fd fd(open(kChannelDevice, O_RDWR));
    modem.HangUp();
    EXPECT_EQ(read(fd, buffer, 1), 0);
    EXPECT_EQ(write(fd, "x", 1) < 0 ? errno : 0, EIO);
    phone.Remove(kChannelDevice);
    EXPECT_EQ(mknod(phone.HostPath(kChannelDevice).c_str(), S_IFSOCK | 0600, 0), 0);
    EXPECT_EQ(open(kChannelDevice, O_RDWR) < 0 ? errno : 0, ENXIO);
}

// Without a modem, whose thread takes a number whenever it looks for those who open a device.
TEST_F(PhoneTest, ANumberThatIsUsedAgainIsNoDevice) {
    const unique_fd listener = velmar_sim::ListenAt(phone.HostPath(kChannelDevice));
    const uint64_t one = 1;
    const int fd = open(kChannelDevice, O_RDONLY);
    EXPECT_EQ(close(fd), 0);
    const unique_fd event(eventfd(0, EFD_CLOEXEC));
    ASSERT_EQ(event, fd);
    EXPECT_EQ(write(event, &one, sizeof(one)), 8);
    const unique_fd device(open(kChannelDevice, O_RDONLY));
    EXPECT_EQ(dup2(event, device), device);
    EXPECT_EQ(write(device, &one, sizeof(one)), 8);
}

TEST_F(DeviceTest, EachChangeOfStateWakesOneWait) {
    const unique_fd fd(open(kBootDevice, O_RDWR));
    const unique_fd channel(open(kChannelDevice, O_RDWR));
    modem.SendBytes("message");
    modem.SetState(4, /*wakes=*/2);
    for (const int boot_events : {POLLIN, POLLIN, 0}) {
        pollfd waited[] = {{fd, POLLIN, 0}, {channel, POLLIN, 0}};
        EXPECT_EQ(poll(waited, 2, 0), boot_events == 0 ? 1 : 2);
        EXPECT_EQ(waited[0].revents, boot_events);
        // Waiting for a message does not take it.
        EXPECT_EQ(waited[1].revents, POLLIN);
    }
}

TEST_F(DeviceTest, APollFaultSaysWhatItsDeviceSignalsAlone) {
    const unique_fd ready(eventfd(1, EFD_CLOEXEC));
    const unique_fd fd(open(kBootDevice, O_RDWR));
    for (const int events : {POLLHUP, 0}) {
        injector.Add({"poll", kBootDevice, 0, events});
        pollfd waited[] = {{ready, POLLIN, POLLIN}, {fd, POLLIN, POLLIN}};
        EXPECT_EQ(poll(waited, 2, -1), 1);
        EXPECT_EQ(waited[0].revents, 0);
        EXPECT_EQ(waited[1].revents, events);
    }
}

}  // namespace
