#include <android-base/stringprintf.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "phone_test_case.h"
#include "service/debug_stat_config.h"

using android::base::StringPrintf;

// Takes the place of the C library's: 22:13:20 on November 14, 2023, in Greenwich.
extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    *now = {1700000000, 42000};
    return 0;
}

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
    const std::pair<std::string, const char*> cases[] = {
            {"modemA:v=1,t=2|modemB:v=0\nmodemC", "modemA 1 2; modemB 0 0; modemC -1 0; "},
            {"|\r\na||b\r\n\r\nc|", "a -1 0; b -1 0; c -1 0; "},
            {":::", "none; "},
            {"::a::v=1::t=2", "a 1 0; "},
            {"a: v=1", "a -1 0; "},
            {"a:v= 1,t=+3z", "a 1 3; "},
            {"a:vv=3", "a -1 0; "},
            {"a:v=,t=", "a -1 0; "},
            {"a:,,t=3,t=4,v=7,x=9,", "a 7 4; "},
            {"a:v=-5,t=-1", "a -5 -1; "},
            {{"a:v=1\0|b", 8}, "a 1 0; "},
    };
    for (const auto& [text, entries] : cases) EXPECT_EQ(Entries(text), entries) << text;
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
    EXPECT_EQ(IndicateDump("data: 'first'"), kStatusSuccess);
    EXPECT_EQ(folder.Mode(kDump), 0664);
    const std::pair<std::string, const char*> cases[] = {
            {"", "new"},
            {"offset: 0", "newer"},
            {"offset: 1", "oldernew"},
            {"offset: 4294967295", "oldernew"},
    };
    for (const auto& [offset, content] : cases) {
        folder.WriteFile(kDump, "older");
        EXPECT_EQ(IndicateDump(offset + " data: 'new'"), kStatusSuccess);
        EXPECT_EQ(folder.ReadFile(kDump), content) << offset;
    }
}

TEST_F(IndicationTest, ExtendedLogsGrowUntilTheyAreRotated) {
    const std::string path = kExtendedLogs + std::string("extended_log_m.txt");
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread looks at it.
    setenv("TZ", "XYZ-05:30", 1);
    for (size_t size : {0, 1048576, 1048577}) {
        const size_t kept = size > 1048576 ? 0 : size;
        folder.WriteFile(path, std::string(size, 'x'), 0600);
        folder.WriteFile(path + ".old", "older");
        EXPECT_EQ(IndicateLog("name: 'm' data: 'a\\000c\\n'"), kStatusSuccess);
        const std::string content = folder.ReadFile(path).value();
        EXPECT_EQ(content.substr(0, kept), std::string(kept, 'x'));
        EXPECT_EQ(content.substr(kept, 4), std::string("a\0c\n", 4));
        EXPECT_EQ(content.substr(kept + 4), "11-15 03:43:20.042\n");
        EXPECT_EQ(folder.ReadFile(path + ".old").value().size(), size > kept ? size : 5);
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
    const std::pair<const char*, const char*> cases[] = {
            {"", "E Modem: "},
            {"level: 0 text: '50% done %s'", "E Modem: 50% done %s"},
            {"level: 1 text: 'i'", "I Modem: i"},
            {"level: 2 text: 'd'", "D Modem: d"},
            {"level: 4294967295 text: 'd'", "D Modem: d"},
    };
    for (const auto& [fields, line] : cases) {
        EXPECT_EQ(Indicate(std::string("userspace_log_message { indication { ") + fields + " } }"),
                  kStatusSuccess);
        EXPECT_EQ(log.TakeLines(), std::string("I Got userspace log indication; ") + line);
    }
}

class SenderTest : public ServiceTestCase {
  protected:
    SenderTest() {
        modem.SetState(kModemStateOnline);
        handler.request_list = list;
    }

    // What the modem responds to each request from now on; if empty, nothing.
    void Respond(const std::string& response) {
        EXPECT_CALL(handler, SendRequest(testing::_, 3))
                .WillRepeatedly([this, response](SitMessage* message, unsigned int /*timeout*/) {
                    token = message->GetToken();
                    RequestRecord record(token);
                    list->AddRecord(&record);
                    if (response.empty()) return kStatusTimeout;
                    list->UpdateResponseMessage(token, Receive(response).get());
                    return kStatusSuccess;
                });
    }

    RequestList* list = new RequestList();
    unsigned int token = kNoToken;
};

TEST_F(SenderTest, StatusTellsTheOutcomeAndARecordStaysUntilItsResponse) {
    // The response, the status of the report, and that of all others.
    const std::tuple<std::string, int, int> cases[] = {
            {"", kStatusTimeout, kStatusTimeout},
            {"type: RESPONSE result: SUCCESS", kStatusSuccess, kStatusSuccess},
            {"type: RESPONSE result: FAILURE", kStatusSuccess, kStatusRefused},
            {"type: RESPONSE", kStatusSuccess, kStatusRefused},
    };
    for (const auto& [response, of_report, of_others] : cases) {
        SCOPED_TRACE(response);
        Respond(response);
        EXPECT_EQ(service.SendModemStatReportRequest(), of_report);
        EXPECT_EQ(list->IsRecordInList(token), response.empty());
        EXPECT_EQ(service.SendExtendedLogRequest(), of_others);
        EXPECT_EQ(service.SendModemStatEnableRequest("m", 1, 2), of_others);
        EXPECT_EQ(service.SendUserspaceLogEnableRequestMessage("n"), of_others);
    }
    EXPECT_EQ(log.Count("E Got modemstat enable response failed"), 2);
}

TEST_F(SenderTest, OfflineNothingIsSentAndNoTokenTaken) {
    modem.SetState(0);
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
    const std::string path = folder.HostPath(kStatConfig);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([&path] { std::ofstream(path) << "ab|c"; });
    Respond("");
    EXPECT_EQ(service.SendServiceRequest(kCommandDebugStatConfig), kStatusSuccess);
    writer.join();
    EXPECT_EQ(log.Count("I Send debug stat config: a, v=-1, t=0"), 1);
}

}  // namespace
