#pragma once

#include <string>

// The patterns of steps: RE2's regular expressions for a whole text, in which each byte is a
// character. Matching takes time in proportion to the text, and bounded memory. Main thread.
namespace velmar_sim {

// What is wrong with a pattern and what to write instead; empty when nothing is.
std::string PatternError(const std::string& pattern);

// Whether all of `text` matches; it never does if the pattern has an error. Each pattern is
// compiled once.
bool MatchesPattern(const std::string& text, const std::string& pattern);

}  // namespace velmar_sim
