#include <errno.h>
#include <signal.h>
#include <sys/stat.h>

#include <climits>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "main/pid_file.h"
#include "main/signal_handler.h"
#include "phone_test_case.h"
#include "service/payload_messages.h"
#include "service/velmar_file_directory.h"

using testing::IsEmpty;
using testing::Return;

namespace {

using Service = VelmarServiceHandler;

using ServiceTest = ServiceTestCase;

TEST_F(ServiceTest, PayloadsWithoutAHandlerAreLoggedAndDropped) {
    EXPECT_EQ(Request(""), kStatusUnsupported);
    EXPECT_EQ(Request("message_id: 7 extended_log_message {}"), kStatusUnsupported);
    EXPECT_EQ(Indicate("property_message {}"), kStatusUnsupported);
    EXPECT_EQ(Indicate("modem_temperature_message {}"), kStatusUnsupported);
    EXPECT_EQ(log.TakeLines(),
              "E RequestHandler: Unsupported message id 0; "
              "E RequestHandler: Unsupported message id 6; "
              "E IndicationHandler: Unsupported message id 7; "
              "E IndicationHandler: Unsupported message id 10");
    EXPECT_EQ(service.OnReceiveRequest(nullptr), kStatusInvalid);
    EXPECT_EQ(service.OnReceiveRequest(Receive("type: INDICATION property_message {}").get()),
              kStatusInvalid);
    EXPECT_EQ(service.OnReceiveIndication(nullptr), kStatusInvalid);
    EXPECT_EQ(service.OnReceiveIndication(Receive("type: REQUEST file_message {}").get()),
              kStatusInvalid);
    EXPECT_EQ(log.TakeLines(), "");
}

TEST_F(ServiceTest, HandlersRefuseSilentlyWhatIsNotTheirMessage) {
    int (Service::*const handlers[])(SitMessage*) = {&Service::OnReceivePropertyRequest,
                                                     &Service::OnReceiveFileWriteRequest,
                                                     &Service::OnReceiveFileWriteIndication,
                                                     &Service::OnReceiveModemTemperatureRequest,
                                                     &Service::OnReceiveModemStatReportIndication,
                                                     &Service::OnReceiveExtendedLogIndication,
                                                     &Service::OnReceiveUserspaceLogIndication};
    // First one for each of them.
    const char* const messages[] = {
            "property_message { read_request {} }",
            "file_message { file_write_request { file_dir: FILE_DIRECTORY_MDS file_name: 'f' } }",
            "file_message { file_write_indication { file_dir: 1 file_name: 'f' } }",
            "modem_temperature_message { set_request { sensors {} } }",
            "modem_stat_message { report_indication { data: 'x' } }",
            "extended_log_message { indication { data: 'x' } }",
            "userspace_log_message { indication { text: 'x' } }",
            "",
            "property_message {}",
            "property_message { read_response {} }",
            "property_message { write_response {} }",
            "file_message {}",
            "file_message { file_write_response {} }",
            "modem_temperature_message { set_response {} }",
            "modem_stat_message { report_request {} }",
            "modem_stat_message { report_indication { offset: 0 } }",
            "extended_log_message { request {} }",
            "userspace_log_message { enable_request {} }"};
    SitMessage without_envelope(nullptr, 0);
    for (size_t i = 0; i < std::size(handlers); ++i) {
        EXPECT_EQ((service.*handlers[i])(nullptr), kStatusInvalid) << i;
        EXPECT_EQ((service.*handlers[i])(&without_envelope), kStatusInvalid) << i;
        for (size_t j = 0; j < std::size(messages); ++j) {
            if (i == j) continue;
            EXPECT_EQ((service.*handlers[i])(Receive(messages[j]).get()), kStatusInvalid)
                    << i << " takes " << messages[j];
        }
    }
    EXPECT_EQ(log.TakeLines(), "");
    EXPECT_THAT(thermal.TakeWrites(), IsEmpty());
    EXPECT_FALSE(folder.ReadFile("/data/vendor/modem_stat/debug.txt"));
}

TEST_F(ServiceTest, UnknownCommandsAreRefused) {
    EXPECT_EQ(service.SendServiceRequest(5), kStatusInvalid);
    EXPECT_EQ(service.SendServiceRequest(UINT_MAX), kStatusInvalid);
    EXPECT_EQ(log.TakeLines(), "E Unsupport command type 5; E Unsupport command type -1");
}

TEST_F(ServiceTest, ResponsesSayWhatThePropertyHolds) {
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
             R"(token: 1 result: SUCCESS property_message { read_response { value: "on" } })",
             "I Read property vendor.radio.set with value on"},
            {R"(token: 2 property_message { read_request { name: "vendor.radio.empty" } })",
             R"(token: 2 result: SUCCESS property_message { read_response { value: "" } })",
             "I Read property vendor.radio.empty with value "},
            {R"(token: 3 property_message { read_request { name: "vendor.radio.unset" } })",
             R"(token: 3 result: PROPERTY_FAILURE property_message { read_response { value: "" } })",
             "E Failed to read property vendor.radio.unset"},
            {R"(token: 4 property_message { read_request {} })",
             R"(token: 4 result: PROPERTY_FAILURE property_message { read_response { value: "" } })",
             "E Failed to read property "},
            {R"(property_message { write_request { name: "vendor.radio.new" value: "5% of it" } })",
             R"(result: SUCCESS property_message { write_response { } })",
             "I Write property vendor.radio.new with value 5% of it"},
            {R"(token: 5 property_message { write_request { name: "vendor.radio.refused" } })",
             R"(token: 5 result: PROPERTY_FAILURE property_message { write_response { } })",
             "E Failed to write property vendor.radio.refused with value "},
    };
    for (const Case& row : cases) {
        EXPECT_CALL(handler, SendResponse(IsMessage(std::string("type: RESPONSE message_id: 7 ") +
                                                    row.response)))
                .WillOnce(Return(kStatusSuccess));
        EXPECT_EQ(Request(row.request), kStatusSuccess);
        EXPECT_EQ(log.TakeLines(), std::string("I Get property request; ") + row.line);
    }
    EXPECT_EQ(folder.GetProperty("vendor.radio.new"), "5% of it");
    EXPECT_FALSE(folder.GetProperty("vendor.radio.refused"));
}

TEST_F(ServiceTest, ResponseThatCannotBeSentGivesItsStatus) {
    EXPECT_CALL(handler, SendResponse(testing::_)).WillRepeatedly(Return(kStatusWriteFailed));
    EXPECT_EQ(Request("property_message { read_request {} }"), kStatusWriteFailed);
    EXPECT_EQ(Request("modem_temperature_message { set_request {} }"), kStatusWriteFailed);
}

TEST(FileDirectoryTest, OtherNumbersNameNone) {
    for (auto id :
         {velmar_message::FILE_DIRECTORY_UNKNOWN, velmar_message::FILE_DIRECTORY_RESERVED}) {
        EXPECT_EQ(VelmarFileDirectoryTable::FindDirectoryFromId(id), "UNKNOWN");
    }
}

using ProcessTest = PhoneTestCase;

TEST_F(ProcessTest, PidFileIsWrittenAnewWhateverWasThere) {
    const char path[] = "/data/vendor/radio/velmar_pid";
    folder.WriteFile(path, "12345678 left by an earlier server", 0666);
    umask(077);
    velmar_write_pid();
    EXPECT_EQ(folder.ReadFile(path), std::to_string(getpid()));
    EXPECT_EQ(folder.Mode(path), 0600);
    folder.WriteFile(path, " -5 ");
    EXPECT_EQ(velmar_get_pid(), -5);
}

TEST_F(ProcessTest, SignalHandlerLeavesErrnoAsItWas) {
    modem.SetState(kModemStateOnline);
    folder.Remove("/dev/oem_ipc1");
    VelmarMessageHandler* hub = VelmarMessageHandler::GetInstance();
    hub->*(&TestHandler::state_monitor) = std::make_unique<OpenMonitor>(hub);
    ASSERT_EQ(hub->Start(), kStatusSuccess);
    errno = EXDEV;
    velmar_signal_handler(SIGUSR2);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_TRUE(log.WaitFor("E Failed to send request, status:7"));
}

TEST(PayloadTest, FillsItsOwnMessageAndSaysWhenThereIsNone) {
    LogCapture log;
    auto received = Receive("type: REQUEST property_message {}");
    VelmarExtendedLogMessage filled(received.get());
    EXPECT_EQ(filled.FillRequest(), kStatusSuccess);
    EXPECT_EQ(Text(filled.GetSitMessage()), "type: REQUEST extended_log_message { request { } }");
    EXPECT_EQ(Text(received.get()), "type: REQUEST property_message { }");

    VelmarModemStatMessage stat(nullptr);
    VelmarExtendedLogMessage extended(nullptr);
    VelmarUserspaceLogMessage userspace(nullptr);
    EXPECT_EQ(stat.FillEnableRequest("", 1, 1), kStatusNotFound);
    EXPECT_EQ(stat.FillReportRequest(), kStatusNotFound);
    EXPECT_EQ(extended.FillRequest(), kStatusNotFound);
    EXPECT_EQ(userspace.FillEnableRequest(""), kStatusNotFound);
    EXPECT_EQ(log.Count("E sit_message is invalid"), 4);

    VelmarModemStatMessage nameless_stat(velmar_message::INDICATION);
    VelmarUserspaceLogMessage nameless_userspace(velmar_message::INDICATION);
    EXPECT_EQ(nameless_stat.FillEnableRequest("", 5, 5), kStatusInvalid);
    EXPECT_EQ(nameless_userspace.FillEnableRequest(""), kStatusInvalid);
    EXPECT_EQ(Text(nameless_stat.GetSitMessage()), "type: INDICATION message_id: 5");
    EXPECT_EQ(Text(nameless_userspace.GetSitMessage()), "type: INDICATION message_id: 8");
    EXPECT_EQ(log.Count("E Input module is empty"), 1);
    EXPECT_EQ(log.Count("E Input name is empty"), 1);
}

}  // namespace
