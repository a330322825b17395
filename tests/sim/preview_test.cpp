#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "shell_output.h"
#include "sim/modem/temporary_folder.h"

namespace {

// Previews `text`, which stands in the file gnss_blanking.csv and on standard input. Returns what
// is written and, behind it, the exit status.
std::string Preview(const std::string& arguments, const std::string& text) {
    const velmar_sim::TemporaryFolder folder;
    std::ofstream(folder.path() + "/gnss_blanking.csv") << text;
    return ShellOutput("cd '" + folder.path() + "'; $sim preview --velmar $velmar " + arguments +
                       " <gnss_blanking.csv; printf $?");
}

TEST(Preview, EachLineStandsBesideWhatIsSentForIt) {
    const struct {
        std::string arguments, text, output;
    } cases[] = {
            {"--as statistics -", "mod:v=1,t=2|b:v= 00\r\n\nc",
             R"(-:1: mod:v=1,t=2   enable_request { module: "mod" value: 1 type: 2 }
-:1: b:v= 00       enable_request { module: "b" value: 0 }
-:3: c             enable_request { module: "c" }
0)"},
            {"--as statistics -", "a: v=1\n:::\nb :v=1x,t=-1|||:v=1:w\n#c:t=1,,t=2,v=-5",
             R"(-:1: a: v=1             enable_request { module: "a" }  warning: " v=1" is passed over
-:2: :::                not sent: expected a module
-:3: b :v=1x,t=-1       enable_request { module: "b " value: 1 type: 4294967295 }  warning: an empty entry is passed over; white space is part of the module; "v=1x" is sent as 1; "t=-1" is sent as 4294967295
-:3: :v=1:w             enable_request { module: "v=1" }  warning: an empty field is passed over; "v=1" is taken for a module; "w" is passed over
-:4: #c:t=1,,t=2,v=-5   enable_request { module: "#c" type: 2 }  warning: a comment is taken for a module; an empty parameter is passed over; "v=-5" sends no value; the type is given more than once
1)"},
            {"--as logging -", "\none\r\ntw\to ",
             R"(-:1:          type: REQUEST message_id: 8 token: 0  warning: the request has no name
-:2: one\r    enable_request { name: "one\r" }  warning: CR is part of the name
-:3: tw\to    enable_request { name: "tw\to " }  warning: control characters are part of the name; white space is part of the name
1)"},
            {"--as gnss -", "70000\nfoo\nB3,1\nfoo\n18 ,5\nB3,\nB3x,2.9,n78\r\n13,1,B,2,x",
             R"(-:1: 70000           227  70 11  warning: "70000" is sent as 4464
-:2: foo             not sent: expected at least two fields
-:3: B3,1            226  02 01 03 00 01 00 00 00 00 00  LTE 3 value 1
-:4: foo             not sent: expected at least two fields
-:5: 18 ,5           226  00 01 00 00 05 00 00 00 00 00  warning: "18 " is no band, band 0 is sent
-:6: B3,             not sent: expected a value for each band, and a band for each value
-:7: B3x,2.9,n78\r   226  02 01 03 00 02 00 00 00 00 00  LTE 3 value 2  warning: CR ends the line; band "B3x" is sent as 3; value "2.9" is sent as 2; "n78" is passed over
-:8: 13,1,B,2,x      226  04 01 03 00 01 00 00 00 00 00  LTE pair 3 value 1, 0 value 0  warning: band "13" is sent as 3; band "B" is sent as 0; value "2" is sent as 0; "x" is passed over
1)"},
            {"--as gnss -", "258\n258\n",
             "-:1: 258   227  02 01\n-:2: 258   not sent: expected at least two fields\n1"},
            {"-", "",
             "-: expected a file named modem_stat.conf, modem_userspace_logging.conf, "
             "gnss_blanking.csv, or the option --as\n2"},
            {"--as logging -", {"a\nb\0", 4}, "-:2: expected text, found a byte 0\n2"},
    };
    for (const auto& [arguments, text, output] : cases) EXPECT_EQ(Preview(arguments, text), output);
}

TEST(Preview, TheLineAtWhichTheServiceEndsIsNamed) {
    constexpr char kBegin[] = R"(gnss_blanking.csv:1: 1          227  01 00
gnss_blanking.csv:2: n78,-2.0   226  03 01 4e 00 fe ff 00 00 00 00  NR 78 value -2
gnss_blanking.csv:4: B3,x       the service ended: SIGABRT: terminate called after throwing an instance of 'std::invalid_argument' what():  stod)";
    const std::string output = Preview("gnss_blanking.csv", "1\nn78,-2.0\n\nB3,x\n900,5\n");
    EXPECT_THAT(output, testing::StartsWith(kBegin));
    EXPECT_THAT(output, testing::EndsWith(":5: 900,5      not sent: the service had ended\n3"));
}

}  // namespace
