#include <android-base/stringprintf.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include "base/thread.h"
#include "message/request_list.h"
#include "message/sit_message.h"
#include "message/token_gen.h"
#include "phone_test_case.h"

using android::base::StringPrintf;
using velmar_message::VelmarMessage;

namespace {

// A generator of its own, so that a test chooses where it stands.
class TokenGenAt : public TokenGen {
  public:
    explicit TokenGenAt(uint32_t first) { next = first; }
};

TEST(TokenGenTest, TokensWrapBeforeTheOneThatMeansNone) {
    TokenGenAt tokens(0xFFFFFFFE);
    EXPECT_EQ(tokens.GetNext(), 0xFFFFFFFE);
    EXPECT_EQ(tokens.GetNext(), 0u);
}

TEST(TokenGenTest, ThreadsNeverShareAToken) {
    constexpr unsigned int kEach = 20000;
    TokenGenAt tokens(0);
    const auto take = [&tokens] {
        for (unsigned int i = 0; i < kEach; ++i) tokens.GetNext();
    };
    std::thread other(take);
    take();
    other.join();
    // One that was given twice is one that is missing here.
    EXPECT_EQ(tokens.GetNext(), 2 * kEach);
}

TEST(SitMessageTest, OnlyNewRequestsTakeATokenAndTakeThemInTurn) {
    const unsigned int token = NewRequest()->GetToken();
    SitMessage response;
    EXPECT_TRUE(response.InitialHeader(VelmarMessage::kFileMessage, velmar_message::RESPONSE));
    auto received = Receive("type: INDICATION");
    EXPECT_TRUE(received->InitialHeader(VelmarMessage::kFileMessage, velmar_message::REQUEST));
    EXPECT_EQ(Text(&response) + Text(received.get()),
              "type: RESPONSE message_id: 9type: REQUEST message_id: 9");
    EXPECT_EQ(NewRequest()->GetToken(), token + 1);
}

using SitMessageLogTest = LogTestCase;

// Written by hand, so that the numbers on the wire are pinned.
TEST_F(SitMessageLogTest, ReadsHeaderAsReceived) {
    struct Case {
        const char* what;
        std::string bytes;
        // Type, payload, token and result as they are read.
        const char* header;
    };
    const Case cases[] = {
            {"request for a property", {"\x08\x01\x10\x07\x18\x05\x3A\x00", 8}, "1 7 5 5"},
            {"response with a result", {"\x08\x02\x18\x00\x20\x00", 6}, "2 0 0 0"},
            {"id 7 that carries a file", {"\x08\x03\x10\x07\x4A\x00", 6}, "3 9 4294967295 5"},
            {"type without a name", {"\x08\x04\x18\x09", 4}, "0 0 9 5"},
            {"result without a name", {"\x08\x02\x20\x63", 4}, "2 0 4294967295 5"},
            {"temperature without a type", {"\x18\x01\x52\x00", 4}, "0 10 1 5"},
            {"input that stops midway", {"\x08\x01\x18\x05\x10", 5}, "1 0 5 5"},
    };
    for (const Case& row : cases) {
        SitMessage message(row.bytes.data(), static_cast<int>(row.bytes.size()));
        EXPECT_EQ(StringPrintf("%d %d %u %d", message.GetType(), message.GetMessageId(),
                               message.GetToken(), message.GetResult()),
                  row.header)
                << row.what;
    }
    EXPECT_EQ(log.TakeLines(), "E ParseFromArray failed");
}

TEST_F(SitMessageLogTest, WhatIsEmptyOrDoesNotFitIsNotEncoded) {
    char buffer[1];
    SitMessage without_envelope("\x08\x01", 0);
    EXPECT_FALSE(
            without_envelope.InitialHeader(VelmarMessage::kFileMessage, velmar_message::REQUEST));
    EXPECT_FALSE(without_envelope.SerializeSendMessage(buffer, sizeof(buffer)));
    EXPECT_EQ(without_envelope.GetProtobufSerialDataLength(), 0);
    EXPECT_FALSE(NewRequest()->SerializeSendMessage(buffer, sizeof(buffer)));
    EXPECT_EQ(SitMessage().GetProtobufSerialDataLength(), 0);
    EXPECT_EQ(log.TakeLines(),
              "E Message not exist; E Message not exist; "
              "E SerializeToArray failed!; E Protobuf length is invalid 0");
}

TEST(RequestListTest, ResponsesAreClonedInAndOutAndReplaced) {
    RequestList list;
    RequestRecord record(0);
    list.AddRecord(&record);
    list.UpdateResponseMessage(0, Receive("type: RESPONSE result: FAILURE").get());
    list.UpdateResponseMessage(0, Receive("type: RESPONSE result: SUCCESS").get());
    list.GetRecord(0).message->GetVelmarMessage()->set_token(99);
    RequestRecord copy = list.GetRecord(0);
    EXPECT_EQ(copy.token, 0u);
    EXPECT_EQ(Text(copy.message), "type: RESPONSE result: SUCCESS");
    // The token comes round again, and the record begins anew.
    list.AddRecord(&record);
    EXPECT_EQ(list.GetRecord(0).message, nullptr);
}

TEST(RequestListTest, RecordsAreRemovedOneOrAllAndUnknownTokensChangeNothing) {
    RequestList list;
    for (unsigned int token : {1u, 2u, kNoToken}) {
        RequestRecord record(token);
        list.AddRecord(&record);
    }
    list.RemoveRecord(2);
    list.RemoveRecord(5);
    list.UpdateResponseMessage(5, Receive("type: RESPONSE").get());
    for (unsigned int token : {2u, 5u, kNoToken}) EXPECT_FALSE(list.IsRecordInList(token)) << token;
    EXPECT_TRUE(list.IsRecordInList(1));
    list.CleanRecord();
    EXPECT_FALSE(list.IsRecordInList(1));
}

class Flag : public Runnable {
  public:
    void Run() override {
        usleep(20000);
        ran = true;
    }
    bool ran = false;
};

using ThreadTest = LogTestCase;

TEST_F(ThreadTest, DestructionWaitsForTheWorkOfAStartedThread) {
    Flag flag;
    { Thread unstarted(&flag); }
    EXPECT_EQ(log.TakeLines(), "I Thread is not started");
    {
        Thread thread(&flag);
        EXPECT_EQ(thread.Start(), 0);
    }
    EXPECT_TRUE(flag.ran);
}

}  // namespace
