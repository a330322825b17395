#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "phone_test_case.h"
#include "service/debug_stat_config.h"
#include "service/payload_messages.h"
#include "service/velmar_service_handler.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// The entries of a configuration as "MODULE v=VALUE t=TYPE", "none" for one without a module.
std::vector<std::string> Entries(std::string text) {
    std::vector<std::string> entries;
    for (char* entry : SplitDebugStatConfig(text.data())) {
        DebugStatEntry config;
        if (!ParseDebugStatEntry(entry, &config)) {
            entries.emplace_back("none");
            continue;
        }
        entries.push_back(config.module + " v=" + std::to_string(config.value) +
                          " t=" + std::to_string(config.type));
    }
    return entries;
}

TEST(DebugStatConfigTest, EntriesAreReadToTheLetter) {
    struct Case {
        std::string text;
        std::vector<std::string> entries;
    };
    const std::vector<Case> cases = {
            {"", {}},
            {"\r\n|\n||", {}},
            {"modemA:v=1,t=2|modemB:v=0\nmodemC",
             {"modemA v=1 t=2", "modemB v=0 t=0", "modemC v=-1 t=0"}},
            {"|\r\na||b\r\n\r\nc|", {"a v=-1 t=0", "b v=-1 t=0", "c v=-1 t=0"}},
            {":::", {"none"}},
            {"::a::v=1::t=2", {"a v=1 t=0"}},
            {"a:v=1:t=2", {"a v=1 t=0"}},
            {"a :v=1", {"a  v=1 t=0"}},
            {"a: v=1", {"a v=-1 t=0"}},
            {"a:v= 1,t=+3", {"a v=1 t=3"}},
            {"a:v=8z", {"a v=8 t=0"}},
            {"a:vv=3", {"a v=-1 t=0"}},
            {"a:v =3", {"a v=-1 t=0"}},
            {"a:v=,t=", {"a v=-1 t=0"}},
            {"a:,,v=1,,t=2,", {"a v=1 t=2"}},
            {"a:t=3,t=4,v=7,x=9", {"a v=7 t=4"}},
            {"a:V=1,T=2", {"a v=-1 t=0"}},
            {"a:v=-5,t=-1", {"a v=-5 t=-1"}},
            {"a:v=1 t=2", {"a v=1 t=0"}},
            {std::string("a:v=1\0|b", 8), {"a v=1 t=0"}},
    };
    for (const Case& row : cases) EXPECT_EQ(Entries(row.text), row.entries) << row.text;
}

std::string Text(const DiagnosticMessage& message) {
    velmar_message::VelmarMessage envelope = *message.GetSitMessage()->GetVelmarMessage();
    envelope.clear_token();
    return envelope.ShortDebugString();
}

TEST(DiagnosticMessageTest, OnlyWhatIsGivenIsFilled) {
    struct Case {
        int value;
        unsigned int type;
        const char* fields;
    };
    for (const Case& row : {Case{-1, 0, ""}, Case{0, 0, " value: 0"}, Case{-1, 3, " type: 3"},
                            Case{5, 4294967295, " value: 5 type: 4294967295"}}) {
        VelmarModemStatMessage message(velmar_message::REQUEST);
        EXPECT_EQ(message.FillEnableRequest("x", row.value, row.type), kStatusSuccess);
        EXPECT_EQ(Text(message),
                  std::string("type: REQUEST message_id: 5 modem_stat_message { enable_request { "
                              "module: \"x\"") +
                          row.fields + " } }");
    }
}

TEST(DiagnosticMessageTest, MemberThatIsThereIsKeptAnotherReplaced) {
    VelmarModemStatMessage message(velmar_message::REQUEST);
    message.FillEnableRequest("x", 7, 2);
    message.FillEnableRequest("y", -1, 0);
    EXPECT_EQ(Text(message),
              "type: REQUEST message_id: 5 modem_stat_message { enable_request { module: \"y\" "
              "value: 7 type: 2 } }");
    message.FillReportRequest();
    EXPECT_EQ(Text(message),
              "type: REQUEST message_id: 5 modem_stat_message { report_request { } }");

    auto property = Receive("type: REQUEST message_id: 7 property_message {}");
    VelmarExtendedLogMessage log_message(property.get());
    EXPECT_EQ(log_message.FillRequest(), kStatusSuccess);
    EXPECT_EQ(Text(log_message),
              "type: REQUEST message_id: 7 extended_log_message { request { } }");
}

TEST(DiagnosticMessageTest, NothingToFillOrToFillWithIsLogged) {
    LogCapture log;
    VelmarModemStatMessage stat(nullptr);
    VelmarExtendedLogMessage extended(nullptr);
    VelmarUserspaceLogMessage userspace(nullptr);
    EXPECT_EQ(stat.FillEnableRequest("", 1, 1), kStatusNotFound);
    EXPECT_EQ(stat.FillReportRequest(), kStatusNotFound);
    EXPECT_EQ(extended.FillRequest(), kStatusNotFound);
    EXPECT_EQ(userspace.FillEnableRequest(""), kStatusNotFound);
    EXPECT_EQ(log.Count("E sit_message is invalid"), 4);

    VelmarModemStatMessage nameless_stat(velmar_message::REQUEST);
    VelmarUserspaceLogMessage nameless_userspace(velmar_message::REQUEST);
    EXPECT_EQ(nameless_stat.FillEnableRequest("", 5, 5), kStatusInvalid);
    EXPECT_EQ(nameless_userspace.FillEnableRequest(""), kStatusInvalid);
    EXPECT_EQ(Text(nameless_stat), "type: REQUEST message_id: 5");
    EXPECT_EQ(Text(nameless_userspace), "type: REQUEST message_id: 8");
    EXPECT_EQ(log.Count("E Input module is empty"), 1);
    EXPECT_EQ(log.Count("E Input name is empty"), 1);
}

class IndicationTest : public PhoneTestCase {
  protected:
    int Indicate(const std::string& text) {
        return service.OnReceiveIndication(Receive("type: INDICATION " + text).get());
    }

    TestHandler handler;
    VelmarServiceHandler service{&handler};
};

TEST_F(IndicationTest, WrongMembersAreRefusedAndWriteNothing) {
    EXPECT_EQ(Indicate("modem_stat_message { report_request {} }"), kStatusInvalid);
    EXPECT_EQ(Indicate("modem_stat_message { report_indication { offset: 0 } }"), kStatusInvalid);
    EXPECT_EQ(Indicate("extended_log_message { request {} }"), kStatusInvalid);
    EXPECT_EQ(Indicate("userspace_log_message { enable_request {} }"), kStatusInvalid);
    EXPECT_FALSE(folder.ReadFile("/data/vendor/modem_stat/debug.txt"));
}

TEST_F(IndicationTest, DumpPiecesGoWhereTheirOffsetsSay) {
    const std::string path = "/data/vendor/modem_stat/debug.txt";
    const std::string data = "data: \"0123456789\"";
    EXPECT_EQ(Indicate("modem_stat_message { report_indication { offset: 4 " + data + " } }"),
              kStatusSuccess);
    EXPECT_EQ(log.Lines().back(), "E Failed to open modemstat dump file");
    EXPECT_FALSE(folder.ReadFile(path));
    struct Case {
        const char* offset;
        std::string content;
    };
    const std::string old(100, '.');
    for (const Case& row :
         {Case{"", "0123456789"}, Case{"offset: 0", "0123456789" + old.substr(10)},
          Case{"offset: 40", old + "0123456789"}, Case{"offset: 4294967295", old + "0123456789"}}) {
        folder.WriteFile(path, old, 0600);
        EXPECT_EQ(Indicate(std::string("modem_stat_message { report_indication { ") + row.offset +
                           " " + data + " } }"),
                  kStatusSuccess);
        EXPECT_EQ(folder.ReadFile(path), row.content) << row.offset;
        EXPECT_EQ(folder.Mode(path), 0664);
    }
}

TEST_F(IndicationTest, ExtendedLogsGrowUntilTheyAreRotated) {
    const std::string path = "/data/vendor/radio/extended_logs/extended_log_m.txt";
    const std::string stamp = "[0-1][0-9]-[0-3][0-9] [0-9:]{8}\\.[0-9]{3}\n";
    const std::string indication =
            "extended_log_message { indication { name: \"m\" data: \"abc\\n\" } }";
    struct Case {
        size_t size;
        size_t kept;
    };
    for (const Case& row : {Case{0, 0}, Case{1048576, 1048576}, Case{1048577, 0}}) {
        folder.WriteFile(path, std::string(row.size, 'x'));
        folder.WriteFile(path + ".old", "older");
        EXPECT_EQ(Indicate(indication), kStatusSuccess);
        std::string content = folder.ReadFile(path).value();
        EXPECT_EQ(content.find("abc\n"), row.kept);
        EXPECT_THAT(content.substr(row.kept), testing::MatchesRegex("abc\n" + stamp));
        EXPECT_EQ(folder.ReadFile(path + ".old").value().size(),
                  row.size > row.kept ? row.size : 5);
        EXPECT_EQ(folder.Mode(path), 0664);
    }
}

TEST_F(IndicationTest, ExtendedLogNamesAreUsedAsTheyAre) {
    const std::string directory = "/data/vendor/radio/extended_logs/";
    EXPECT_EQ(Indicate("extended_log_message { indication { data: \"x\" } }"), kStatusSuccess);
    EXPECT_EQ(folder.ReadFile(directory + "extended_log_.txt").value()[0], 'x');
    EXPECT_EQ(Indicate("extended_log_message { indication { name: \"a/b\" } }"), kStatusNotFound);
    EXPECT_EQ(log.Lines().back(), "E Failed to open extended log file");
    folder.MakeDirectories(directory + "extended_log_a");
    EXPECT_EQ(Indicate("extended_log_message { indication { name: \"a/b\" } }"), kStatusSuccess);
    EXPECT_TRUE(folder.ReadFile(directory + "extended_log_a/b.txt"));
}

TEST_F(IndicationTest, ModemLinesAreLoggedByLevel) {
    for (const char* fields : {"", "level: 0 text: \"50% done %s\"", "level: 1 text: \"i\"",
                               "level: 2 text: \"d\"", "level: 4294967295 text: \"d\""}) {
        EXPECT_EQ(Indicate(std::string("userspace_log_message { indication { ") + fields + " } }"),
                  kStatusSuccess);
    }
    EXPECT_THAT(log.Lines(), ElementsAre("I Got userspace log indication", "E Modem: ",
                                         "I Got userspace log indication", "E Modem: 50% done %s",
                                         "I Got userspace log indication", "I Modem: i",
                                         "I Got userspace log indication", "D Modem: d",
                                         "I Got userspace log indication", "D Modem: d"));
}

// Keeps the requests instead of sending them.
class RequestKeeper : public TestHandler {
  public:
    int SendRequest(SitMessage* message, unsigned int /*timeout_seconds*/) override {
        message->GetVelmarMessage()->clear_token();
        requests.push_back(message->GetVelmarMessage()->ShortDebugString());
        return kStatusTimeout;
    }
    std::vector<std::string> requests;
};

// The first example below `heading` of the operations manual.
std::string DocumentedExample(const std::string& heading) {
    const std::string fence = "```\n";
    std::ifstream file(VELMAR_OPERATIONS_MANUAL);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    size_t begin = text.find(fence, text.find("\n## " + heading + "\n")) + fence.size();
    return text.substr(begin, text.find(fence, begin) - begin);
}

class DocumentedConfigTest : public PhoneTestCase {};

TEST_F(DocumentedConfigTest, ExamplesAskForWhatTheManualSays) {
    modem.SetState(kModemStateOnline);
    RequestKeeper handler;
    VelmarServiceHandler service(&handler);
    folder.WriteFile("/vendor/etc/modem_stat.conf",
                     DocumentedExample("Configuration of the statistics"));
    folder.WriteFile("/data/vendor/radio/modem_userspace_logging.conf",
                     DocumentedExample("Configuration of user-space logging"));
    EXPECT_EQ(service.SendServiceRequest(kCommandDebugStatConfig), kStatusSuccess);
    EXPECT_EQ(service.SendServiceRequest(kCommandUserspaceLogEnable), kStatusSuccess);
    const std::string stat = "type: REQUEST message_id: 5 modem_stat_message { enable_request { ";
    const std::string log_of =
            "type: REQUEST message_id: 8 userspace_log_message { enable_request { ";
    EXPECT_THAT(
            handler.requests,
            ElementsAre(stat + "module: \"modemA\" value: 1 type: 2 } }",
                        stat + "module: \"modemB\" value: 0 } }", stat + "module: \"modemC\" } }",
                        log_of + "name: \"radio\" } }", log_of + "name: \"gnss\" } }"));
}

class OfflineTest : public PhoneTestCase {};

TEST_F(OfflineTest, SendersRefuseAndTakeNoToken) {
    TestHandler handler;
    VelmarServiceHandler service(&handler);
    folder.WriteFile("/data/vendor/radio/modem_stat.conf", "a|b");
    TokenGen::Init();
    unsigned int before = TokenGen::GetInstance()->GetNext();
    EXPECT_EQ(service.SendServiceRequest(kCommandModemStatReport), kStatusOffline);
    EXPECT_EQ(service.SendServiceRequest(kCommandExtendedLog), kStatusOffline);
    EXPECT_EQ(service.SendServiceRequest(kCommandUserspaceLogEnable), kStatusOffline);
    EXPECT_EQ(service.SendServiceRequest(kCommandDebugStatConfig), kStatusSuccess);
    EXPECT_EQ(log.Count("E Modem is not online"), 5);
    EXPECT_EQ(TokenGen::GetInstance()->GetNext(), before + 1);
    EXPECT_FALSE(modem.Receive(std::chrono::milliseconds(50)));
}

}  // namespace
