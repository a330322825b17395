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

FaultInjector::FaultInjector(const PhoneFolder& folder, EventStream* event_stream)
    : events(event_stream), state(folder.MapState()) {
    for (Slot& slot : slots) slot.rule.times = 0;
}

void FaultInjector::Add(const FaultRule& rule) {
    if (rule.times < 1 || rule.skip < 0 || rule.length < 0) {
        throw std::runtime_error("fault: expected times above 0, skip and length not below 0");
    }
    const std::lock_guard<std::mutex> guard(lock);
    for (int slot = 0; slot < velmar_phone::kMaxFaults; ++slot) {
        velmar_phone::Fault& fault = state->faults[slot];
        if (fault.remaining.load(std::memory_order_acquire) > 0) continue;
        LookAt(slot);
        CopyText(rule.call, fault.call);
        CopyText(rule.path, fault.path);
        slots[slot] = {rule};
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
    for (int slot = 0; slot < velmar_phone::kMaxFaults; ++slot) {
        LookAt(slot);
        state->faults[slot].remaining.store(0, std::memory_order_release);
        slots[slot].rule.times = 0;
        slots[slot].hits = 0;
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

void FaultInjector::Look() {
    const std::lock_guard<std::mutex> guard(lock);
    for (int slot = 0; slot < velmar_phone::kMaxFaults; ++slot) LookAt(slot);
}

// Called with the lock held.
void FaultInjector::LookAt(int slot) {
    const FaultRule& rule = slots[slot].rule;
    const int remaining = state->faults[slot].remaining.load(std::memory_order_acquire);
    for (int& hits = slots[slot].hits; hits < rule.times - remaining; ++hits) {
        Event event = {Event::Kind::kFault, rule.path, rule.call};
        event.number = rule.error;
        event.total = rule.length;
        events->Emit(event);
    }
}

std::vector<std::string> FaultInjector::WithoutHit() const {
    const std::lock_guard<std::mutex> guard(lock);
    std::vector<std::string> all;
    for (const auto& [rule, hits] : slots) {
        if (rule.times > 0 && hits == 0 && !rule.optional)
            all.push_back(rule.call + " " + rule.path);
    }
    return all;
}

}  // namespace velmar_sim
