#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "shell_output.h"
#include "sim/modem/temporary_folder.h"
#include "sim/tool/scenario_reader.h"
#include "sim/tool/step_help.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

TEST(Shell, ASessionIsSavedAndPlayedAgain) {
    const velmar_sim::TemporaryFolder folder;
    const std::string lines = folder.path() + "/lines";
    const std::string saved = folder.path() + "/saved";
    std::ofstream(lines) << R"(send_hex: "08 01 18 07 3a 08 0a 06 0a 04 72 6f 2e 61"
send { typo: 3 }
log { matching: "(" }
expect { token: 7 }
push { generated { size: 9 } file_dir: FILE_DIRECTORY_MDS file_name: "f" }
client { argument: "--modemstat" }
expect { token: 77 type: REQUEST message_id: 5 modem_stat_message { report_request {} } } any_token: true
fault { call: "read" path: "/dev/oem_ipc1" error: "EIO" times: 99 }
send_bytes: "unread"
signal: "SIGKILL"
pause_ms: 2000
clear_faults {}
restart {}
push { generated { size: 9 } file_dir: FILE_DIRECTORY_MDS file_name: "f" }
client { argument: "--extendedlog" }
save )" << saved;
    const std::string options = " --quiet --velmar $velmar ";
    EXPECT_EQ(ShellOutput("{ $sim shell --modem-state 4 --property ro.a=b" + options + "2>&1 <" +
                          lines + "; echo $?; } | grep '^[0-9]'"),
              "2:12: Message type \"velmar_message.VelmarMessage\" has no field named \"typo\".\n"
              "3:7: matching: expected a regular expression, found \"(\": missing ): \"(\"\n"
              "4: the message differs\n"
              "11: velmar ended unexpectedly: SIGKILL; restart {} starts it again\n"
              "2\n");
    const velmar_sim::ScenarioFile file = velmar_sim::ReadScenario(saved);
    std::string steps;
    for (const velmar_sim::Step& step : file.scenario.step()) {
        if (step.has_pause_ms()) continue;
        steps += step.GetDescriptor()->FindFieldByNumber(step.action_case())->name() + " ";
    }
    EXPECT_EQ(
            steps,
            "send_hex expect push client expect fault send_bytes signal exit clear_faults restart "
            "push client expect ");
    EXPECT_THAT(ShellOutput("$sim run" + options + saved), HasSubstr("PASSED"));
}

TEST(Shell, NamesInAStepAreCompletedAndDescribed) {
    using velmar_sim::CompleteStep;
    EXPECT_THAT(CompleteStep("set_"), ElementsAre("set_property { "));
    EXPECT_THAT(CompleteStep("any_token: true expect { type: REQ"), ElementsAre("REQUEST"));
    EXPECT_THAT(CompleteStep("send { property_message { read_request { name: 'x' } wri"),
                ElementsAre("write_request { ", "write_response { "));
    EXPECT_THAT(CompleteStep("write_file { path: 'p"), IsEmpty());
    EXPECT_THAT(velmar_sim::DescribeStep("send.modem_stat_message"),
                HasSubstr("// Numbers 2 to 4 and 6 are the modem's"));
}

}  // namespace
