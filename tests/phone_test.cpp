#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/system_properties.h>

#include "sim/phone/phone_state.h"

namespace {

namespace fs = std::filesystem;
using android::base::unique_fd;
using velmar_phone::PhoneState;

constexpr size_t kLargestMessage = 65568;

// No other thread runs while a test changes its environment. Null unsets the variable.
void SetRoot(const char* root) {
    const char* name = velmar_phone::kRootVariable;
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    EXPECT_EQ(root == nullptr ? unsetenv(name) : setenv(name, root, 1), 0);
}

// A phone folder beside a file of the workstation that nothing may reach.
class PhoneTest : public testing::Test {
  protected:
    PhoneTest() {
        std::string base = (fs::temp_directory_path() / "velmar-phone-test-XXXXXX").string();
        if (mkdtemp(base.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        base_ = base;
        MakePhone();
        state_ = MapState();
        Write(base_ / "canary", "untouched");
        SetRoot(root_.c_str());
    }
    ~PhoneTest() override {
        EXPECT_EQ(Read(base_ / "canary"), "untouched");
        SetRoot(nullptr);
        fs::remove_all(base_);
    }

    void MakePhone() {
        // Longer than a socket's address may be.
        root_ = base_ / std::string(120, 'r');
        for (const char* directory : {"data/vendor", "dev", "properties", "etc"}) {
            fs::create_directories(root_ / directory);
        }
        Write(root_ / "phone_state", std::string(sizeof(PhoneState), '\0'));
    }

    PhoneState* MapState();

    static void Write(const fs::path& path, const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
    }
    static std::string Read(const fs::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    template <size_t size>
    static void SetText(const std::string& text, char (&field)[size]) {
        field[text.copy(field, size - 1)] = '\0';
    }
    void AddFault(const char* call, const char* path, int error, int length = 0, int times = 1,
                  int skip = 0) {
        velmar_phone::Fault& fault = state_->faults[state_->fault_count];
        SetText(call, fault.call);
        SetText(path, fault.path);
        fault.error = error;
        fault.length = length;
        fault.skip = skip;
        fault.remaining.store(times, std::memory_order_release);
        ++state_->fault_count;
    }

    fs::path base_;
    fs::path root_;
    PhoneState* state_ = nullptr;
};

PhoneState* PhoneTest::MapState() {
    const unique_fd file(open((root_ / "phone_state").c_str(), O_RDWR | O_CLOEXEC));
    void* state = mmap(nullptr, sizeof(PhoneState), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (state == MAP_FAILED) throw std::runtime_error("mmap failed");
    return static_cast<PhoneState*>(state);
}

// The modem's side of one device.
class DeviceSocket {
  public:
    explicit DeviceSocket(const fs::path& path) : listener_(Make()) {
        const unique_fd folder(open(path.parent_path().c_str(), O_PATH | O_CLOEXEC));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string name =
                "/proc/self/fd/" + std::to_string(folder.get()) + "/" + path.filename().string();
        name.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const auto* bound = reinterpret_cast<const sockaddr*>(&address);
        if (bind(listener_, bound, sizeof(address)) != 0 || listen(listener_, 4) != 0) {
            throw std::runtime_error("cannot listen");
        }
    }
    void Accept() { modem_.reset(accept(listener_, nullptr, nullptr)); }
    void Send(const std::string& packet) { send(modem_, packet.data(), packet.size(), 0); }
    std::string Receive() {
        std::string packet(2 * kLargestMessage, '\0');
        packet.resize(static_cast<size_t>(recv(modem_, packet.data(), packet.size(), 0)));
        return packet;
    }
    bool HasPacket() {
        char byte;
        return recv(modem_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
    }
    void HangUp() { modem_.reset(); }

  private:
    static int Make() { return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0); }

    unique_fd listener_;
    unique_fd modem_;
};

class DeviceTest : public PhoneTest {
  protected:
    DeviceTest() : channel_(root_ / "dev/oem_ipc1"), boot_(root_ / "dev/umts_boot0") {}

    unique_fd Open(DeviceSocket* device, const char* path, int flags = O_RDWR) {
        unique_fd fd(open(path, flags));
        EXPECT_GE(fd, 0) << errno;
        device->Accept();
        return fd;
    }
    unique_fd OpenChannel(int flags = O_RDWR) {
        return Open(&channel_, velmar_phone::kChannelDevice, flags);
    }
    unique_fd OpenBoot() { return Open(&boot_, velmar_phone::kBootDevice); }

    DeviceSocket channel_;
    DeviceSocket boot_;
};

struct Writer {
    const char* name;
    void (*write)(const char*);
};

void WriteAll(int fd) {
    EXPECT_EQ(write(fd, "text", 4), 4);
    EXPECT_EQ(close(fd), 0);
}

void WriteAll(FILE* file) {
    ASSERT_NE(file, nullptr);
    EXPECT_GE(fputs("text", file), 0);
    EXPECT_EQ(fclose(file), 0);
}

constexpr Writer kWriters[] = {
        {"open", [](const char* path) { WriteAll(open(path, O_CREAT | O_WRONLY, 0600)); }},
        {"open64", [](const char* path) { WriteAll(open64(path, O_CREAT | O_WRONLY, 0600)); }},
        {"openat", [](const char* path) { WriteAll(openat(3, path, O_CREAT | O_WRONLY, 0600)); }},
        {"creat", [](const char* path) { WriteAll(creat(path, 0600)); }},
        {"fopen", [](const char* path) { WriteAll(fopen(path, "we")); }},
        {"fopen64", [](const char* path) { WriteAll(fopen64(path, "w")); }},
        {"ofstream", [](const char* path) { std::ofstream(path) << "text"; }},
        {"freopen", [](const char* path) { WriteAll(freopen(path, "w", tmpfile())); }},
};

TEST_F(PhoneTest, EveryWayToWriteLandsBelowTheFolder) {
    for (const Writer& writer : kWriters) {
        for (const char* path : {"/data/vendor/file", "//data/./vendor//file",
                                 "/tmp/../data/vendor/file", "/data/vendor/../vendor/file"}) {
            SCOPED_TRACE(testing::Message() << writer.name << " " << path);
            writer.write(path);
            EXPECT_EQ(Read(root_ / "data/vendor/file"), "text");
            EXPECT_EQ(Read(path), "text");
            EXPECT_EQ(unlink(path), 0);
            EXPECT_FALSE(fs::exists(root_ / "data/vendor/file"));
        }
    }
}

TEST_F(PhoneTest, CallsOnNamesAndStatusMeetTheSameFile) {
    const char* kFile = "/data/vendor/file";
    Write(kFile, "0123456789");
    struct stat status = {};
    EXPECT_EQ(stat(kFile, &status), 0);
    EXPECT_EQ(status.st_size, 10);
    EXPECT_EQ(chmod(kFile, 0640), 0);
    EXPECT_EQ(fs::status(root_ / "data/vendor/file").permissions(), fs::perms(0640));
    EXPECT_EQ(access(kFile, R_OK), 0);
    EXPECT_EQ(truncate(kFile, 3), 0);
    EXPECT_EQ(fs::file_size(kFile), 3U);
    EXPECT_EQ(rename(kFile, "/data/vendor/other"), 0);
    EXPECT_EQ(access(kFile, F_OK), -1);
    EXPECT_EQ(link("/data/vendor/other", kFile), 0);
    EXPECT_EQ(remove("/data/vendor/other"), 0);
    EXPECT_EQ(mkdir("/data/vendor/folder", 0700), 0);
    fs::copy_file(kFile, "/data/vendor/folder/copy");
    EXPECT_EQ(Read(root_ / "data/vendor/folder/copy"), "012");
    const fs::directory_iterator begin("/data/vendor/folder");
    EXPECT_EQ(std::distance(begin, fs::directory_iterator()), 1);
    EXPECT_EQ(fs::remove_all("/data/vendor/folder"), 2U);
    char name[] = "/data/vendor/XXXXXX.tmp";
    WriteAll(mkstemps(name, 4));
    EXPECT_EQ(Read(root_.string() + name), "text");
    char real[PATH_MAX];
    EXPECT_STREQ(realpath("/data/./vendor/file", real), "/data/vendor/file");
}

TEST_F(PhoneTest, PathsOfTheWorkstationAreLeftAlone) {
    Write(base_ / "data", "outside");
    EXPECT_EQ(Read(base_ / "data"), "outside");
    EXPECT_FALSE(fs::exists("/database"));
    EXPECT_TRUE(fs::exists("/dev/null"));
    EXPECT_EQ(access("/dev/oem_ipc10", F_OK), -1);
    const fs::path before = fs::current_path();
    fs::current_path(base_);
    EXPECT_EQ(Read("data"), "outside");
    fs::current_path(before);
}

TEST_F(PhoneTest, WithoutTheVariableNothingIsRedirected) {
    Write("/data/vendor/file", "text");
    SetRoot(nullptr);
    EXPECT_FALSE(fs::exists("/data/vendor/file"));
    EXPECT_EQ(open(velmar_phone::kChannelDevice, O_RDWR), -1);
    EXPECT_EQ(property_set("a.b", "1"), -1);
    EXPECT_EQ(__system_property_find("a.b"), nullptr);
}

struct Resolution {
    const char* path;
    // Where it leads, below the phone's folder, or the error.
    const char* file;
    int error;
};

TEST_F(PhoneTest, PathsResolveAsInARootOfTheirOwn) {
    const std::string canary = (base_ / "canary").string();
    Write(root_ / "etc/inside", "inside");
    Write(root_ / "data/file", "file");
    fs::create_symlink("/etc/inside", root_ / "data/absolute");
    fs::create_symlink("../../../../../etc/inside", root_ / "data/climbing");
    fs::create_symlink(canary, root_ / "data/canary");
    fs::create_symlink("loop", root_ / "data/loop");
    fs::create_symlink("/data/vendor/new", root_ / "data/dangling");
    fs::create_symlink("/etc", root_ / "data/directory");
    const std::string climb = "/data/../../../../../../../../.." + canary;
    const Resolution kResolutions[] = {
            {"/data/absolute", "etc/inside", 0},
            {"/data/climbing", "etc/inside", 0},
            {"/data/directory/inside", "etc/inside", 0},
            {"/data/directory/../data/file", "data/file", 0},
            {"/data/../etc/inside", "etc/inside", 0},
            {"/data/../../../etc/inside", "etc/inside", 0},
            {"/data/canary", nullptr, ENOENT},
            {climb.c_str(), nullptr, ENOENT},
            {"/data/loop", nullptr, ELOOP},
            {"/data/none/../file", nullptr, ENOENT},
            {"/data/file/../file", nullptr, ENOTDIR},
            {"/data/file/", nullptr, ENOTDIR},
            {"/data/file/.", nullptr, ENOTDIR},
            {"/data/dangling", nullptr, ENOENT},
    };
    for (const Resolution& resolution : kResolutions) {
        SCOPED_TRACE(resolution.path);
        struct stat found = {};
        errno = 0;
        EXPECT_EQ(stat(resolution.path, &found), resolution.error == 0 ? 0 : -1);
        EXPECT_EQ(errno, resolution.error);
        if (resolution.file == nullptr) continue;
        struct stat expected = {};
        EXPECT_EQ(stat((root_ / resolution.file).c_str(), &expected), 0);
        EXPECT_EQ(found.st_ino, expected.st_ino);
    }
    Write("/data/dangling", "through the link");
    EXPECT_EQ(Read(root_ / "data/vendor/new"), "through the link");
    // What escapes the phone's own directories keeps its place: without it, it would be outside.
    char real[PATH_MAX];
    EXPECT_EQ(realpath("/data/../etc/inside", real), fs::canonical(root_ / "etc/inside").string());
}

TEST_F(PhoneTest, CallsOnALinkItselfDoNotFollowIt) {
    Write(root_ / "etc/inside", "inside");
    fs::create_symlink("/etc/inside", root_ / "data/link");
    char target[64] = {};
    EXPECT_EQ(readlink("/data/link", target, sizeof(target)), 11);
    EXPECT_STREQ(target, "/etc/inside");
    struct stat status = {};
    EXPECT_EQ(lstat("/data/link", &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_EQ(open("/data/link", O_RDONLY | O_NOFOLLOW), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(open("/data/link", O_RDWR | O_CREAT | O_EXCL, 0600), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(rename("/data/link", "/data/moved"), 0);
    EXPECT_EQ(unlink("/data/moved"), 0);
    EXPECT_EQ(Read(root_ / "etc/inside"), "inside");
}

using PhoneDeathTest = PhoneTest;

TEST_F(PhoneDeathTest, CallsThatAreNotRedirectedAreLoud) {
    glob_t found = {};
    EXPECT_DEATH(static_cast<void>(glob("/data/*", 0, nullptr, &found)),
                 "glob\\(\"/data/\\*\"\\) is not redirected");
    EXPECT_DEATH(static_cast<void>(execl("/vendor/bin/tool", "tool", nullptr)),
                 "/vendor/bin/tool\"\\) is not");
    sockaddr_un address = {AF_UNIX, "/data/socket"};
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_DEATH(static_cast<void>(connect(0, name, sizeof(address))),
                 "connect\\(\"/data/socket\"\\) is not");
}

TEST_F(PhoneDeathTest, AnUnusableFolderIsLoud) {
    struct {
        std::string root;
        const char* message;
    } const kFolders[] = {
            {"relative", "expected the absolute path"},
            {"/", "expected the absolute path"},
            {"/data/phone", "must not lie below"},
            {"/nowhere/at/all", "expected a folder"},
            {base_.string(), "expected a state file"},
            {(root_ / "data").string(), "has 5 bytes, expected"},
    };
    Write(root_ / "data/phone_state", "short");
    for (const auto& folder : kFolders) {
        SetRoot(folder.root.c_str());
        EXPECT_DEATH(static_cast<void>(access("/data", F_OK)), folder.message);
    }
}

TEST_F(PhoneTest, ALibraryIsLoadedFromThePhoneOrByTheCallersRunPath) {
    Write(root_ / "data/lib.so", "no library");
    EXPECT_EQ(dlopen("/data/lib.so", RTLD_NOW), nullptr);
    EXPECT_NE(std::string(dlerror())  // NOLINT(concurrency-mt-unsafe)
                      .find(root_.string() + "/data/lib.so"),
              std::string::npos);
    void* library = dlopen("libc.so.6", RTLD_NOW);
    EXPECT_NE(library, nullptr);
    dlclose(library);
}

TEST_F(PhoneTest, PropertiesFollowTheRulesOfThePlatform) {
    Write(root_ / "refused_properties", "sys.refused\nsys.other\n");
    Write(root_ / "properties/sys.empty", "");
    struct {
        std::string name;
        std::string value;
        bool is_set;
    } const kSettings[] = {
            {"persist.vendor.a-b_c@d:e", "1", true},
            {"sys.longest", std::string(91, 'v'), true},
            {"sys.too_long", std::string(92, 'v'), false},
            {"ro.once", "first", true},
            {"ro.once", "second", false},
            {"sys.twice", "first", true},
            {"sys.twice", "second", true},
            {"sys.refused", "1", false},
            {"sys.refused.not", "1", true},
            {"", "1", false},
            {".sys", "1", false},
            {"sys.", "1", false},
            {"sys..a", "1", false},
            {"../sys", "1", false},
            {"a/b", "1", false},
            {"sys a", "1", false},
    };
    for (const auto& setting : kSettings) {
        SCOPED_TRACE(setting.name);
        EXPECT_EQ(property_set(setting.name.c_str(), setting.value.c_str()) == 0, setting.is_set);
        if (setting.is_set) {
            EXPECT_EQ(Read(root_ / "properties" / setting.name), setting.value);
        }
    }
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("ro.once", value, "default"), 5);
    EXPECT_STREQ(value, "first");
    EXPECT_EQ(property_get("sys.none", value, "default"), 7);
    EXPECT_STREQ(value, "default");
    EXPECT_EQ(property_get("sys.none", value, nullptr), 0);
    EXPECT_EQ(property_get("sys.empty", value, "default"), 0);
    EXPECT_EQ(__system_property_find("sys.none"), nullptr);
    EXPECT_NE(__system_property_find("sys.empty"), nullptr);
    EXPECT_EQ(__system_property_find("ro.once"), __system_property_find("ro.once"));
    for (const auto& file : fs::directory_iterator(root_ / "properties")) {
        EXPECT_NE(file.path().filename().string()[0], '.') << "left behind";
    }
}

TEST_F(PhoneTest, ADeviceWithoutModemCannotBeOpened) {
    EXPECT_EQ(open(velmar_phone::kChannelDevice, O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    { const DeviceSocket gone(root_ / "dev/oem_ipc1"); }
    EXPECT_EQ(open(velmar_phone::kChannelDevice, O_RDWR), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST_F(DeviceTest, TheChannelKeepsMessageBoundaries) {
    const unique_fd fd = OpenChannel();
    EXPECT_EQ(fcntl(fd, F_GETFD), 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    const std::string largest(kLargestMessage, 'm');
    EXPECT_EQ(write(fd, largest.data(), largest.size()), static_cast<ssize_t>(largest.size()));
    EXPECT_EQ(write(fd, "second", 6), 6);
    EXPECT_EQ(channel_.Receive(), largest);
    EXPECT_EQ(channel_.Receive(), "second");
    channel_.Send("one");
    channel_.Send("");
    channel_.Send("two");
    char buffer[16];
    EXPECT_EQ(read(fd, buffer, sizeof(buffer)), 3);
    EXPECT_EQ(read(fd, buffer, sizeof(buffer)), 0);
    EXPECT_EQ(read(fd, buffer, sizeof(buffer)), 3);
}

TEST_F(DeviceTest, OpenHonoursItsFlags) {
    const unique_fd fd = OpenChannel(O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    char byte;
    EXPECT_EQ(read(fd, &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(DeviceTest, AModemThatIsGoneGivesErrorsAndNoSignal) {
    // Whoever started the test may have it ignored.
    EXPECT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    const unique_fd fd = OpenChannel();
    const unique_fd copy(dup(fd));
    channel_.HangUp();
    char byte;
    EXPECT_EQ(read(fd, &byte, 1), 0);
    for (const int open_fd : {fd.get(), copy.get()}) {
        EXPECT_EQ(write(open_fd, "x", 1), -1);
        EXPECT_EQ(errno, EIO);
    }
}

TEST_F(DeviceTest, ANumberThatIsUsedAgainIsNoDevice) {
    AddFault("write", velmar_phone::kChannelDevice, EIO, 0, 100);
    int (*const kCloses[])(int) = {
            close,
            [](int fd) { return fclose(fdopen(fd, "r+")); },
            [](int fd) { return close_range(static_cast<unsigned>(fd), ~0U, 0); },
    };
    const uint64_t one = 1;
    for (const auto& close_device : kCloses) {
        const int fd = OpenChannel().release();
        // The close shall reach nothing else: the modem's end has a higher number.
        channel_.HangUp();
        EXPECT_EQ(write(fd, "x", 1), -1);
        EXPECT_EQ(close_device(fd), 0);
        // Comes into being unseen, with the lowest free number.
        const unique_fd event(eventfd(0, EFD_CLOEXEC));
        ASSERT_EQ(event, fd);
        EXPECT_EQ(write(event, &one, sizeof(one)), 8);
        const unique_fd device = OpenChannel();
        EXPECT_EQ(dup2(event, device), device);
        EXPECT_EQ(write(device, &one, sizeof(one)), 8);
    }
}

TEST_F(DeviceTest, TheBootDeviceAnswersWithTheModemsState) {
    const unique_fd fd = OpenBoot();
    struct {
        int state;
        int answer;
    } const kStates[] = {{0, 0}, {4, 4}, {7, 7}, {-1, -1}};
    for (const auto& expected : kStates) {
        state_->boot_state = expected.state;
        EXPECT_EQ(ioctl(fd, velmar_phone::kBootStateIoctl), expected.answer);
    }
    EXPECT_EQ(errno, EIO);
    int size = 0;
    EXPECT_EQ(ioctl(fd, FIONREAD, &size), -1);
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(DeviceTest, EachChangeOfStateWakesOneWait) {
    const unique_fd fd = OpenBoot();
    boot_.Send("change");
    boot_.Send("change");
    boot_.Send("change");
    pollfd waited = {fd, POLLIN | POLLHUP | POLLRDNORM, 0};
    timespec now = {};
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd.get(), &set);
    EXPECT_EQ(poll(&waited, 1, 0), 1);
    EXPECT_EQ(waited.revents, POLLIN | POLLRDNORM);
    EXPECT_EQ(ppoll(&waited, 1, &now, nullptr), 1);
    EXPECT_EQ(pselect(fd + 1, &set, nullptr, nullptr, &now, nullptr), 1);
    EXPECT_EQ(poll(&waited, 1, 0), 0);
    boot_.HangUp();
    EXPECT_EQ(poll(&waited, 1, -1), 1);
    EXPECT_NE(waited.revents & POLLHUP, 0);
}

TEST_F(DeviceTest, WaitingForTheChannelConsumesNothing) {
    const unique_fd fd = OpenChannel(O_RDWR | O_NONBLOCK);
    channel_.Send("message");
    for (int i = 0; i < 2; ++i) {
        pollfd waited = {fd, POLLIN, 0};
        EXPECT_EQ(poll(&waited, 1, 0), 1);
    }
    char buffer[16];
    EXPECT_EQ(read(fd, buffer, sizeof(buffer)), 7);
}

struct FaultCase {
    const char* call;
    int (*make)(const char*);
};

int OpenToRead(const char* path) {
    const unique_fd fd(open(path, O_RDONLY));
    return fd < 0 ? -1 : 0;
}

int CopyInKernel(const char* source, const char* target) {
    const unique_fd from(open(source, O_RDONLY));
    const unique_fd to(open(target, O_WRONLY));
    return sendfile(to, from, nullptr, 1) == 1 ? 0 : -1;
}

// What each family stands for; a file is there for each call.
constexpr FaultCase kFaultCases[] = {
        {"open", OpenToRead},
        {"open",
         [](const char* path) {
             FILE* file = fopen(path, "r");
             return file == nullptr ? -1 : fclose(file);
         }},
        {"stat",
         [](const char* path) {
             struct stat status;
             return stat(path, &status);
         }},
        {"stat",
         [](const char* path) {
             struct stat status;
             return lstat(path, &status);
         }},
        {"chmod", [](const char* path) { return chmod(path, 0600); }},
        {"unlink", [](const char* path) { return unlink(path); }},
        {"unlink", [](const char* path) { return remove(path); }},
        {"rename", [](const char* path) { return rename(path, "/data/elsewhere"); }},
        {"rename", [](const char* path) { return rename("/data/source", path); }},
        {"read",
         [](const char* path) {
             const unique_fd fd(open(path, O_RDONLY));
             char byte;
             return read(fd, &byte, 1) == 1 ? 0 : -1;
         }},
        {"write",
         [](const char* path) {
             const unique_fd fd(open(path, O_WRONLY));
             return pwrite(fd, "x", 1, 0) == 1 ? 0 : -1;
         }},
        {"read", [](const char* path) { return CopyInKernel(path, "/data/source"); }},
        {"write", [](const char* path) { return CopyInKernel("/data/source", path); }},
        {"close", [](const char* path) { return close(open(path, O_RDONLY)); }},
};

TEST_F(PhoneTest, FaultsStrikeTheirCallAndPathOnly) {
    for (const FaultCase& fault : kFaultCases) {
        SCOPED_TRACE(fault.call);
        state_->fault_count = 0;
        AddFault(fault.call, "/data/other*", EROFS);
        AddFault("mkdir", "/data/f*", EROFS);
        AddFault(fault.call, "/data/f?le", ENOSPC, 0, 1, 1);
        for (const int expected : {0, ENOSPC, 0}) {
            // Files that the test opens by their real names are the phone's as well.
            state_->fault_count = 0;
            Write(root_ / "data/file", "x");
            Write(root_ / "data/source", "x");
            state_->fault_count = 3;
            errno = 0;
            EXPECT_EQ(fault.make("/data/file"), expected == 0 ? 0 : -1);
            if (expected != 0) {
                EXPECT_EQ(errno, expected);
            }
        }
    }
}

TEST_F(PhoneTest, FileStreamsMeetFullDisks) {
    AddFault("write", "/data/file", ENOSPC, 0, 100);
    std::ofstream file("/data/file");
    file << "text" << std::flush;
    EXPECT_FALSE(file.good());
    EXPECT_EQ(fs::file_size(root_ / "data/file"), 0U);
}

TEST_F(PhoneTest, ReadsComeOutShort) {
    Write("/data/file", "0123456789");
    AddFault("read", "/data/file", 0, 4);
    AddFault("read", "/data/file", 0, 2);
    AddFault("read", "/data/file", 0, 0);
    const unique_fd fd(open("/data/file", O_RDONLY));
    char bytes[16];
    iovec parts[] = {{bytes, 8}, {bytes + 8, 8}};
    EXPECT_EQ(read(fd, bytes, sizeof(bytes)), 4);
    EXPECT_EQ(readv(fd, parts, 2), 2);
    EXPECT_EQ(read(fd, bytes, sizeof(bytes)), 0);
    EXPECT_EQ(read(fd, bytes, sizeof(bytes)), 4);
}

TEST_F(DeviceTest, WhatAShortWriteTakesJoinsTheRest) {
    const unique_fd fd = OpenChannel();
    AddFault("write", velmar_phone::kChannelDevice, 0, 2, 2);
    AddFault("write", velmar_phone::kChannelDevice, EAGAIN);
    EXPECT_EQ(write(fd, "abcdefgh", 8), 2);
    EXPECT_EQ(write(fd, "cdefgh", 6), 2);
    EXPECT_EQ(write(fd, "efgh", 4), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(channel_.HasPacket());
    char rest[] = "efgh";
    iovec parts[] = {{rest, 1}, {rest + 1, 3}};
    EXPECT_EQ(writev(fd, parts, 2), 4);
    EXPECT_EQ(channel_.Receive(), "abcdefgh");
}

TEST_F(DeviceTest, ARestThatFindsNoRoomIsTriedAgain) {
    const unique_fd fd = OpenChannel(O_RDWR | O_NONBLOCK);
    AddFault("write", velmar_phone::kChannelDevice, 0, 2);
    EXPECT_EQ(write(fd, "abcdefgh", 8), 2);
    int fillers = 0;
    while (send(fd, "filler", 6, 0) == 6) ++fillers;
    EXPECT_EQ(write(fd, "cdefgh", 6), -1);
    EXPECT_EQ(errno, EAGAIN);
    for (; fillers > 0; --fillers) EXPECT_EQ(channel_.Receive(), "filler");
    EXPECT_EQ(write(fd, "cdefgh", 6), 6);
    EXPECT_EQ(channel_.Receive(), "abcdefgh");
}

TEST_F(DeviceTest, AMessageThatIsGivenUpDoesNotSpoilTheNext) {
    const unique_fd fd = OpenChannel();
    AddFault("write", velmar_phone::kChannelDevice, 0, 2);
    EXPECT_EQ(write(fd, "abcdefgh", 8), 2);
    EXPECT_EQ(write(fd, "whole", 5), 5);
    EXPECT_EQ(channel_.Receive(), "whole");
}

TEST_F(DeviceTest, FaultsStrikeDevices) {
    const unique_fd channel = OpenChannel();
    const unique_fd boot = OpenBoot();
    AddFault("read", "/dev/oem_*", EIO);
    AddFault("read", "/dev/oem_*", 0, 0);
    AddFault("select", velmar_phone::kChannelDevice, EINTR);
    AddFault("poll", velmar_phone::kBootDevice, 0, 1);
    AddFault("ioctl", velmar_phone::kBootDevice, ENODEV);
    AddFault("open", velmar_phone::kChannelDevice, EACCES);
    channel_.Send("message");
    char buffer[16];
    EXPECT_EQ(read(channel, buffer, sizeof(buffer)), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(read(channel, buffer, sizeof(buffer)), 0);
    EXPECT_EQ(read(channel, buffer, sizeof(buffer)), 7);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(channel.get(), &set);
    EXPECT_EQ(select(channel + 1, &set, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINTR);
    pollfd waited = {boot, POLLIN, POLLIN};
    EXPECT_EQ(poll(&waited, 1, -1), 1);
    EXPECT_EQ(waited.revents, 0);
    EXPECT_EQ(ioctl(boot, velmar_phone::kBootStateIoctl), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(open(velmar_phone::kChannelDevice, O_RDWR), -1);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(PhoneTest, ThreadsTakeEachHitOnce) {
    AddFault("stat", "/data", EIO, 0, 100);
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&failures] {
            struct stat status;
            for (int n = 0; n < 50; ++n) failures += stat("/data", &status) != 0 ? 1 : 0;
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, 100);
}

}  // namespace
