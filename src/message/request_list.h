#pragma once

#include <pthread.h>

#include <cstdint>
#include <map>

#include "message/sit_message.h"
#include "message/token_gen.h"

// An outstanding request and the response that has come for it.
class RequestRecord {
  public:
    // A record that waits for its response; empty by default.
    explicit RequestRecord(unsigned int request_token = kNoToken);
    // Copies the token and clones the response.
    RequestRecord(const RequestRecord& other);
    virtual ~RequestRecord();

    // Copies the token and clones the response. Leaks a response already held: assign only to a
    // record without one.
    RequestRecord& operator=(const RequestRecord& other);

    uint32_t token;
    // Owned; null while no response has come.
    SitMessage* message;
};

// The outstanding requests by token. Every operation may be called by any thread.
//
// Messages are cloned on the way in and on the way out, so that no message is ever shared between
// the list and a caller.
class RequestList {
  public:
    RequestList();
    virtual ~RequestList();

    RequestList(const RequestList&) = delete;
    RequestList& operator=(const RequestList&) = delete;

    // Copies `record` into the list. The caller keeps `record`. A record without a token is
    // ignored.
    void AddRecord(RequestRecord* record);

    // A copy of the record, which owns its clone of the response; an empty record when there is
    // none for `token`.
    RequestRecord GetRecord(unsigned int token);

    // Removes the record of `token`, if there is one.
    void RemoveRecord(unsigned int token);

    // Removes every record.
    void CleanRecord();

    // Whether the request of `token` is outstanding.
    bool IsRecordInList(unsigned int token);

    // Stores a clone of `message` (which may be null) as the response for `token`, in place of one
    // stored before. Does nothing when there is no record of `token`. The caller keeps `message`.
    void UpdateResponseMessage(unsigned int token, SitMessage* message);

  protected:
    pthread_mutex_t lock;
    std::map<uint32_t, RequestRecord> records;
};
