#pragma once

#include <string>
#include <vector>

#include "sim/tool/bad_input.h"
#include "sim/tool/scenario.pb.h"

namespace velmar_sim {

// A scenario that can be played: every step has an action, and every name and pattern in it is one.
// Paths of files to be pushed lead from the working folder.
struct ScenarioFile {
    std::string path;
    Scenario scenario;
    // For each step the line that it begins in.
    std::vector<int> step_lines;
};

// A scenario, or a part of one, that cannot be played. The text has a line "FILE:LINE: what was
// expected" for each error.
class BadScenario : public BadInput {
  public:
    using BadInput::BadInput;
};

// Reads a scenario in text form. `path` names it in messages. Throws BadScenario. As all of these,
// on the main thread.
ScenarioFile ParseScenario(const std::string& path, const std::string& text);

// The same from the file `path`.
ScenarioFile ReadScenario(const std::string& path);

// Reads a phone in text form, with the same checks.
Phone ParsePhone(const std::string& path, const std::string& text);

// Reads what stands inside of a step. `text` is the line with this number, and errors are named
// "LINE:COLUMN: what was expected". Paths of files lead from the working folder.
Step ParseStep(size_t line, const std::string& text);

// What is wrong with a part of a scenario that was no text, by the same checks; `name` names it.
// Empty when nothing is.
std::string ErrorsOf(const google::protobuf::Message& part, const std::string& name);

// What is wrong with the size in bytes of a message that the modem sends; empty when nothing is.
std::string SizeError(size_t size);

}  // namespace velmar_sim
