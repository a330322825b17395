#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/thread.h"
#include "log_capture.h"
#include "message/request_list.h"
#include "message/sit_message.h"
#include "message/token_gen.h"

using testing::ElementsAre;
using velmar_message::VelmarMessage;

namespace {

// A generator of its own, so that a test chooses where it stands.
class TokenGenAt : public TokenGen {
  public:
    explicit TokenGenAt(uint32_t first) { next = first; }
};

std::unique_ptr<SitMessage> Received(const std::string& bytes) {
    return std::make_unique<SitMessage>(bytes.data(), static_cast<int>(bytes.size()));
}

std::unique_ptr<SitMessage> Request() {
    TokenGen::Init();
    auto message = std::make_unique<SitMessage>();
    message->InitialHeader(VelmarMessage::kPropertyMessage, velmar_message::REQUEST);
    return message;
}

TEST(TokenGenTest, TokensWrapBeforeTheOneThatMeansNone) {
    TokenGenAt tokens(0xFFFFFFFC);
    std::vector<unsigned int> taken(5);
    for (unsigned int& token : taken) token = tokens.GetNext();
    EXPECT_THAT(taken, ElementsAre(0xFFFFFFFC, 0xFFFFFFFD, 0xFFFFFFFE, 0u, 1u));
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
    auto first = Request();
    EXPECT_EQ(first->GetVelmarMessage()->message_id(), 7);
    SitMessage response;
    EXPECT_TRUE(response.InitialHeader(VelmarMessage::kFileMessage, velmar_message::RESPONSE));
    EXPECT_FALSE(response.GetVelmarMessage()->has_token());
    auto received = Received(std::string("\x08\x03", 2));
    EXPECT_TRUE(received->InitialHeader(VelmarMessage::kFileMessage, velmar_message::REQUEST));
    EXPECT_EQ(received->GetToken(), kNoToken);
    EXPECT_EQ(Request()->GetToken(), first->GetToken() + 1);
}

TEST(SitMessageTest, ReadsHeaderAsReceived) {
    struct Case {
        const char* what;
        std::string bytes;
        int type;
        int id;
        unsigned int token;
        int result;
    };
    // Written by hand, so that the numbers on the wire are pinned.
    const std::vector<Case> cases = {
            {"request for a property", std::string("\x08\x01\x10\x07\x18\x05\x3A\x00", 8), 1, 7, 5,
             5},
            {"response with a result", std::string("\x08\x02\x18\x00\x20\x00", 6), 2, 0, 0, 0},
            {"id 7 that carries a file", std::string("\x08\x03\x10\x07\x4A\x00", 6), 3, 9, kNoToken,
             5},
            {"type without a name", std::string("\x08\x04\x18\x09", 4), 0, 0, 9, 5},
            {"result without a name", std::string("\x08\x02\x20\x63", 4), 2, 0, kNoToken, 5},
            {"no type", std::string("\x18\x01", 2), 0, 0, 1, 5},
            {"temperature", std::string("\x08\x01\x52\x00", 4), 1, 10, kNoToken, 5},
            {"input that stops midway", std::string("\x08\x01\x18\x05\x10", 5), 1, 0, 5, 5},
    };
    LogCapture log;
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        auto message = Received(row.bytes);
        EXPECT_EQ(message->GetType(), row.type);
        EXPECT_EQ(message->IsRequest(), row.type == 1);
        EXPECT_EQ(message->IsResponse(), row.type == 2);
        EXPECT_EQ(message->IsIndication(), row.type == 3);
        EXPECT_EQ(message->GetMessageId(), row.id);
        EXPECT_EQ(message->GetToken(), row.token);
        EXPECT_EQ(message->GetResult(), row.result);
    }
    EXPECT_EQ(log.TakeLines(), "E ParseFromArray failed");
}

TEST(SitMessageTest, MessageWithoutEnvelopeRefusesEverything) {
    LogCapture log;
    for (auto& message : {Received(""), std::make_unique<SitMessage>(nullptr, 4),
                          std::make_unique<SitMessage>("\x08\x01", -1)}) {
        char buffer[8];
        EXPECT_EQ(message->GetVelmarMessage(), nullptr);
        EXPECT_EQ(message->GetType(), 0);
        EXPECT_EQ(message->GetToken(), kNoToken);
        EXPECT_FALSE(message->InitialHeader(VelmarMessage::kFileMessage, velmar_message::REQUEST));
        EXPECT_FALSE(message->SerializeSendMessage(buffer, sizeof(buffer)));
        EXPECT_EQ(message->GetProtobufSerialDataLength(), 0);
        std::unique_ptr<SitMessage> copy(message->Clone());
        EXPECT_EQ(copy->GetVelmarMessage(), nullptr);
    }
    EXPECT_EQ(log.Count("E Message not exist"), 6);
}

TEST(SitMessageTest, EncodesIntoExactlyItsLength) {
    auto message = Request();
    int length = message->GetProtobufSerialDataLength();
    std::string bytes(length, '\0');
    EXPECT_TRUE(message->SerializeSendMessage(bytes.data(), length));
    EXPECT_EQ(Received(bytes)->GetToken(), message->GetToken());

    LogCapture log;
    EXPECT_FALSE(message->SerializeSendMessage(bytes.data(), length - 1));
    EXPECT_EQ(SitMessage().GetProtobufSerialDataLength(), 0);
    EXPECT_EQ(log.TakeLines(), "E SerializeToArray failed!; E Protobuf length is invalid 0");
}

TEST(RequestListTest, ResponsesAreClonedInAndOutAndReplaced) {
    RequestList list;
    RequestRecord record(0);
    list.AddRecord(&record);
    EXPECT_EQ(list.GetRecord(0).message, nullptr);
    for (const char* bytes : {"\x08\x02\x20\x05", "\x08\x02\x20\x07"}) {
        auto response = Received(std::string(bytes, 4));
        list.UpdateResponseMessage(0, response.get());
    }
    list.GetRecord(0).message->GetVelmarMessage()->set_token(99);
    RequestRecord copy = list.GetRecord(0);
    EXPECT_EQ(copy.token, 0u);
    EXPECT_EQ(copy.message->GetToken(), kNoToken);
    EXPECT_EQ(copy.message->GetResult(), velmar_message::PROPERTY_FAILURE);
    // The token comes round again, and the record begins anew.
    list.AddRecord(&record);
    EXPECT_EQ(list.GetRecord(0).message, nullptr);
    list.UpdateResponseMessage(0, copy.message);
    list.UpdateResponseMessage(0, nullptr);
    EXPECT_EQ(list.GetRecord(0).message, nullptr);
    EXPECT_TRUE(list.IsRecordInList(0));
}

TEST(RequestListTest, RecordsAreRemovedOneOrAllAndUnknownTokensChangeNothing) {
    RequestList list;
    for (unsigned int token : {1u, 2u, 3u, kNoToken}) {
        RequestRecord record(token);
        list.AddRecord(&record);
    }
    EXPECT_FALSE(list.IsRecordInList(kNoToken));
    list.RemoveRecord(2);
    list.RemoveRecord(5);
    SitMessage response;
    list.UpdateResponseMessage(5, &response);
    EXPECT_TRUE(list.IsRecordInList(1));
    EXPECT_FALSE(list.IsRecordInList(2));
    EXPECT_FALSE(list.IsRecordInList(5));
    EXPECT_EQ(list.GetRecord(5).token, kNoToken);
    EXPECT_EQ(list.GetRecord(5).message, nullptr);
    list.CleanRecord();
    EXPECT_FALSE(list.IsRecordInList(1));
    EXPECT_FALSE(list.IsRecordInList(3));
}

class Flag : public Runnable {
  public:
    void Run() override {
        usleep(20000);
        ran = true;
    }
    bool ran = false;
};

TEST(ThreadTest, DestructionWaitsForTheWorkOfAStartedThread) {
    LogCapture log;
    Flag flag;
    { Thread unstarted(&flag); }
    EXPECT_FALSE(flag.ran);
    EXPECT_EQ(log.TakeLines(), "I Thread is not started");
    {
        Thread thread(&flag);
        Thread idle(nullptr);
        EXPECT_EQ(thread.Start(), 0);
        EXPECT_EQ(idle.Start(), 0);
    }
    EXPECT_TRUE(flag.ran);
    EXPECT_EQ(Thread::ThreadProc(nullptr), nullptr);
    EXPECT_EQ(log.TakeLines(), "");
}

}  // namespace
