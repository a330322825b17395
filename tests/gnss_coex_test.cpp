#include "ril/gnss_coex_config.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include <stdexcept>
#include <utility>

#include "base/velmar_status.h"
#include "radio_test_case.h"
#include "ril/gnss_coex_service.h"
#include "waiting_calls.h"

using android::base::Join;
using android::base::StringPrintf;

namespace {

constexpr char kDataFile[] = "/data/vendor/radio/gnss_blanking.csv";
constexpr char kVendorFile[] = "/vendor/etc/modem/gnss_blanking.csv";

// What becomes of the entry `line`: its record's numbers, or why there is none.
std::string Outcome(const std::string& line) {
    GnssCoexRecord record = {};
    const auto low16 = [&record](size_t at) { return record[at] | record[at + 1] << 8; };
    try {
        switch (MakeGnssCoexRecord(line, &record)) {
            case GnssCoexLine::kEntry:
                return StringPrintf("%d %d %d %d %d %d", record[0], record[1], low16(2), low16(4),
                                    low16(6), low16(8));
            case GnssCoexLine::kTooShort:
                return "too short";
            case GnssCoexLine::kIncomplete:
                return "incomplete";
        }
    } catch (const std::invalid_argument&) {
        return "no number";
    } catch (const std::out_of_range&) {
        return "out of range";
    }
    return "";
}

// Kind, 1, band 1, value 1, band 2, value 2.
TEST(GnssCoexRecordTest, LinesGiveARecordOrTheReasonWhyThereIsNone) {
    const std::pair<const char*, const char*> cases[] = {
            {"B3,10", "2 1 3 10 0 0"},
            {"n78,2.9", "3 1 78 2 0 0"},
            {"850,1", "0 1 6 1 0 0"},
            {"480,1", "0 1 5 1 0 0"},
            {"450,1", "0 1 4 1 0 0"},
            {"900,1", "0 1 3 1 0 0"},
            {"1900,1", "0 1 2 1 0 0"},
            {"1800,5", "0 1 1 5 0 0"},
            // Only the exact names are known.
            {"-5,10", "0 1 0 10 0 0"},
            // Three fields are one band, and so are four whose last two are empty.
            {"B3,10,n78", "2 1 3 10 0 0"},
            {"b3,10,,", "2 1 3 10 0 0"},
            // Two bands.
            {"B3,10,b7,20", "4 1 3 10 7 20"},
            {"B3,10,n78,20", "5 1 3 10 78 20"},
            {"N78,10,B3,20", "5 1 78 10 3 20"},
            // The first character goes, whatever it is.
            {"1800,10,900,20", "4 1 800 10 0 20"},
            // A second band without a number counts in the kind alone; its value is not read.
            {"B3,10,n,20", "5 1 3 10 0 0"},
            {"B3,10,B,none", "4 1 3 10 0 0"},
            // Numbers.
            {"B70000,-3.7", "2 1 4464 65533 0 0"},
            {"b-1,1", "2 1 65535 1 0 0"},
            {"B 010x,0x10\r", "2 1 10 16 0 0"},
            // Beyond the range of an int its nearest end counts: 0x7fffffff, 0x80000000.
            {"B3,2147483647.5", "2 1 3 65535 0 0"},
            {"B3,-inf", "2 1 3 0 0 0"},
            {"B3,nan", "2 1 3 0 0 0"},
            // No record.
            {"B3", "too short"},
            {",10", "incomplete"},
            {"B3,", "incomplete"},
            {"B3,10,n78,", "incomplete"},
            {"B3,10,,20", "incomplete"},
            {"B,10", "no number"},
            {"B3,ten", "no number"},
            {"B3,10,n78,\r", "no number"},
            {"B2147483648,10", "out of range"},
            {"B3,1e400", "out of range"},
    };
    for (const auto& [line, outcome] : cases) EXPECT_EQ(Outcome(line), outcome) << line;
}

TEST(GnssCoexTextTest, EmptyLinesAreLeftOut) {
    const std::pair<const char*, const char*> cases[] = {
            {"5", "one line: 5; "},
            {"\n\n", "; "},
            {"\n5\n\n\nB3,10\n\nn78,2", "5; B3,10|n78,2"},
            // A carriage return is no empty line.
            {"5\r\n\r\nB3,10\r\n", "5\r; \r|B3,10\r"},
    };
    for (const auto& [text, lines] : cases) {
        const GnssCoexText split = SplitGnssCoexText(text);
        EXPECT_EQ((split.has_lines ? "" : "one line: ") + split.first_line + "; " +
                          Join(split.entry_lines, "|"),
                  lines);
    }
}

class GnssCoexLoadTest : public RadioTestCase {
  protected:
    // What comes of loading: the status, the calls of the library, and what is logged.
    std::string Load() {
        const int status = LoadGnssCoexConfig();
        return std::to_string(status) + "; " + Join(TakeCalls(), "; ") + "; " + log.TakeLines();
    }

    LogCapture log{folder};
};

TEST_F(GnssCoexLoadTest, FirstFileThatCanBeReadIsUsed) {
    const std::string sent = "0; RILC_Send client: open request { request: 227 data: ";
    const std::string logged = " } extra: 255; I Configuring GNSS coex";
    Provide("full");
    Behave("no_client: true");
    EXPECT_EQ(Load(),
              "8; RILC_Open; I Configuring GNSS coex; "
              "E Failed to connect to RIL to send GNSS coex configuration");
    Behave("");
    EXPECT_EQ(Load(),
              "8; RILC_Open; I Configuring GNSS coex; "
              "E Failed to read any GNSS coex configuration file");
    folder.WriteFile(kVendorFile, "7");
    EXPECT_EQ(Load(), sent + "\\007\\000" + logged + "; E Invalid GNSS coex configuration file");
    folder.WriteFile(kDataFile, "258\nB5\nB3,\n");
    EXPECT_EQ(Load(), sent + "\\002\\001" + logged +
                              "; E Invalid GNSS coex config line - B5"
                              "; E Invalid band1 GNSS coex configuration - B3,");
    folder.WriteFile(kDataFile, "");
    EXPECT_THROW(Load(), std::invalid_argument);
    // A symbolic link cannot be read.
    folder.WriteFile("/linked", "9\n");
    folder.WriteFile(kVendorFile, "8\n");
    folder.Remove(kDataFile);
    std::filesystem::create_symlink("/linked", folder.HostPath(kDataFile));
    log.TakeLines();
    EXPECT_EQ(Load(), sent + "\\010\\000" + logged);
}

// Twelve attempts in a minute, one every 5 s; the client's is one more call.
TEST_F(GnssCoexLoadTest, RadioThatIsNotAvailableIsAskedForAMinutePerRequest) {
    Provide("full");
    Behave("answer { error: 1 early: true }");
    folder.WriteFile(kDataFile, "1\nB3,10\n");
    testing::StrictMock<WaitingCalls> calls;
    EXPECT_CALL(calls, Sleep(5)).Times(22).WillRepeatedly(testing::Return(0));
    EXPECT_EQ(LoadGnssCoexConfig(), kStatusSuccess);
    EXPECT_THAT(TakeCalls(), testing::SizeIs(25));
}

}  // namespace
