#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
using testing::IsEmpty;
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
    constexpr size_t kEach = 20000;
    TokenGenAt tokens(0);
    std::vector<unsigned int> taken[2];
    std::thread other([&] {
        for (size_t i = 0; i < kEach; ++i) taken[0].push_back(tokens.GetNext());
    });
    for (size_t i = 0; i < kEach; ++i) taken[1].push_back(tokens.GetNext());
    other.join();
    std::vector<bool> seen(2 * kEach);
    for (const auto& of_thread : taken) {
        for (unsigned int token : of_thread) seen.at(token) = true;
    }
    EXPECT_THAT(seen, testing::Each(true));
}

TEST(SitMessageTest, OnlyRequestsTakeATokenAndTakeThemInTurn) {
    auto first = Request();
    auto second = Request();
    EXPECT_EQ(second->GetToken(), first->GetToken() + 1);
    EXPECT_EQ(first->GetVelmarMessage()->message_id(), 7);
    for (auto type : {velmar_message::RESPONSE, velmar_message::INDICATION}) {
        SitMessage message;
        EXPECT_TRUE(message.InitialHeader(VelmarMessage::kFileMessage, type));
        EXPECT_EQ(message.GetToken(), kNoToken);
        EXPECT_FALSE(message.GetVelmarMessage()->has_token());
    }
    EXPECT_EQ(Request()->GetToken(), second->GetToken() + 1);
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
    };
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
}

TEST(SitMessageTest, InputThatStopsMidwayKeepsWhatCameBefore) {
    LogCapture log;
    auto message = Received(std::string("\x08\x01\x18\x05\x3A\x20\x0A", 7));
    EXPECT_THAT(log.Lines(), ElementsAre("E ParseFromArray failed"));
    EXPECT_TRUE(message->IsRequest());
    EXPECT_EQ(message->GetToken(), 5u);
}

TEST(SitMessageTest, ReceivedMessageTakesNoToken) {
    auto message = Received(std::string("\x08\x03", 2));
    EXPECT_TRUE(message->InitialHeader(VelmarMessage::kFileMessage, velmar_message::REQUEST));
    EXPECT_EQ(message->GetToken(), kNoToken);
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
    EXPECT_THAT(log.Lines(),
                ElementsAre("E SerializeToArray failed!", "E Protobuf length is invalid 0"));
}

TEST(RequestListTest, ResponsesAreClonedInAndOut) {
    RequestList list;
    RequestRecord record(3);
    list.AddRecord(&record);
    EXPECT_EQ(list.GetRecord(3).message, nullptr);
    {
        auto response = Received(std::string("\x08\x02\x18\x03\x20\x00", 6));
        list.UpdateResponseMessage(3, response.get());
    }
    {
        RequestRecord copy = list.GetRecord(3);
        ASSERT_NE(copy.message, nullptr);
        copy.message->GetVelmarMessage()->set_token(99);
    }
    RequestRecord again = list.GetRecord(3);
    EXPECT_EQ(again.token, 3u);
    EXPECT_EQ(again.message->GetToken(), 3u);
}

TEST(RequestListTest, SecondResponseReplacesTheFirst) {
    RequestList list;
    RequestRecord record(0);
    list.AddRecord(&record);
    for (const char* bytes : {"\x08\x02\x20\x05", "\x08\x02\x20\x07"}) {
        auto response = Received(std::string(bytes, 4));
        list.UpdateResponseMessage(0, response.get());
    }
    EXPECT_EQ(list.GetRecord(0).message->GetResult(), velmar_message::PROPERTY_FAILURE);
    list.UpdateResponseMessage(0, nullptr);
    EXPECT_EQ(list.GetRecord(0).message, nullptr);
    EXPECT_TRUE(list.IsRecordInList(0));
}

TEST(RequestListTest, TokenThatComesRoundAgainStartsWithoutResponse) {
    RequestList list;
    RequestRecord record(8);
    list.AddRecord(&record);
    auto late = Received(std::string("\x08\x02\x18\x08", 4));
    list.UpdateResponseMessage(8, late.get());
    list.AddRecord(&record);
    EXPECT_EQ(list.GetRecord(8).message, nullptr);
}

TEST(RequestListTest, UnknownTokensChangeNothing) {
    RequestList list;
    RequestRecord none;
    list.AddRecord(&none);
    EXPECT_FALSE(list.IsRecordInList(kNoToken));
    auto response = Received(std::string("\x08\x02\x18\x05", 4));
    list.UpdateResponseMessage(5, response.get());
    EXPECT_FALSE(list.IsRecordInList(5));
    list.RemoveRecord(5);
    RequestRecord absent = list.GetRecord(5);
    EXPECT_EQ(absent.token, kNoToken);
    EXPECT_EQ(absent.message, nullptr);
}

TEST(RequestListTest, RecordsAreRemovedOneOrAll) {
    RequestList list;
    for (unsigned int token : {1u, 2u, 3u}) {
        RequestRecord record(token);
        list.AddRecord(&record);
    }
    list.RemoveRecord(2);
    EXPECT_TRUE(list.IsRecordInList(1));
    EXPECT_FALSE(list.IsRecordInList(2));
    list.CleanRecord();
    EXPECT_FALSE(list.IsRecordInList(1));
    EXPECT_FALSE(list.IsRecordInList(3));
}

class Flag : public Runnable {
  public:
    void Run() override { ran = true; }
    bool ran = false;
};

TEST(ThreadTest, DestructionWaitsForTheWork) {
    LogCapture log;
    Flag flag;
    {
        Thread thread(&flag);
        EXPECT_EQ(thread.Start(), 0);
    }
    EXPECT_TRUE(flag.ran);
    {
        Thread idle(nullptr);
        EXPECT_EQ(idle.Start(), 0);
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ThreadTest, UnstartedThreadIsNotJoined) {
    LogCapture log;
    Flag flag;
    { Thread thread(&flag); }
    EXPECT_FALSE(flag.ran);
    EXPECT_THAT(log.Lines(), ElementsAre("I Thread is not started"));
    EXPECT_EQ(Thread::ThreadProc(nullptr), nullptr);
}

}  // namespace
