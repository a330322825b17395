#include "ril/gnss_coex_config.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include <stdexcept>

#include "base/velmar_status.h"
#include "radio_test_case.h"
#include "waiting_calls.h"

using android::base::Join;
using android::base::StringPrintf;
using testing::Return;
using testing::SizeIs;
using testing::StrictMock;

namespace {

constexpr char kDataFile[] = "/data/vendor/radio/gnss_blanking.csv";
constexpr char kVendorFile[] = "/vendor/etc/modem/gnss_blanking.csv";

constexpr char kTooShort[] = "too short";
constexpr char kIncomplete[] = "incomplete";
constexpr char kNoNumber[] = "no number";
constexpr char kOutOfRange[] = "out of range";

template <typename Bytes>
std::string Hex(const Bytes& bytes) {
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        text += StringPrintf("%s%02x", i > 0 && i % 2 == 0 ? " " : "",
                             static_cast<uint8_t>(bytes[i]));
    }
    return text;
}

// What becomes of the entry `line`: its record's bytes, or why there is none.
std::string Outcome(const std::string& line) {
    GnssCoexRecord record = {};
    try {
        switch (MakeGnssCoexRecord(line, &record)) {
            case GnssCoexLine::kEntry:
                return Hex(record);
            case GnssCoexLine::kTooShort:
                return kTooShort;
            case GnssCoexLine::kIncomplete:
                return kIncomplete;
        }
    } catch (const std::invalid_argument&) {
        return kNoNumber;
    } catch (const std::out_of_range&) {
        return kOutOfRange;
    }
    return "";
}

// Bytes by pairs: kind and 1, band 1, value 1, band 2, value 2.
TEST(GnssCoexRecordTest, LinesGiveARecordOrTheReasonWhyThereIsNone) {
    struct Case {
        const char* line;
        const char* outcome;
    };
    const Case cases[] = {
            {"B3,10", "0201 0300 0a00 0000 0000"},
            {"n78,2.9", "0301 4e00 0200 0000 0000"},
            {"850,1", "0001 0600 0100 0000 0000"},
            {"480,1", "0001 0500 0100 0000 0000"},
            {"450,1", "0001 0400 0100 0000 0000"},
            {"900,1", "0001 0300 0100 0000 0000"},
            {"1900,1", "0001 0200 0100 0000 0000"},
            {"1800,5", "0001 0100 0500 0000 0000"},
            // Only the exact names are known.
            {"1801,5", "0001 0000 0500 0000 0000"},
            {" 1800,5", "0001 0000 0500 0000 0000"},
            {"-5,10", "0001 0000 0a00 0000 0000"},
            // Three fields are one band, and so are four whose last two are empty.
            {"B3,10,n78", "0201 0300 0a00 0000 0000"},
            {"B3,10,,", "0201 0300 0a00 0000 0000"},
            // Two bands.
            {"B3,10,B7,20", "0401 0300 0a00 0700 1400"},
            {"B3,10,n78,20", "0501 0300 0a00 4e00 1400"},
            {"N78,10,B3,20", "0501 4e00 0a00 0300 1400"},
            {"n1,10,N2,20", "0501 0100 0a00 0200 1400"},
            // The first character goes, whatever it is.
            {"1800,10,900,20", "0401 2003 0a00 0000 1400"},
            // A second band without a number counts in the kind alone; its value is not read.
            {"B3,10,n,20", "0501 0300 0a00 0000 0000"},
            {"B3,10,B,none", "0401 0300 0a00 0000 0000"},
            // Numbers.
            {"B3,-3.7", "0201 0300 fdff 0000 0000"},
            {"B3,70000", "0201 0300 7011 0000 0000"},
            {"B70000,1", "0201 7011 0100 0000 0000"},
            {"b-1,1", "0201 ffff 0100 0000 0000"},
            {"B010,0x10", "0201 0a00 1000 0000 0000"},
            {"B 7x, 8 dBm", "0201 0700 0800 0000 0000"},
            {"B3,1e2\r", "0201 0300 6400 0000 0000"},
            // Beyond the range of an int its nearest end counts: 0x7fffffff, 0x80000000.
            {"B3,2147483646.5", "0201 0300 feff 0000 0000"},
            {"B3,2147483647.5", "0201 0300 ffff 0000 0000"},
            {"B3,-65537e9", "0201 0300 0000 0000 0000"},
            {"B3,-2147483647.5", "0201 0300 0100 0000 0000"},
            {"B3,inf", "0201 0300 ffff 0000 0000"},
            {"B3,-inf", "0201 0300 0000 0000 0000"},
            {"B3,nan", "0201 0300 0000 0000 0000"},
            // No record.
            {"B3", kTooShort},
            {",10", kIncomplete},
            {"B3,", kIncomplete},
            {"B3,10,n78,", kIncomplete},
            {"B3,10,,20", kIncomplete},
            {"B,10", kNoNumber},
            {"B3,ten", kNoNumber},
            {"B3,10,n78,\r", kNoNumber},
            {"B3,10, n78,20", kNoNumber},
            {"B2147483648,10", kOutOfRange},
            {"B3,1e400", kOutOfRange},
    };
    for (const Case& one : cases) EXPECT_EQ(Outcome(one.line), one.outcome) << one.line;
}

TEST(GnssCoexTextTest, EmptyLinesAreLeftOut) {
    struct Case {
        const char* text;
        bool has_lines;
        const char* first_line;
        const char* entry_lines;
    };
    const Case cases[] = {
            {"", false, "", ""},
            {"5", false, "5", ""},
            {"5\n", true, "5", ""},
            {"\n\n", true, "", ""},
            {"5\nB3,10", true, "5", "B3,10"},
            {"\n5\n\n\nB3,10\n\nn78,2\n", true, "5", "B3,10; n78,2"},
            // A carriage return is no empty line.
            {"5\r\n\r\nB3,10\r\n", true, "5\r", "\r; B3,10\r"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.text);
        GnssCoexText text = SplitGnssCoexText(one.text);
        EXPECT_EQ(text.has_lines, one.has_lines);
        EXPECT_EQ(text.first_line, one.first_line);
        EXPECT_EQ(Join(text.entry_lines, "; "), one.entry_lines);
    }
}

// In the place of a file's content: a symbolic link to the other file.
constexpr char kLink[] = "link";

// In the place of a status: the number's exception was passed on.
constexpr int kThrown = -1;

class GnssCoexLoadTest : public RadioTestCase {
  protected:
    int Load() {
        try {
            return LoadGnssCoexConfig();
        } catch (const std::invalid_argument&) {
            return kThrown;
        }
    }
};

TEST_F(GnssCoexLoadTest, WithoutALibraryNothingIsSent) {
    folder.WriteFile(kDataFile, "1\nB3,10\n");
    EXPECT_EQ(Load(), kStatusNotFound);
    EXPECT_EQ(log.TakeLines(),
              "I Configuring GNSS coex; "
              "E Failed to connect to RIL to send GNSS coex configuration");
}

TEST_F(GnssCoexLoadTest, FirstFileThatCanBeReadIsUsed) {
    struct Case {
        // Null: there is none.
        const char* data_file;
        const char* vendor_file;
        int status;
        // Payload of the first request, empty when there is none.
        const char* first_line;
        const char* log;
    };
    const Case cases[] = {
            {nullptr, nullptr, kStatusNotFound, "",
             "; E Failed to read any GNSS coex configuration file"},
            {"258\nB5\nB3,\nB3,10", "1\n", kStatusSuccess, "0201",
             "; E Invalid GNSS coex config line - B5; E Invalid band1 GNSS coex configuration - "
             "B3,"},
            {nullptr, "7", kStatusSuccess, "0700", "; E Invalid GNSS coex configuration file"},
            {kLink, "2\n", kStatusSuccess, "0200", ""},
            {"", "2\nB3,10\n", kThrown, "", "; E Invalid GNSS coex configuration file"},
            {"1\nB3,10\nB3,ten\nB7,20\n", "2\n", kThrown, "0100", ""},
    };
    Provide("full");
    for (const Case& row : cases) {
        folder.Remove(kDataFile);
        folder.Remove(kVendorFile);
        if (row.vendor_file != nullptr) folder.WriteFile(kVendorFile, row.vendor_file);
        if (row.data_file == kLink) {
            std::filesystem::create_symlink(folder.HostPath(kVendorFile),
                                            folder.HostPath(kDataFile));
        } else if (row.data_file != nullptr) {
            folder.WriteFile(kDataFile, row.data_file);
        }
        EXPECT_EQ(Load(), row.status);
        const auto calls = Calls("RILC_Send");
        EXPECT_EQ(calls.empty() ? "" : Hex(calls[0].request().data()), row.first_line);
        EXPECT_EQ(log.TakeLines(), std::string("I Configuring GNSS coex") + row.log);
        ForgetCalls();
    }
}

// Twelve attempts in a minute: one every 5 s.
TEST_F(GnssCoexLoadTest, RadioThatIsNotAvailableIsAskedForAMinutePerRequest) {
    Provide("full");
    Behave("answer { error: 1 early: true }");
    folder.WriteFile(kDataFile, "1\nB3,10\n");
    StrictMock<WaitingCalls> calls;
    EXPECT_CALL(calls, Sleep(5)).Times(22).WillRepeatedly(Return(0));
    EXPECT_EQ(Load(), kStatusSuccess);
    EXPECT_THAT(Calls("RILC_Send"), SizeIs(24));
}

}  // namespace
