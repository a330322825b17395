#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "shell_output.h"
#include "sim/modem/temporary_folder.h"

using testing::HasSubstr;

namespace {

// Lines of shell in a folder of their own, which holds the files s, a scenario, and t, its trace.
class TraceTest : public testing::Test {
  protected:
    TraceTest() {
        WriteFile("setup",
                  "patched() { head -c $2 $1; printf \"$3\"; tail -c +$(($2 + 2)) $1; };"
                  "scenarios=" SCENARIOS
                  "; run=\"$sim run --quiet --velmar $velmar\";"
                  "replay=\"$sim replay --quiet --velmar $velmar\"");
        WriteFile("s", R"(phone { modem_state: 4 property { name: "p" value: "v" } answer {}
file { path: "/data/vendor/radio/modem_stat.conf" content: "a:v=1\nb:v=1\n" } }
step { expect { type: REQUEST message_id: 5 token: 0
                modem_stat_message { enable_request { module: "a" value: 1 } } } }
step { expect { type: REQUEST message_id: 5 token: 1
                modem_stat_message { enable_request { module: "b" value: 1 } } } }
step { send_hex: "ff" }
step { send { type: REQUEST token: 7 property_message { read_request { name: "p\xff" } } } }
step { expect { type: RESPONSE message_id: 7 token: 7 result: PROPERTY_FAILURE
                property_message { read_response { value: "" } } } }
step { send { type: REQUEST token: 8 property_message { read_request { name: "p" } } } }
step { expect { type: RESPONSE message_id: 7 token: 8 result: SUCCESS
                property_message { read_response { value: "v" } } } }
step { log { matching: "Failed to read property p." } })");
        EXPECT_EQ(Shell("$run --trace t s"), "PASS s\nPASSED: 1 scenario, 8 steps\nstatus 0\n");
    }

    // What the line writes, and its exit status.
    std::string Shell(const std::string& line) const {
        return ShellOutput("cd " + folder.path() + "; . ./setup; " + line + "\necho status $?");
    }

    void WriteFile(const std::string& name, const std::string& content) const {
        std::ofstream(folder.path() + "/" + name) << content;
    }

    const velmar_sim::TemporaryFolder folder;
};

TEST_F(TraceTest, PythonReadsTheRowsOfARun) {
    WriteFile("read.py", R"(
import base64, json
for row in map(json.loads, open("t", "rb")):
    data = base64.b64decode(row.get("bytes", ""))
    if "to" in row and data:
        print(row["from"], data.hex(), row.get("message", {}).get("token"), "after_us" in row)
    elif data: print(row["log"], data))");
    EXPECT_EQ(Shell("python3 read.py | LC_ALL=C sort | grep -e ff -e ' 7 '"),
              R"(E b'Failed to read property p\xff'
modem 080118073a060a040a0270ff 7 False
modem ff None False
velmar 08021007180720073a0412020a00 7 True
status 0
)");
}

TEST_F(TraceTest, ScenariosAreShownAsTheyWereAndCanBeReplayed) {
    EXPECT_THAT(Shell("$sim run --velmar $velmar --trace t --full $scenarios/tour.textproto "
                      "$scenarios/channel_faults.textproto | grep -v ^PASS > shown;"
                      "$sim decode --full t | cmp - shown; $replay --fast t"),
                testing::MatchesRegex("PASSED: [1-9][0-9] messages\nstatus 0\n"));
}

TEST_F(TraceTest, TsharkShowsTheMessagesOfACapture) {
    if (Shell("command -v tshark > found") != "status 0\n") GTEST_SKIP() << "tshark is missing";
    WriteFile("rows.py", R"(
import json
for row in map(json.loads, open("t", "rb")):
    if "bytes" in row and "to" in row:
        message = row.get("message", {}).items()
        print(format(row["t"], ".9f"), "10.0.0.2" if row["from"] == "modem" else "10.0.0.1",
              "".join(" " + (k if type(v) is dict else f"{k}={v}") for k, v in message), sep="\t"))");
    WriteFile("tshark.sh", R"(tshark -r t.pcap -o protobuf.preload_protos:TRUE \
-o "uat:protobuf_search_paths:\"$(realpath $scenarios/../proto)\",\"TRUE\"" \
-o 'uat:protobuf_udp_message_types:"50505","velmar_message.VelmarMessage"' \
-T fields -e frame.time_epoch -e ip.src -e _ws.col.Info 2> errors)");
    EXPECT_EQ(Shell("$run --trace t.pcap --trace t $scenarios/tour.textproto > verdict;"
                    "python3 rows.py > rows && . ./tshark.sh | diff - rows && test -s rows"),
              "status 0\n");
}

TEST_F(TraceTest, CommandsTakeWhatIsATraceAndNameWhatIsNone) {
    Shell("(echo modem 08011007; echo phone 08 02; printf 'modem %0131136d') > hex;"
          "$sim decode --quiet --trace t.pcap hex");
    const auto write_phone = [this](const char* name, const char* value,
                                    const char* configuration) {
        WriteFile(name, std::string("modem_state: 4 property { name: 'p' value: '") + value +
                                "' } file { path: '/data/vendor/radio/modem_stat.conf' content: '" +
                                configuration + "' }");
    };
    write_phone("same", "v", "a:v=1\\nb:v=1");
    write_phone("property", "w", "a:v=1\\nb:v=1");
    write_phone("more", "v", "x:v=1\\na:v=1\\nb:v=1");
    WriteFile("offline", "");
    const std::string hex = "JSON, or \"modem\" or \"phone\" and bytes in hexadecimal, found ";
    const std::string row = "a row of a trace in JSON: ";
    const struct {
        std::string line;
        std::string output;
        int status;
    } cases[] = {
            {"$sim decode - < hex", "modem -> velmar  REQUEST (4 bytes) without payload\n", 0},
            {"$sim decode t.pcap", "velmar -> modem  RESPONSE (2 bytes) without payload\n", 0},
            {"(echo modem ff; timeout 20 sh -c 'until grep ff shown; do sleep 0.1; done' > came) | "
             "$sim decode - > shown; cat came",
             "modem -> velmar  not a message, 1 byte: ff\n", 0},
            {"$sim decode t.pcap", "of a message of 65568 bytes these were captured:\n", 0},
            {"head -c 100 t.pcap | $sim decode -", "-:2: expected a packet: truncated", 2},
            {"head -c 20 t.pcap | $sim decode -", "-: expected a capture: truncated", 2},
            {"(head -c 20 t.pcap; printf '\\1\\0\\0\\0'; tail -c +25 t.pcap) | $sim decode -",
             "-: expected a capture of the link type RAW, found EN10MB", 2},
            {"patched t.pcap 46 ' ' | $sim decode -", "-:1: expected a whole datagram", 2},
            {"patched t.pcap 62 a | $sim decode -", "-:1: expected UDP between ports 50505", 2},
            {"patched t.pcap 65 a | $sim decode -", "-:1: expected a UDP length that fits", 2},
            {"patched t.pcap 65 '\\13' | $sim decode -", "not a message, 3 bytes: 08 01 10\n", 0},
            {R"(printf %s '{"t":1,"log":"I","tag":"\u001b","text":"b\nc\u009b"}' | $sim decode -)",
             "log  I \\x1b: b\n                c\xC2\\x9b\n", 0},
            {"mkfifo f; timeout -k 9 0.2 $sim decode f; echo $?", "124\n", 0},
            {"echo modem 080 | $sim decode -", "-:1: expected " + hex + "\"modem 080\"", 2},
            {"echo '{\"t\":1' | $sim decode -", row + "Unexpected end of string", 2},
            {"echo '{\"from\":\"modem\",\"bytes\":\"a*b\"}' | $sim decode -", row + "(bytes)", 2},
            {"echo '{\"from\":\"modem\"}' | $sim decode -", "expected bytes or message", 2},
            {"echo '{\"t\":4294967296,\"heading\":\"\"}' | $sim decode -",
             "-:1: expected in t seconds", 2},
            {"echo '{\"step\":{\"signal\":\"SIGFOO\"}}' | $replay -", "-:1: signal: expected a sig",
             2},
            {"echo '{\"phone\":{\"missing\":[\"/data/../a\"]}}' | $replay -", "-:1: missing: exp",
             2},
            {"echo '{\"from\":\"modem\",\"bytes\":\"\"}' | $replay -", "bytes, found 0", 2},
            {"$replay --phone same /dev/null", "/dev/null: expected rows, found none", 2},
            {"$run --trace s $scenarios/tour.textproto", "--trace: s: expected a new file or a tr",
             2},
            {"$run --trace hex s", "--trace: hex: expected a new file or a trace", 2},
            {"ln t own; $sim decode --trace ./own t", "--trace: ./own: expected a file that is not",
             2},
            {"$replay --trace t - < t", "--trace: t: expected a file that is not read as well", 2},
            {"printf 'save n\\nsave n\\nsave s' | $sim shell --velmar $velmar --quiet",
             " to n\n3: save: s: exists: expected a new file", 2},
            {"$run --trace no/t s", "--trace: no/t: cannot be written: No such file", 2},
            {"$run --trace /dev/full s", "PASSED: 1 scenario, 8 steps\n--trace: /dev/full: cannot",
             2},
            {"$replay --trace u t && $replay u", "PASSED: 4 messages\n", 0},
            {"$replay --phone same t", "PASSED: 4 messages\n", 0},
            {"$replay --fast --phone property t", "FAILED: 1 of 4 messages", 1},
            {"$replay --fast --phone more t",
             "the trace does not have\n  expected: -\n  actual:   "
             "REQUEST token=0 (",
             1},
            {"$replay hex", "hex: says nothing of the phone: expected --phone", 2},
            {"$replay --phone offline hex", "hex: the modem never comes online: expected", 2},
            {"$replay t.pcap", "t.pcap:3: expected a whole message, found 65507 of 65568 bytes", 2},
    };
    for (const auto& [line, output, status] : cases) {
        const std::string written = Shell(line);
        EXPECT_THAT(written, HasSubstr(output)) << line;
        EXPECT_THAT(written, HasSubstr("\nstatus " + std::to_string(status))) << line;
    }
}

}  // namespace
