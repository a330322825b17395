#pragma once

#include <string>
#include <vector>

// What the schema of a scenario knows about steps. Any thread.
namespace velmar_sim {

// The schema's comments about a step, or about a field in it such as "send.property_message", and
// the fields that its message has. Throws BadInput when there is no such field.
std::string DescribeStep(const std::string& path);

// Where the name, or the beginning of one, at the end of `text` begins.
size_t NameAtEnd(const std::string& text);

// What the name at the end of `text`, the beginning of a step, can become: names of fields, with
// what stands between them and their value, or of values.
std::vector<std::string> CompleteStep(const std::string& text);

}  // namespace velmar_sim
