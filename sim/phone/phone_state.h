#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

// Where things lie below the folder that VELMAR_PHONE_ROOT names, and the state that the processes
// of one simulated phone share: libvelmar_phone.so in each program that runs in the phone, and the
// simulated modem, which drives them. Whoever makes the folder creates the state file, of exactly
// sizeof(PhoneState) zero bytes, and the directories, before the first program starts.
namespace velmar_phone {

// Environment variable with the absolute path of the phone's folder.
constexpr char kRootVariable[] = "VELMAR_PHONE_ROOT";

// The devices. Below the folder each is a listening AF_UNIX SOCK_SEQPACKET socket of the modem.
constexpr char kChannelDevice[] = "/dev/oem_ipc1";
constexpr char kBootDevice[] = "/dev/umts_boot0";

// What a phone has: paths of these, and below them. All others are the workstation's.
constexpr std::string_view kPhonePaths[] = {
        "/data",        "/vendor",   "/mnt/vendor", "/sys/devices/platform/cp-tm1",
        kChannelDevice, kBootDevice,
};

// Below the folder: the socket that log lines go to as datagrams, in the form in which liblog
// writes to logd: number of the buffer (1 byte), thread (2), seconds and nanoseconds of the wall
// clock (4 and 4, all little-endian), priority (1), tag, 0, text, 0. Without it nobody reads the
// log.
constexpr char kLogSocket[] = "/dev/socket/logdw";

// State of the modem as the boot device's ioctl gives it.
constexpr unsigned long kBootStateIoctl = 0x6F27;

// Below the folder: one file per property, named as the property, its content the value.
constexpr char kPropertyDirectory[] = "/properties";
// The platform bounds no name; here it is one of a file.
constexpr size_t kMaxPropertyName = 255;

// Whether a property can have this name.
inline bool IsPropertyName(std::string_view name) {
    constexpr std::string_view kLegal =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_@:";
    return !name.empty() && name.size() <= kMaxPropertyName && name.front() != '.' &&
           name.back() != '.' && name.find("..") == std::string_view::npos &&
           name.find_first_not_of(kLegal) == std::string_view::npos;
}

// Below the folder: names of properties whose setting is refused, one a line. May be missing.
constexpr char kRefusedProperties[] = "/refused_properties";
// Below the folder: the state file, mapped shared.
constexpr char kStateFile[] = "/phone_state";

// One injected fault: a libc call on a path of the phone that fails, or comes out short.
struct Fault {
    // How many more matching calls are hit; 0 is a free slot. Written last (release).
    std::atomic<int32_t> remaining;
    // How many matching calls pass before the first one is hit.
    std::atomic<int32_t> skip;
    // errno of the failing call, or 0 for what `length` says. A call on a path needs an errno.
    int32_t error;
    // With error 0. Of a read or write: the bytes that it moves at most; 0 in a read is end of
    // file. Of a poll, which returns 1: the revents of this device, such as POLLHUP, or 0 for none;
    // no other descriptor is ready. Of any other call on a descriptor: what it returns.
    int32_t length;
    // The call: "open" stands for every way to open a file, "stat" for all its relatives; "read",
    // "write", "select", "poll", "ioctl", "unlink", "rename", "chmod", "close". A sendfile is a
    // "read" of the one file and a "write" of the other.
    char call[16];
    // The path as the program names it, a pattern as of fnmatch(3) without flags.
    char path[232];
};

constexpr int kMaxFaults = 16;

struct PhoneState {
    // Answer of kBootStateIoctl.
    std::atomic<int32_t> boot_state;
    // Number of slots in use from the start; 0 lets every call pass untested.
    std::atomic<int32_t> fault_count;
    // How many messages the phone's processes have read from the channel, wrapping. A read counts
    // after it gave its bytes.
    std::atomic<uint32_t> channel_reads;
    Fault faults[kMaxFaults];
};

static_assert(std::atomic<int32_t>::is_always_lock_free, "shared between processes");

}  // namespace velmar_phone
