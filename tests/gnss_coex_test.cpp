#include "ril/gnss_coex_config.h"

#include <android-base/stringprintf.h>

#include <stdexcept>

#include "radio_test_case.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

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
        text += android::base::StringPrintf("%s%02x", i > 0 && i % 2 == 0 ? " " : "",
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

struct LineCase {
    const char* line;
    const char* outcome;
};

void ExpectOutcomes(const std::vector<LineCase>& cases) {
    for (const LineCase& one : cases) EXPECT_EQ(Outcome(one.line), one.outcome) << one.line;
}

// Bytes by pairs: kind and 1, band 1, value 1, band 2, value 2.
TEST(GnssCoexRecordTest, OneBand) {
    ExpectOutcomes({
            {"B3,10", "0201 0300 0a00 0000 0000"},
            {"b3,10", "0201 0300 0a00 0000 0000"},
            {"n78,2.9", "0301 4e00 0200 0000 0000"},
            {"N257,10", "0301 0101 0a00 0000 0000"},
            {"850,1", "0001 0600 0100 0000 0000"},
            {"480,1", "0001 0500 0100 0000 0000"},
            {"450,1", "0001 0400 0100 0000 0000"},
            {"900,1", "0001 0300 0100 0000 0000"},
            {"1900,1", "0001 0200 0100 0000 0000"},
            {"1800,5", "0001 0100 0500 0000 0000"},
            // Only the exact names are known.
            {"1801,5", "0001 0000 0500 0000 0000"},
            {" 1800,5", "0001 0000 0500 0000 0000"},
            {"01800,5", "0001 0000 0500 0000 0000"},
            {"-5,10", "0001 0000 0a00 0000 0000"},
            {" B3,10", "0001 0000 0a00 0000 0000"},
            {"GSM,10", "0001 0000 0a00 0000 0000"},
            // Three fields are one band, and so are four whose last two are empty.
            {"B3,10,n78", "0201 0300 0a00 0000 0000"},
            {"B3,10,,", "0201 0300 0a00 0000 0000"},
            {"B3,10,,,n78", "0201 0300 0a00 0000 0000"},
    });
}

TEST(GnssCoexRecordTest, TwoBands) {
    ExpectOutcomes({
            {"B3,10,B7,20", "0401 0300 0a00 0700 1400"},
            {"B3,10,n78,20", "0501 0300 0a00 4e00 1400"},
            {"N78,10,B3,20", "0501 4e00 0a00 0300 1400"},
            {"n1,10,N2,20", "0501 0100 0a00 0200 1400"},
            {"B3,10,B7,20,B9,30", "0401 0300 0a00 0700 1400"},
            // The first character goes, whatever it is.
            {"1800,10,900,20", "0401 2003 0a00 0000 1400"},
            {"x3,10,y7,20", "0401 0300 0a00 0700 1400"},
            // A second band without a number counts in the kind alone; its value is not read.
            {"B3,10,n,20", "0501 0300 0a00 0000 0000"},
            {"B3,10,B,none", "0401 0300 0a00 0000 0000"},
    });
}

TEST(GnssCoexRecordTest, Numbers) {
    ExpectOutcomes({
            {"B3,-3.7", "0201 0300 fdff 0000 0000"},
            {"B3,-0.9", "0201 0300 0000 0000 0000"},
            {"B3,70000", "0201 0300 7011 0000 0000"},
            {"B3,-32768.5", "0201 0300 0080 0000 0000"},
            {"B70000,1", "0201 7011 0100 0000 0000"},
            {"B-1,1", "0201 ffff 0100 0000 0000"},
            {"B010,0x10", "0201 0a00 1000 0000 0000"},
            {"B 7x, 8 dBm", "0201 0700 0800 0000 0000"},
            {"B3,1e2\r", "0201 0300 6400 0000 0000"},
            {"B3,10,n78,20\r", "0501 0300 0a00 4e00 1400"},
            // Beyond the range of an int its nearest end counts: 0x7fffffff, 0x80000000.
            {"B3,2147483646.5", "0201 0300 feff 0000 0000"},
            {"B3,2147483647.5", "0201 0300 ffff 0000 0000"},
            {"B3,65536e9", "0201 0300 ffff 0000 0000"},
            {"B3,-65537e9", "0201 0300 0000 0000 0000"},
            {"B3,-2147483647.5", "0201 0300 0100 0000 0000"},
            {"B3,inf", "0201 0300 ffff 0000 0000"},
            {"B3,-inf", "0201 0300 0000 0000 0000"},
            {"B3,nan", "0201 0300 0000 0000 0000"},
    });
}

TEST(GnssCoexRecordTest, NoRecord) {
    ExpectOutcomes({
            {"B3", kTooShort},
            {"\r", kTooShort},
            {"# B3 10", kTooShort},
            {",10", kIncomplete},
            {"B3,", kIncomplete},
            {",", kIncomplete},
            {"B3,10,n78,", kIncomplete},
            {"B3,10,,20", kIncomplete},
            {"B3,10,,\r", kIncomplete},
            {",10,n78,20", kIncomplete},
            {"B,10", kNoNumber},
            {"n,10", kNoNumber},
            {"BB3,10", kNoNumber},
            {"B3,ten", kNoNumber},
            {"B3, ", kNoNumber},
            {"900,\r", kNoNumber},
            {"B3,10,n78,\r", kNoNumber},
            {"B,10,n78,20", kNoNumber},
            {"B3,10, n78,20", kNoNumber},
            {"B2147483648,10", kOutOfRange},
            {"B3,1e400", kOutOfRange},
    });
}

TEST(GnssCoexTextTest, EmptyLinesAreLeftOut) {
    struct {
        const char* text;
        bool has_lines;
        const char* first_line;
        std::vector<std::string> entry_lines;
    } cases[] = {
            {"", false, "", {}},
            {"5", false, "5", {}},
            {"5\n", true, "5", {}},
            {"\n\n", true, "", {}},
            {"5\nB3,10", true, "5", {"B3,10"}},
            {"\n5\n\n\nB3,10\n\nn78,2\n", true, "5", {"B3,10", "n78,2"}},
            // A carriage return is no empty line.
            {"5\r\n\r\nB3,10\r\n", true, "5\r", {"\r", "B3,10\r"}},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.text);
        GnssCoexText text = SplitGnssCoexText(one.text);
        EXPECT_EQ(text.has_lines, one.has_lines);
        EXPECT_EQ(text.first_line, one.first_line);
        EXPECT_THAT(text.entry_lines, ElementsAreArray(one.entry_lines));
    }
}

TEST(GnssCoexTextTest, FirstLineIsANumber) {
    EXPECT_EQ(Hex(MakeGnssCoexHeader("258")), "0201");
    EXPECT_EQ(Hex(MakeGnssCoexHeader(" -2 entries\r")), "feff");
    EXPECT_EQ(Hex(MakeGnssCoexHeader("65537.9")), "0100");
    EXPECT_THROW(MakeGnssCoexHeader(""), std::invalid_argument);
    EXPECT_THROW(MakeGnssCoexHeader("B3,10"), std::invalid_argument);
    EXPECT_THROW(MakeGnssCoexHeader("2147483648"), std::out_of_range);
}

class GnssCoexLoadTest : public RadioTestCase {
  protected:
    // The requests that reached the radio: number, blank, bytes in hex.
    std::vector<std::string> Requests() {
        std::vector<std::string> requests;
        for (const velmar_sim::RadioCall& call : Calls("RILC_Send")) {
            const std::string& data = call.request().data();
            requests.push_back(std::to_string(call.request().request()) + " " + Hex(data));
        }
        return requests;
    }

    // The lines that the service itself logs.
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        for (const std::string& line : log.Lines()) {
            if (line.find("RilClientHelperDLImpl::") == std::string::npos) lines.push_back(line);
        }
        return lines;
    }
};

TEST_F(GnssCoexLoadTest, WithoutALibraryNothingIsSent) {
    folder.WriteFile(kDataFile, "1\nB3,10\n");
    EXPECT_EQ(LoadGnssCoexConfig(), 8);
    EXPECT_THAT(Lines(), ElementsAre("I Configuring GNSS coex",
                                     "E Failed to connect to RIL to send GNSS coex configuration"));
}

TEST_F(GnssCoexLoadTest, WithoutAFileNothingIsSent) {
    Provide("full");
    EXPECT_EQ(LoadGnssCoexConfig(), 8);
    EXPECT_THAT(CallTexts(), ElementsAre("function: \"RILC_Open\""));
    EXPECT_THAT(Lines(), ElementsAre("I Configuring GNSS coex",
                                     "E Failed to read any GNSS coex configuration file"));
}

TEST_F(GnssCoexLoadTest, EveryValidLineIsSentWhateverTheRadioAnswers) {
    Provide("full");
    Behave("answer { error: 44 } answer { error: 2 } answer { error: 0 }");
    folder.WriteFile(kDataFile, "258\nB3,10\n\nB5\nn78,\n1800,5\nB3,10,n78,20\n");
    folder.WriteFile(kVendorFile, "1\n");
    EXPECT_EQ(LoadGnssCoexConfig(), 0);
    EXPECT_THAT(Requests(),
                ElementsAre("227 0201", "226 0201 0300 0a00 0000 0000",
                            "226 0001 0100 0500 0000 0000", "226 0501 0300 0a00 4e00 1400"));
    EXPECT_THAT(Lines(),
                ElementsAre("I Configuring GNSS coex", "E Invalid GNSS coex config line - B5",
                            "E Invalid band1 GNSS coex configuration - n78,"));
}

TEST_F(GnssCoexLoadTest, OneLineIsInvalidAndSent) {
    Provide("full");
    folder.WriteFile(kVendorFile, "7");
    EXPECT_EQ(LoadGnssCoexConfig(), 0);
    EXPECT_THAT(Requests(), ElementsAre("227 0700"));
    EXPECT_THAT(Lines(),
                ElementsAre("I Configuring GNSS coex", "E Invalid GNSS coex configuration file"));
}

TEST_F(GnssCoexLoadTest, SymbolicLinkIsNotFollowed) {
    Provide("full");
    folder.WriteFile("/data/vendor/radio/other.csv", "1\n");
    folder.WriteFile(kVendorFile, "2\n");
    std::filesystem::create_symlink("other.csv", folder.HostPath(kDataFile));
    EXPECT_EQ(LoadGnssCoexConfig(), 0);
    EXPECT_THAT(Requests(), ElementsAre("227 0200"));
}

TEST_F(GnssCoexLoadTest, EmptyDataFileHidesTheVendorFileAndThrows) {
    Provide("full");
    folder.WriteFile(kDataFile, "");
    folder.WriteFile(kVendorFile, "2\nB3,10\n");
    EXPECT_THROW(LoadGnssCoexConfig(), std::invalid_argument);
    EXPECT_THAT(Requests(), IsEmpty());
    EXPECT_THAT(Lines(),
                ElementsAre("I Configuring GNSS coex", "E Invalid GNSS coex configuration file"));
}

TEST_F(GnssCoexLoadTest, NumberThatCannotBeConvertedEndsTheFile) {
    Provide("full");
    folder.WriteFile(kDataFile, "1\nB3,10\nB3,ten\nB7,20\n");
    EXPECT_THROW(LoadGnssCoexConfig(), std::invalid_argument);
    EXPECT_THAT(Requests(), ElementsAre("227 0100", "226 0201 0300 0a00 0000 0000"));
}

}  // namespace
