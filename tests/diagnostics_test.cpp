#include <android-base/stringprintf.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "phone_test_case.h"
#include "service/debug_stat_config.h"

using android::base::StringPrintf;
using testing::MatchesRegex;

namespace {

constexpr char kStatConfig[] = "/data/vendor/radio/modem_stat.conf";
constexpr char kDump[] = "/data/vendor/modem_stat/debug.txt";
constexpr char kExtendedLogs[] = "/data/vendor/radio/extended_logs/";

// The entries of a configuration, each as "MODULE VALUE TYPE; ", or "none; " without a module.
std::string Entries(std::string text) {
    std::string entries;
    for (char* entry : SplitDebugStatConfig(text.data())) {
        DebugStatEntry config;
        entries += ParseDebugStatEntry(entry, &config)
                           ? StringPrintf("%s %d %d; ", config.module.c_str(), config.value,
                                          config.type)
                           : "none; ";
    }
    return entries;
}

TEST(DebugStatConfigTest, EntriesAreReadToTheLetter) {
    struct Case {
        std::string text;
        const char* entries;
    };
    const Case cases[] = {
            {"", ""},
            {"\r\n|\n||", ""},
            {"modemA:v=1,t=2|modemB:v=0\nmodemC", "modemA 1 2; modemB 0 0; modemC -1 0; "},
            {"|\r\na||b\r\n\r\nc|", "a -1 0; b -1 0; c -1 0; "},
            {":::", "none; "},
            {"::a::v=1::t=2", "a 1 0; "},
            {"a:v=1:t=2", "a 1 0; "},
            {"a: v=1", "a -1 0; "},
            {"a:v= 1,t=+3", "a 1 3; "},
            {"a:v=8z", "a 8 0; "},
            {"a:vv=3", "a -1 0; "},
            {"a:v=,t=", "a -1 0; "},
            {"a:,,v=1,,t=2,", "a 1 2; "},
            {"a:t=3,t=4,v=7,x=9", "a 7 4; "},
            {"a:v=-5,t=-1", "a -5 -1; "},
            {std::string("a:v=1\0|b", 8), "a 1 0; "},
    };
    for (const Case& row : cases) EXPECT_EQ(Entries(row.text), row.entries) << row.text;
}

class IndicationTest : public ServiceTestCase {
  protected:
    int IndicateDump(const std::string& fields) {
        return Indicate("modem_stat_message { report_indication { " + fields + " } }");
    }
    int IndicateLog(const std::string& fields) {
        return Indicate("extended_log_message { indication { " + fields + " } }");
    }
};

TEST_F(IndicationTest, DumpPiecesGoWhereTheirOffsetsSay) {
    EXPECT_EQ(IndicateDump("offset: 4 data: 'new'"), kStatusSuccess);
    EXPECT_EQ(log.TakeLines(),
              "I Got modemstat report indication; E Failed to open modemstat dump file");
    EXPECT_FALSE(folder.ReadFile(kDump));
    umask(077);
    struct Case {
        const char* offset;
        const char* content;
    };
    const Case cases[] = {
            {"", "new"},
            {"offset: 0", "newer"},
            {"offset: 1", "oldernew"},
            {"offset: 4294967295", "oldernew"},
    };
    for (const Case& row : cases) {
        folder.WriteFile(kDump, "older", 0600);
        EXPECT_EQ(IndicateDump(row.offset + std::string(" data: 'new'")), kStatusSuccess);
        EXPECT_EQ(folder.ReadFile(kDump), row.content) << row.offset;
        EXPECT_EQ(folder.Mode(kDump), 0664);
    }
    folder.Remove(kDump);
    EXPECT_EQ(IndicateDump("data: ''"), kStatusSuccess);
    EXPECT_EQ(folder.Mode(kDump), 0664);
}

TEST_F(IndicationTest, ExtendedLogsGrowUntilTheyAreRotated) {
    const std::string path = kExtendedLogs + std::string("extended_log_m.txt");
    const std::string stamp = "[0-1][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3}\n";
    struct Case {
        size_t size;
        size_t kept;
    };
    for (const Case& row : {Case{0, 0}, Case{1048576, 1048576}, Case{1048577, 0}}) {
        folder.WriteFile(path, std::string(row.size, 'x'), 0600);
        folder.WriteFile(path + ".old", "older");
        EXPECT_EQ(IndicateLog("name: 'm' data: 'abc\\n'"), kStatusSuccess);
        std::string content = folder.ReadFile(path).value();
        EXPECT_EQ(content.find("abc\n"), row.kept);
        EXPECT_THAT(content.substr(row.kept), MatchesRegex("abc\n" + stamp));
        EXPECT_EQ(folder.ReadFile(path + ".old").value().size(),
                  row.size > row.kept ? row.size : 5);
        EXPECT_EQ(folder.Mode(path), 0664);
    }
}

TEST_F(IndicationTest, ExtendedLogNamesAreUsedAsTheyAre) {
    EXPECT_EQ(IndicateLog("name: 'a/b'"), kStatusNotFound);
    EXPECT_EQ(log.TakeLines(), "I Got extended log indication; E Failed to open extended log file");
    folder.MakeDirectories(kExtendedLogs + std::string("extended_log_a"));
    EXPECT_EQ(IndicateLog("name: 'a/b'"), kStatusSuccess);
    EXPECT_TRUE(folder.ReadFile(kExtendedLogs + std::string("extended_log_a/b.txt")));
}

TEST_F(IndicationTest, ModemLinesAreLoggedByLevel) {
    for (const char* fields : {"", "level: 0 text: '50% done %s'", "level: 1 text: 'i'",
                               "level: 2 text: 'd'", "level: 4294967295 text: 'd'"}) {
        EXPECT_EQ(Indicate(std::string("userspace_log_message { indication { ") + fields + " } }"),
                  kStatusSuccess);
    }
    EXPECT_EQ(log.TakeLines(),
              "I Got userspace log indication; E Modem: ; "
              "I Got userspace log indication; E Modem: 50% done %s; "
              "I Got userspace log indication; I Modem: i; "
              "I Got userspace log indication; D Modem: d; "
              "I Got userspace log indication; D Modem: d");
}

using SenderTest = ServiceTestCase;

TEST_F(SenderTest, StatusTellsTheOutcomeAndARecordStaysUntilItsResponse) {
    struct Case {
        // Empty: there is none.
        std::string response;
        int status_of_report;
        int status_of_others;
    };
    const Case cases[] = {
            {"", kStatusTimeout, kStatusTimeout},
            {"type: RESPONSE result: SUCCESS", kStatusSuccess, kStatusSuccess},
            {"type: RESPONSE result: FAILURE", kStatusSuccess, kStatusRefused},
            {"type: RESPONSE", kStatusSuccess, kStatusRefused},
    };
    auto* list = new RequestList();
    handler.request_list = list;
    modem.SetState(kModemStateOnline);
    for (const Case& row : cases) {
        SCOPED_TRACE(row.response);
        unsigned int token = kNoToken;
        EXPECT_CALL(handler, SendRequest(testing::_, 3))
                .Times(4)
                .WillRepeatedly([&](SitMessage* message, unsigned int /*timeout_seconds*/) {
                    token = message->GetToken();
                    RequestRecord record(token);
                    list->AddRecord(&record);
                    if (row.response.empty()) return kStatusTimeout;
                    list->UpdateResponseMessage(token, Receive(row.response).get());
                    return kStatusSuccess;
                });
        EXPECT_EQ(service.SendModemStatReportRequest(), row.status_of_report);
        EXPECT_EQ(list->IsRecordInList(token), row.response.empty());
        EXPECT_EQ(service.SendExtendedLogRequest(), row.status_of_others);
        EXPECT_EQ(service.SendModemStatEnableRequest("m", 1, 2), row.status_of_others);
        EXPECT_EQ(service.SendUserspaceLogEnableRequestMessage("n"), row.status_of_others);
    }
    EXPECT_EQ(log.Count("E Got modemstat enable response failed"), 2);
}

TEST_F(SenderTest, OfflineNothingIsSentAndNoTokenTaken) {
    EXPECT_EQ(service.SendServiceRequest(kCommandDebugStatConfig), kStatusNotFound);
    folder.WriteFile(kStatConfig, "a|b");
    unsigned int before = TokenGen::GetInstance()->GetNext();
    EXPECT_EQ(service.SendServiceRequest(kCommandModemStatReport), kStatusOffline);
    EXPECT_EQ(service.SendServiceRequest(kCommandExtendedLog), kStatusOffline);
    EXPECT_EQ(service.SendServiceRequest(kCommandUserspaceLogEnable), kStatusOffline);
    EXPECT_EQ(service.SendServiceRequest(kCommandDebugStatConfig), kStatusSuccess);
    EXPECT_EQ(log.Count("E Modem is not online"), 5);
    EXPECT_EQ(TokenGen::GetInstance()->GetNext(), before + 1);
}

// A pipe has no size before it is read, as a file that is filled in that moment.
TEST_F(SenderTest, ConfigThatGrowsWhileItIsReadIsCutOff) {
    modem.SetState(kModemStateOnline);
    const std::string path = folder.HostPath(kStatConfig);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([&path] { std::ofstream(path) << "ab|c"; });
    EXPECT_CALL(handler, SendRequest(testing::_, 3))
            .WillOnce([](SitMessage* message, unsigned int) {
                EXPECT_EQ(
                        message->GetVelmarMessage()->modem_stat_message().enable_request().module(),
                        "a");
                return kStatusTimeout;
            });
    EXPECT_EQ(service.SendServiceRequest(kCommandDebugStatConfig), kStatusSuccess);
    writer.join();
    EXPECT_EQ(service.SendServiceRequest(kCommandUserspaceLogEnable), kStatusSuccess);
}

}  // namespace
