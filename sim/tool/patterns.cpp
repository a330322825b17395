#include "sim/tool/patterns.h"

#include <map>

#include "re2/re2.h"

#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

const RE2& Compiled(const std::string& pattern) {
    static std::map<std::string, RE2> compiled;
    // A text need not be UTF-8, and what is wrong is told by whoever asks.
    RE2::Options options(RE2::Latin1);
    options.set_log_errors(false);
    return compiled.try_emplace(pattern, pattern, options).first->second;
}

// A bracket that ends at once, behind what is none. In ECMAScript that is a class of its own,
// elsewhere the class goes on behind it: such a pattern must not get another meaning without a
// word.
constexpr char kEmptyClass[] =
        R"(^(?s:[^\\\[]|\\.|\[(?:[^\\\]^]|\\.|\^(?:[^\\\]]|\\.))(?:[^\\\]]|\\.)*\])*\[\^?\])";

}  // namespace

std::string PatternError(const std::string& pattern) {
    const std::string begin = "expected a regular expression, found " + QuoteBytes(pattern) + ": ";
    if (RE2::PartialMatch(pattern, Compiled(kEmptyClass))) {
        return begin + R"(write (?s:.) for any character instead of [^], \] for a ] in brackets)";
    }
    const RE2& compiled = Compiled(pattern);
    if (compiled.ok()) return "";
    const std::string& found = compiled.error_arg();
    std::string error = begin + compiled.error().substr(0, compiled.error().size() - found.size());
    if (!found.empty()) error += QuoteBytes(found);
    if (compiled.error_code() == RE2::ErrorBadPerlOp) {
        error += "; there is no look-ahead: write out what may come, or no_log for what must not";
    } else if (compiled.error_code() == RE2::ErrorBadEscape) {
        error += "; there are no back references: write out what comes again; \\x41 is a byte";
    }
    return error;
}

bool MatchesPattern(const std::string& text, const std::string& pattern) {
    return RE2::FullMatch(text, Compiled(pattern));
}

}  // namespace velmar_sim
