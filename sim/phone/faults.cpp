#include "faults.h"

#include <errno.h>
#include <fnmatch.h>
#include <string.h>

#include <algorithm>

#include "device.h"

namespace velmar_phone {
namespace {

bool HasFaults(const Phone* phone) {
    return phone != nullptr && phone->state->fault_count.load(std::memory_order_relaxed) != 0;
}

// Takes one off a count that other processes take from too.
bool TakeOne(std::atomic<int32_t>* count) {
    int32_t left = count->load(std::memory_order_acquire);
    while (left > 0 && !count->compare_exchange_weak(left, left - 1, std::memory_order_acq_rel)) {
    }
    return left > 0;
}

bool Matches(const Fault& fault, const char* call, const char* path, const char* other_path) {
    if (fault.remaining.load(std::memory_order_acquire) <= 0) return false;
    if (strncmp(fault.call, call, sizeof(fault.call)) != 0) return false;
    return fnmatch(fault.path, path, 0) == 0 ||
           (other_path != nullptr && fnmatch(fault.path, other_path, 0) == 0);
}

}  // namespace

std::optional<FaultHit> TakeFault(const Phone& phone, const char* call, const char* path,
                                  const char* other_path) {
    if (!HasFaults(&phone)) return std::nullopt;
    const int count =
            std::min(phone.state->fault_count.load(std::memory_order_acquire), kMaxFaults);
    for (int i = 0; i < count; ++i) {
        Fault& fault = phone.state->faults[i];
        if (!Matches(fault, call, path, other_path) || TakeOne(&fault.skip)) continue;
        // Read before the last hit is taken: with it the slot is free for another rule.
        const FaultHit hit = {fault.error, std::max(fault.length, 0)};
        if (TakeOne(&fault.remaining)) return hit;
    }
    return std::nullopt;
}

std::optional<FaultHit> TakeDescriptorFault(const char* call, int fd) {
    const Device* device = FindDevice(fd);
    const Phone* phone = device != nullptr ? device->phone : LastPhone();
    if (!HasFaults(phone)) return std::nullopt;
    if (device != nullptr) return TakeFault(*phone, call, device->path.text);
    const int saved_errno = errno;
    PathText path;
    const bool is_phone_file =
            ReadLink(DescriptorName(fd).text, &path) && StripRoot(*phone, path.text);
    errno = saved_errno;
    return is_phone_file ? TakeFault(*phone, call, path.text) : std::nullopt;
}

std::optional<ssize_t> EndBefore(const char* call, int fd, size_t* size) {
    const auto hit = TakeDescriptorFault(call, fd);
    if (!hit) return std::nullopt;
    if (hit->error != 0) return Failure(hit->error);
    *size = std::min(*size, static_cast<size_t>(hit->length));
    return *size == 0 ? std::optional<ssize_t>(0) : std::nullopt;
}

}  // namespace velmar_phone
