#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// Names and numbers as a scenario writes them. Each conversion gives nothing for a text that is no
// such name. Any thread.
namespace velmar_sim {

// "SIGUSR1" -> 10.
std::optional<int> SignalFromName(const std::string& name);
// 10 -> "SIGUSR1"; "signal 60" for one without a name.
std::string SignalName(int signal);
// "EIO" -> 5.
std::optional<int> ErrorFromName(const std::string& name);
// "0644" -> 0644; octal digits only, at most 07777.
std::optional<mode_t> ModeFromText(const std::string& text);
// "08 01" or "0801" -> the two bytes; an even number of digits, at least two.
std::optional<std::string> BytesFromHex(const std::string& text);
// "I" or "4" -> 'I'.
std::optional<char> PriorityFromText(const std::string& text);

}  // namespace velmar_sim
