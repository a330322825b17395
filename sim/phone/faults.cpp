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
    while (left > 0) {
        if (count->compare_exchange_weak(left, left - 1, std::memory_order_acq_rel)) return true;
    }
    return false;
}

bool Matches(const Fault& fault, const char* call, const char* path, const char* other_path) {
    if (fault.remaining.load(std::memory_order_acquire) <= 0) return false;
    if (strncmp(fault.call, call, sizeof(fault.call)) != 0) return false;
    if (fnmatch(fault.path, path, 0) == 0) return true;
    return other_path != nullptr && fnmatch(fault.path, other_path, 0) == 0;
}

}  // namespace

bool TakeFault(const Phone& phone, const char* call, const char* path, const char* other_path,
               FaultHit* hit) {
    if (!HasFaults(&phone)) return false;
    const int count = std::clamp(phone.state->fault_count.load(std::memory_order_acquire), 0,
                                 static_cast<int32_t>(kMaxFaults));
    for (int i = 0; i < count; ++i) {
        Fault& fault = phone.state->faults[i];
        if (!Matches(fault, call, path, other_path) || TakeOne(&fault.skip)) continue;
        // Read before the last hit is taken: with it the slot is free for another rule.
        *hit = {fault.error, std::max(fault.length, 0)};
        if (TakeOne(&fault.remaining)) return true;
    }
    return false;
}

bool TakeDescriptorFault(const char* call, int fd, FaultHit* hit) {
    const Device* device = FindDevice(fd);
    const Phone* phone = device != nullptr ? device->phone : LastPhone();
    if (!HasFaults(phone)) return false;
    if (device != nullptr) return TakeFault(*phone, call, device->path.text, nullptr, hit);
    const int saved_errno = errno;
    PathText path;
    const bool is_phone_file = FindOpenPath(fd, &path) && StripRoot(*phone, path.text);
    errno = saved_errno;
    return is_phone_file && TakeFault(*phone, call, path.text, nullptr, hit);
}

bool FailsByFault(const char* call, int fd) {
    FaultHit hit;
    if (!TakeDescriptorFault(call, fd, &hit)) return false;
    errno = hit.error != 0 ? hit.error : EIO;
    return true;
}

bool TransferLimit::Ends() const {
    if (!hit_) return false;
    if (fault_.error != 0) errno = fault_.error;
    return fault_.error != 0 || fault_.length == 0;
}

void TransferLimit::Shorten(const iovec** parts, int* count) {
    if (!hit_ || *count < 1) return;
    first_ = (*parts)[0];
    Shorten(parts, &first_.iov_len);
    *parts = &first_;
    *count = 1;
}

}  // namespace velmar_phone
