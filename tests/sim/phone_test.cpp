#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/system_properties.h>

#include "sim/modem/fault_injector.h"
#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/phone/phone_state.h"

namespace {

namespace fs = std::filesystem;
using android::base::unique_fd;
using velmar_phone::kBootDevice;
using velmar_phone::kChannelDevice;
using std::chrono_literals::operator""s;

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
    const std::shared_ptr<velmar_phone::PhoneState> state = phone.MapState();
    char buffer[16];
};

class DeviceTest : public PhoneTest {
  protected:
    velmar_sim::SimulatedModem modem{phone};
    velmar_sim::FaultInjector injector{phone};
};

TEST_F(PhoneTest, CallsOnPathsReachThePhone) {
    char name[] = "/data/XXXXXX";
    const int fds[] = {open("/vendor/a", O_CREAT | O_WRONLY, 0600), mkstemp64(name)};
    for (const int fd : fds) EXPECT_TRUE(write(fd, "text", 4) == 4 && close(fd) == 0);
    std::ofstream("/mnt/vendor/b") << "text";
    const char* const files[] = {"/vendor/a", "/mnt/vendor/b", name};
    for (const char* file : files) EXPECT_EQ(phone.ReadFile(file), "text") << file;
    EXPECT_EQ(link("/data/file", "/data/link"), 0);
    EXPECT_EQ(rename("/data/link", "/data/moved"), 0);
    EXPECT_EQ(fchmodat(-1, "/data/moved", 0604, 0), 0);
    EXPECT_EQ(phone.Mode("/data/moved"), 0604);
    EXPECT_EQ(fs::canonical("/data/./file"), "/data/file");
    // Without its folder this path would lead out of the phone.
    EXPECT_EQ(fs::canonical("/data/../etc/inside"), fs::canonical(phone.HostPath("/etc/inside")));
    // The linker says where it has looked.
    EXPECT_EQ(dlopen("/data/lib.so", RTLD_NOW), nullptr);
    EXPECT_EQ(std::string(dlerror()).find(phone.HostPath("/data/lib.so")), 0U);  // NOLINT
    SetRoot(nullptr);
    EXPECT_FALSE(fs::exists("/data/file"));
    EXPECT_EQ(property_set("a.b", "1"), -1);
}

TEST_F(PhoneTest, PathsResolveAsInARootOfTheirOwn) {
    const std::string canary = base + "/canary";
    const std::string links[][2] = {
            {"/etc/inside", "absolute"}, {"../../../../../etc/inside", "climbing"},
            {canary, "canary"},          {"loop", "loop"},
            {"/data/new", "dangling"},   {"/etc", "folder"},
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
            {"/data/absolute", "/etc/inside", 0},
            {"/data/climbing", "/etc/inside", 0},
            {"/data/folder/inside", "/etc/inside", 0},
            {"/data/folder/../data/file", "/data/file", 0},
            {"/data/../../../etc/inside", "/etc/inside", 0},
            {"/data/canary", "", ENOENT},
            {"/data/../../../../../../../../.." + canary, "", ENOENT},
            {"/data/loop", "", ELOOP},
            {"/data/none/../file", "", ENOENT},
            {"/data/file/../file", "", ENOTDIR},
            {"/data/absolute/.", "", ENOTDIR},
            {"/data/dangling", "", ENOENT},
            {"/database", "", ENOENT},
            {canary, "/../canary", 0},
    };
    for (const auto& [path, file, error] : kCases) {
        EXPECT_EQ(access(path.c_str(), F_OK) < 0 ? errno : 0, error) << path;
        EXPECT_TRUE(error != 0 || fs::equivalent(path, phone.root() + file)) << path;
    }
    EXPECT_EQ(open("/data/dangling", O_RDWR | O_CREAT | O_EXCL, 0600), -1);
    std::ofstream("/data/dangling") << "through the link";
    EXPECT_EQ(phone.ReadFile("/data/new"), "through the link");
    EXPECT_EQ(fs::read_symlink("/data/absolute"), "/etc/inside");
    EXPECT_EQ(open("/data/absolute", O_RDONLY | O_NOFOLLOW), -1);
    EXPECT_EQ(rename("/data/absolute", "/data/loop"), 0);
    EXPECT_EQ(unlink("/data/loop"), 0);
    EXPECT_EQ(phone.ReadFile("/etc/inside"), "inside");
}

using PhoneDeathTest = PhoneTest;

TEST_F(PhoneDeathTest, AnUnusableFolderIsLoud) {
    phone.WriteFile("/data/phone_state", "short");
    const std::string kFolders[][2] = {
            {"relative", "expected the absolute path"},
            {"/", "expected the absolute path"},
            {"/data/phone", "expected a folder that does not lie below"},
            {"/nowhere/at/all", "expected a folder that can be opened"},
            {base, "expected a file phone_state"},
            {phone.HostPath("/data"), "expected a file phone_state"},
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
            {"sys.longest", longest, true, longest},
            {"sys.too_long", too_long, false, "default"},
            {"ro.too_long", too_long, true, "Must use __system_property_read_callback() to read"},
            {"ro.once", "first", true, "first"},
            {"ro.once", "second", false, "first"},
            {"sys.twice", "first", true, "first"},
            {"sys.twice", "second", true, "second"},
            {"sys.refused", "1", false, "default"},
            {"sys.refused.not", "1", true, "1"},
            {"sys.empty", "", true, "default"},
            {"", "1", false, "default"},
            {"sys.", "1", false, "default"},
            {"sys..a", "1", false, "default"},
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
    EXPECT_EQ(std::distance(fs::directory_iterator(phone.root() + "/properties"), {}), 7);
}

TEST_F(DeviceTest, TheChannelCountsReadsAndKeepsWhatIsWrittenBeforeAClose) {
    unique_fd fd(open(kChannelDevice, O_RDWR | O_NONBLOCK));
    modem.SendBytes("one");
    modem.SendBytes("three");
    for (const ssize_t size : {3, 5, -1}) EXPECT_EQ(read(fd, buffer, sizeof(buffer)), size);
    EXPECT_EQ(state->channel_reads, 2U);
    const std::string largest(velmar_sim::kMaxMessageForPhone, 'm');
    EXPECT_EQ(write(fd, "", 0), 0);
    EXPECT_EQ(write(fd, largest.data(), largest.size()), static_cast<ssize_t>(largest.size()));
    EXPECT_EQ(write(fd, "last", 4), 4);
    fd.reset();
    EXPECT_EQ(modem.Receive(5s)->bytes, largest);
    EXPECT_EQ(modem.Receive(5s)->bytes, "last");
}

TEST_F(DeviceTest, OpenHonoursItsFlags) {
    const struct {
        int flags;
        int read_error;
        int write_error;
    } kCases[] = {{O_RDWR | O_NONBLOCK, EAGAIN, 0},
                  {O_RDONLY | O_NONBLOCK, EAGAIN, EBADF},
                  {O_WRONLY, EBADF, 0}};
    for (const auto& test : kCases) {
        const unique_fd fd(open(kChannelDevice, test.flags));
        const unique_fd copy(dup(fd));
        EXPECT_EQ(fcntl(fd, F_GETFD), 0);
        EXPECT_EQ(read(copy, buffer, 1) < 0 ? errno : 0, test.read_error);
        EXPECT_EQ(write(copy, "x", 1) < 0 ? errno : 0, test.write_error);
    }
    const unique_fd fd(open(kChannelDevice, O_RDWR | O_CLOEXEC));
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(DeviceTest, AModemThatIsGoneGivesErrors) {
    const unique_fd fd(open(kChannelDevice, O_RDWR));
    modem.HangUp();
    EXPECT_EQ(read(fd, buffer, 1), 0);
    EXPECT_EQ(write(fd, "x", 1) < 0 ? errno : 0, EIO);
    EXPECT_EQ(mknod(phone.HostPath("/dev/gone").c_str(), S_IFSOCK | 0600, 0), 0);
    EXPECT_EQ(rename(phone.HostPath("/dev/gone").c_str(), kChannelDevice), 0);
    EXPECT_EQ(open(kChannelDevice, O_RDWR) < 0 ? errno : 0, ENXIO);
}

TEST_F(DeviceTest, ANumberThatIsUsedAgainIsNoDevice) {
    const uint64_t one = 1;
    int (*const kCloses[])(int) = {close, [](int fd) { return fclose(fdopen(fd, "r+")); }};
    for (const auto& close_device : kCloses) {
        const int fd = open(kChannelDevice, O_RDONLY);
        // From then on the modem opens nothing, so that the number is the next that is free.
        EXPECT_TRUE(modem.WaitForChannel(5s));
        EXPECT_EQ(close_device(fd), 0);
        const unique_fd event(eventfd(0, EFD_CLOEXEC));
        ASSERT_EQ(event, fd);
        EXPECT_EQ(write(event, &one, sizeof(one)), 8);
        const unique_fd device(open(kChannelDevice, O_RDONLY));
        EXPECT_EQ(dup2(event, device), device);
        EXPECT_EQ(write(device, &one, sizeof(one)), 8);
    }
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

TEST_F(DeviceTest, AFaultHitsItsCallAndPathOnly) {
    injector.Add({"access", "/data/other*", EROFS});
    injector.Add({"stat", "/data/f*", EROFS});
    injector.Add({"access", "/data/f?le", ENOSPC, 0, 2, 1});
    for (const int error : {0, ENOSPC, ENOSPC, 0}) {
        EXPECT_EQ(access("/data/file", F_OK) < 0 ? errno : 0, error);
    }
}

TEST_F(DeviceTest, WhatAShortWriteTakesJoinsTheRest) {
    const unique_fd fd(open(kChannelDevice, O_RDWR));
    injector.Add({"write", kChannelDevice, 0, 2, 3});
    EXPECT_EQ(write(fd, "given up", 8), 2);
    EXPECT_EQ(write(fd, "abcdefg", 7), 2);
    EXPECT_EQ(write(fd, "cdefg", 5), 2);
    char rest[] = "efg";
    const iovec parts[] = {{rest, 1}, {rest + 1, 2}};
    EXPECT_EQ(writev(fd, parts, 2), 3);
    EXPECT_EQ(modem.Receive(5s)->bytes, "abcdefg");
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
