#include "message/request_list.h"

#include "base/mutex_guard.h"

namespace {

SitMessage* CloneOrNull(const SitMessage* message) {
    return message != nullptr ? message->Clone() : nullptr;
}

}  // namespace

RequestRecord::RequestRecord(unsigned int request_token) : token(request_token), message(nullptr) {}

RequestRecord::RequestRecord(const RequestRecord& other)
    : token(other.token), message(CloneOrNull(other.message)) {}

RequestRecord::~RequestRecord() {
    token = kNoToken;
    delete message;
}

RequestRecord& RequestRecord::operator=(const RequestRecord& other) {
    if (this == &other) return *this;
    message = CloneOrNull(other.message);
    token = other.token;
    return *this;
}

RequestList::RequestList() {
    pthread_mutex_init(&lock, nullptr);
}

RequestList::~RequestList() {
    CleanRecord();
    pthread_mutex_destroy(&lock);
}

void RequestList::AddRecord(RequestRecord* record) {
    MutexGuard guard(&lock);
    if (record->token == kNoToken) return;
    RequestRecord& entry = records[record->token];
    // A record that timed out keeps its late response. When the tokens have wrapped and its own
    // comes up again, this frees it, since the assignment does not.
    delete entry.message;
    entry = *record;
}

RequestRecord RequestList::GetRecord(unsigned int token) {
    MutexGuard guard(&lock);
    auto entry = records.find(token);
    return entry != records.end() ? entry->second : RequestRecord();
}

void RequestList::RemoveRecord(unsigned int token) {
    MutexGuard guard(&lock);
    records.erase(token);
}

void RequestList::CleanRecord() {
    MutexGuard guard(&lock);
    records.clear();
}

bool RequestList::IsRecordInList(unsigned int token) {
    MutexGuard guard(&lock);
    return records.count(token) != 0;
}

void RequestList::UpdateResponseMessage(unsigned int token, SitMessage* message) {
    MutexGuard guard(&lock);
    auto entry = records.find(token);
    if (entry == records.end()) return;
    delete entry->second.message;
    entry->second.message = CloneOrNull(message);
}
