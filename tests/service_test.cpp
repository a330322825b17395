#include <climits>
#include <string>
#include <vector>

#include "phone_test_case.h"
#include "service/payload_messages.h"
#include "service/velmar_file_directory.h"
#include "service/velmar_service_handler.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Keeps the responses instead of sending them.
class ResponseKeeper : public TestHandler {
  public:
    int SendResponse(SitMessage* message) override {
        responses.push_back(message->GetVelmarMessage()->ShortDebugString());
        return status;
    }
    std::vector<std::string> responses;
    int status = 0;
};

class ServiceTest : public PhoneTestCase {
  protected:
    ResponseKeeper handler;
    VelmarServiceHandler service{&handler};
};

TEST_F(ServiceTest, UnknownPayloadsAreLoggedAndNotAnswered) {
    EXPECT_EQ(service.OnReceiveRequest(Receive("type: REQUEST").get()), kStatusUnsupported);
    EXPECT_EQ(service.OnReceiveRequest(
                      Receive("type: REQUEST message_id: 7 extended_log_message {}").get()),
              kStatusUnsupported);
    EXPECT_EQ(service.OnReceiveIndication(Receive("type: INDICATION property_message {}").get()),
              kStatusUnsupported);
    EXPECT_EQ(service.OnReceiveIndication(
                      Receive("type: INDICATION modem_temperature_message {}").get()),
              kStatusUnsupported);
    EXPECT_THAT(log.Lines(), ElementsAre("E RequestHandler: Unsupported message id 0",
                                         "E RequestHandler: Unsupported message id 6",
                                         "E IndicationHandler: Unsupported message id 7",
                                         "E IndicationHandler: Unsupported message id 10"));
    EXPECT_THAT(handler.responses, IsEmpty());
}

TEST_F(ServiceTest, MessagesOfAnotherTypeAreRefusedSilently) {
    auto request = Receive("type: REQUEST property_message {}");
    auto indication = Receive("type: INDICATION property_message {}");
    EXPECT_EQ(service.OnReceiveRequest(nullptr), kStatusInvalid);
    EXPECT_EQ(service.OnReceiveRequest(indication.get()), kStatusInvalid);
    EXPECT_EQ(service.OnReceiveIndication(nullptr), kStatusInvalid);
    EXPECT_EQ(service.OnReceiveIndication(request.get()), kStatusInvalid);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(ServiceTest, UnknownCommandsAreRefused) {
    EXPECT_EQ(service.SendServiceRequest(5), kStatusInvalid);
    EXPECT_EQ(service.SendServiceRequest(UINT_MAX), kStatusInvalid);
    EXPECT_THAT(log.Lines(),
                ElementsAre("E Unsupport command type 5", "E Unsupport command type -1"));
}

TEST_F(ServiceTest, PropertyRequestsAreAnsweredByWhatThePropertyHolds) {
    folder.SetProperty("vendor.radio.set", "on");
    folder.SetProperty("vendor.radio.empty", "");
    folder.RefuseProperty("vendor.radio.refused");
    struct Case {
        const char* request;
        const char* response;
        const char* line;
    };
    const std::vector<Case> cases = {
            {R"(token: 1 property_message { read_request { name: "vendor.radio.set" } })",
             R"(type: RESPONSE message_id: 7 token: 1 result: SUCCESS )"
             R"(property_message { read_response { value: "on" } })",
             "I Read property vendor.radio.set with value on"},
            {R"(token: 2 property_message { read_request { name: "vendor.radio.empty" } })",
             R"(type: RESPONSE message_id: 7 token: 2 result: SUCCESS )"
             R"(property_message { read_response { value: "" } })",
             "I Read property vendor.radio.empty with value "},
            {R"(token: 3 property_message { read_request { name: "vendor.radio.unset" } })",
             R"(type: RESPONSE message_id: 7 token: 3 result: PROPERTY_FAILURE )"
             R"(property_message { read_response { value: "" } })",
             "E Failed to read property vendor.radio.unset"},
            {R"(token: 4 property_message { read_request {} })",
             R"(type: RESPONSE message_id: 7 token: 4 result: PROPERTY_FAILURE )"
             R"(property_message { read_response { value: "" } })",
             "E Failed to read property "},
            {R"(property_message { write_request { name: "vendor.radio.new" value: "5% of it" } })",
             R"(type: RESPONSE message_id: 7 result: SUCCESS )"
             R"(property_message { write_response { } })",
             "I Write property vendor.radio.new with value 5% of it"},
            {R"(token: 5 property_message { write_request { name: "vendor.radio.refused" } })",
             R"(type: RESPONSE message_id: 7 token: 5 result: PROPERTY_FAILURE )"
             R"(property_message { write_response { } })",
             "E Failed to write property vendor.radio.refused with value "},
    };
    for (const Case& row : cases) {
        EXPECT_EQ(service.OnReceivePropertyRequest(
                          Receive(std::string("type: REQUEST ") + row.request).get()),
                  kStatusSuccess);
        EXPECT_EQ(handler.responses.back(), row.response);
        EXPECT_EQ(log.Lines().back(), row.line);
    }
    EXPECT_EQ(folder.GetProperty("vendor.radio.new"), "5% of it");
    EXPECT_FALSE(folder.GetProperty("vendor.radio.refused"));
}

TEST_F(ServiceTest, PropertyMessagesThatAskNothingAreDropped) {
    for (const char* text :
         {"", "file_message {}", "property_message {}", "property_message { read_response {} }",
          "property_message { write_response {} }"}) {
        EXPECT_EQ(service.OnReceivePropertyRequest(
                          Receive(std::string("type: REQUEST ") + text).get()),
                  kStatusInvalid);
    }
    EXPECT_EQ(service.OnReceivePropertyRequest(nullptr), kStatusInvalid);
    EXPECT_THAT(handler.responses, IsEmpty());
}

TEST_F(ServiceTest, AnswerThatCannotBeSentGivesItsStatus) {
    handler.status = kStatusWriteFailed;
    auto request = Receive("type: REQUEST property_message { read_request {} }");
    EXPECT_EQ(service.OnReceiveRequest(request.get()), kStatusWriteFailed);
}

TEST(PropertyMessageTest, FillingAgainReplacesTheMember) {
    auto request = Receive("type: REQUEST file_message {}");
    VelmarPropertyMessage message(velmar_message::RESPONSE, request.get());
    message.FillReadResponse("old");
    message.FillWriteResponse();
    EXPECT_EQ(message.GetSitMessage()->GetVelmarMessage()->ShortDebugString(),
              "type: RESPONSE message_id: 7 property_message { write_response { } }");
}

TEST(FileDirectoryTest, OnlyTwoNumbersNameADirectory) {
    using velmar_message::FileDirectory;
    const std::vector<std::pair<int, std::string>> cases = {
            {0, "UNKNOWN"},
            {1, "/data/vendor/radio/mds/"},
            {2, "/mnt/vendor/modem_userdata/replay/"},
            {3, "UNKNOWN"},
    };
    for (const auto& [id, prefix] : cases) {
        EXPECT_EQ(VelmarFileDirectoryTable::FindDirectoryFromId(static_cast<FileDirectory>(id)),
                  prefix);
    }
}

}  // namespace
