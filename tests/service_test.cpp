#include <errno.h>
#include <signal.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "main/pid_file.h"
#include "main/signal_handler.h"
#include "phone_test_case.h"

using testing::Return;

namespace {

using ServiceTest = ServiceTestCase;

TEST_F(ServiceTest, PayloadsWithoutAHandlerAreLoggedAndDropped) {
    EXPECT_EQ(Request("message_id: 7 extended_log_message {}"), kStatusUnsupported);
    EXPECT_EQ(Indicate("message_id: 6 property_message {}"), kStatusUnsupported);
    EXPECT_EQ(log.TakeLines(),
              "E RequestHandler: Unsupported message id 6; "
              "E IndicationHandler: Unsupported message id 7");
}

TEST_F(ServiceTest, MessagesThatAreNotTheHandlersOwnAreRefused) {
    for (const char* text :
         {"property_message {}", "property_message { read_response {} }",
          "property_message { write_response {} }", "file_message {}",
          "file_message { file_write_indication { file_dir: FILE_DIRECTORY_MDS file_name: 'f' } }",
          "modem_temperature_message { set_response {} }"}) {
        EXPECT_EQ(Request(text), kStatusInvalid) << text;
    }
    for (const char* text :
         {"file_message { file_write_request { file_dir: FILE_DIRECTORY_MDS file_name: 'f' } }",
          "modem_stat_message { report_request {} }",
          "modem_stat_message { report_indication { offset: 0 } }",
          "extended_log_message { request {} }", "userspace_log_message { enable_request {} }"}) {
        EXPECT_EQ(Indicate(text), kStatusInvalid) << text;
    }
    SitMessage untyped;
    for (SitMessage* message : {&untyped, static_cast<SitMessage*>(nullptr)}) {
        EXPECT_EQ(service.OnReceiveRequest(message), kStatusInvalid);
        EXPECT_EQ(service.OnReceiveIndication(message), kStatusInvalid);
    }
    EXPECT_THAT(thermal.TakeWrites(), testing::IsEmpty());
    EXPECT_FALSE(folder.ReadFile("/data/vendor/modem_stat/debug.txt"));
}

TEST_F(ServiceTest, UnknownCommandsAreRefused) {
    EXPECT_EQ(service.SendServiceRequest(5), kStatusInvalid);
    EXPECT_EQ(log.TakeLines(), "E Unsupport command type 5");
}

TEST_F(ServiceTest, ResponsesSayWhatThePropertyHolds) {
    folder.SetProperty("radio.set", "on");
    folder.SetProperty("radio.empty", "");
    folder.RefuseProperty("radio.refused");
    struct Case {
        const char* request;
        const char* response;
        const char* line;
    };
    const Case cases[] = {
            {"read_request { name: 'radio.set' }",
             "result: SUCCESS property_message { read_response { value: 'on' } }",
             "I Read property radio.set with value on"},
            {"read_request { name: 'radio.empty' }",
             "result: SUCCESS property_message { read_response { value: '' } }",
             "I Read property radio.empty with value "},
            {"read_request { name: 'radio.unset' }",
             "result: PROPERTY_FAILURE property_message { read_response { value: '' } }",
             "E Failed to read property radio.unset"},
            {"write_request { name: 'radio.new' value: '5% of it' }",
             "result: SUCCESS property_message { write_response {} }",
             "I Write property radio.new with value 5% of it"},
            {"write_request { name: 'radio.refused' }",
             "result: PROPERTY_FAILURE property_message { write_response {} }",
             "E Failed to write property radio.refused with value "},
    };
    for (const Case& row : cases) {
        EXPECT_CALL(handler,
                    SendResponse(IsMessage(std::string("type: RESPONSE message_id: 7 token: 0 ") +
                                           row.response)))
                .WillOnce(Return(kStatusWriteFailed));
        EXPECT_EQ(Request(std::string("token: 0 property_message { ") + row.request + " }"),
                  kStatusWriteFailed);
        EXPECT_EQ(log.TakeLines(), std::string("I Get property request; ") + row.line);
    }
    EXPECT_EQ(folder.GetProperty("radio.new"), "5% of it");
}

TEST_F(ServiceTest, TemperaturesAreRespondedToWithoutAResultAndHereWithoutAToken) {
    EXPECT_CALL(handler, SendResponse(IsMessage("type: RESPONSE message_id: 10 "
                                                "modem_temperature_message { set_response {} }")))
            .WillOnce(Return(kStatusWriteFailed));
    EXPECT_EQ(Request("modem_temperature_message { set_request {} }"), kStatusWriteFailed);
}

using ProcessTest = PhoneTestCase;

TEST_F(ProcessTest, PidFileIsWrittenAnewWhateverWasThere) {
    const char path[] = "/data/vendor/radio/velmar_pid";
    folder.WriteFile(path, "12345678 left by an earlier server", 0666);
    umask(077);
    velmar_write_pid();
    EXPECT_EQ(folder.ReadFile(path), std::to_string(getpid()));
    EXPECT_EQ(folder.Mode(path), 0600);
}

// What of both signals the handler finds blocked, one letter a run.
std::string blocked_in_handler;

void NoteBlocked(int /*signo*/) {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    const bool both = sigismember(&mask, SIGUSR1) == 1 && sigismember(&mask, SIGUSR2) == 1;
    blocked_in_handler += both ? 'b' : '-';
}

TEST_F(ProcessTest, SignalsThatWaitAreHandledOneAfterTheOther) {
    velmar_block_signals();
    for (int signo : {SIGUSR1, SIGUSR2}) {
        (void)signal(signo, NoteBlocked);
        (void)raise(signo);
    }
    EXPECT_EQ(blocked_in_handler, "");
    velmar_unblock_signals();
    EXPECT_EQ(blocked_in_handler, "bb");
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

}  // namespace
