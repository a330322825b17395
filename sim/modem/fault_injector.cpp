#include "sim/modem/fault_injector.h"

#include <string.h>

#include <algorithm>
#include <stdexcept>

namespace velmar_sim {

namespace {

// Copies `text` with its final null into a fixed field of the state page.
template <size_t kSize>
void CopyText(const std::string& text, char (&field)[kSize]) {
    if (text.empty() || text.size() >= kSize) {
        throw std::runtime_error("fault: \"" + text + "\" has " + std::to_string(text.size()) +
                                 " bytes, expected 1 to " + std::to_string(kSize - 1));
    }
    memcpy(field, text.c_str(), text.size() + 1);
}

}  // namespace

void FaultInjector::Add(const FaultRule& rule) {
    if (rule.times < 1 || rule.skip < 0 || rule.length < 0) {
        throw std::runtime_error("fault: expected times above 0, skip and length not below 0");
    }
    const std::lock_guard<std::mutex> guard(lock);
    for (int slot = 0; slot < velmar_phone::kMaxFaults; ++slot) {
        velmar_phone::Fault& fault = state->faults[slot];
        if (fault.remaining.load(std::memory_order_acquire) > 0) continue;
        CopyText(rule.call, fault.call);
        CopyText(rule.path, fault.path);
        fault.error = rule.error;
        fault.length = rule.length;
        fault.skip.store(rule.skip, std::memory_order_relaxed);
        fault.remaining.store(rule.times, std::memory_order_release);
        const int in_use = state->fault_count.load(std::memory_order_relaxed);
        state->fault_count.store(std::max(in_use, slot + 1), std::memory_order_release);
        return;
    }
    throw std::runtime_error("fault: all " + std::to_string(velmar_phone::kMaxFaults) +
                             " slots are in use");
}

void FaultInjector::Clear() {
    const std::lock_guard<std::mutex> guard(lock);
    for (velmar_phone::Fault& fault : state->faults) {
        fault.remaining.store(0, std::memory_order_release);
    }
    state->fault_count.store(0, std::memory_order_release);
}

int FaultInjector::Left() const {
    int left = 0;
    for (const velmar_phone::Fault& fault : state->faults) {
        left += fault.remaining.load(std::memory_order_acquire);
    }
    return left;
}

}  // namespace velmar_sim
