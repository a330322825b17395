#include "sim/tool/differences.h"

#include <algorithm>
#include <sstream>

#include "android-base/stringprintf.h"
#include "google/protobuf/util/message_differencer.h"

#include "sim/tool/message_text.h"
#include "sim/tool/names.h"
#include "sim/tool/patterns.h"
#include "sim/tool/simulated_radio.h"

namespace velmar_sim {

namespace {

using android::base::StringPrintf;
using google::protobuf::util::MessageDifferencer;
using velmar_message::VelmarMessage;

constexpr size_t kMaxDifferenceLine = 200;

}  // namespace

std::string ExpectedActual(const std::string& expected, const std::string& actual) {
    return "\n  expected: " + expected + "\n  actual:   " + actual;
}

std::string MessageDifference(const VelmarMessage& expected, const ReceivedMessage& actual,
                              bool any_token) {
    MessageDifferencer differencer;
    std::string report;
    differencer.ReportDifferencesToString(&report);
    if (any_token) {
        differencer.IgnoreField(
                VelmarMessage::descriptor()->FindFieldByNumber(VelmarMessage::kTokenFieldNumber));
    }
    if (actual.decoded && differencer.Compare(expected, actual.message)) return "";

    std::string text =
            "the message differs" + ExpectedActual(DescribeMessage(expected.SerializeAsString()),
                                                   DescribeMessage(actual.bytes));
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        text += "\n  " + line.substr(0, kMaxDifferenceLine);
    }
    return text;
}

std::string FileDifference(const FileState& expected, const PhoneFolder& folder) {
    const std::string& path = expected.path();
    const std::optional<mode_t> mode = folder.Mode(path);
    if (expected.missing()) return mode ? path + " exists, expected none" : "";
    if (!mode) return path + " does not exist";
    if (expected.has_mode() && mode != ModeFromText(expected.mode())) {
        return path + " has another mode" +
               ExpectedActual(expected.mode(), StringPrintf("%04o", *mode));
    }
    if (!expected.has_content() && !expected.has_matching()) return "";
    const std::string content = folder.ReadFile(path).value_or("");
    if (expected.has_content() && content != expected.content()) {
        const auto same = std::mismatch(content.begin(), content.end(), expected.content().begin(),
                                        expected.content().end());
        return path + " has other content, from byte " +
               std::to_string(same.first - content.begin()) + " on" +
               ExpectedActual(QuoteBytes(expected.content()), QuoteBytes(content));
    }
    if (expected.has_matching() && !MatchesPattern(content, expected.matching())) {
        return path + " has content that does not match" +
               ExpectedActual(QuoteBytes(expected.matching()), QuoteBytes(content));
    }
    return "";
}

std::string PropertyDifference(const PropertyState& expected, const PhoneFolder& folder) {
    const auto describe = [](const std::optional<std::string>& value) {
        return value ? QuoteBytes(*value) : std::string("unset");
    };
    const std::optional<std::string> actual = folder.GetProperty(expected.name());
    const auto wanted = expected.unset() ? std::nullopt : std::make_optional(expected.value());
    if (actual == wanted) return "";
    return "property " + expected.name() + " differs" +
           ExpectedActual(describe(wanted), describe(actual));
}

std::string RadioDifference(const RadioRequest& expected, const RadioRequest& actual) {
    if (expected.request() == actual.request() && expected.data() == actual.data()) return "";
    return "the request to the radio differs" +
           ExpectedActual(DescribeRadioRequest(expected), DescribeRadioRequest(actual));
}

std::string ThermalDifference(const ThermalWrites& expected,
                              const std::vector<std::string>& actual) {
    const std::vector<std::string> wanted(expected.write().begin(), expected.write().end());
    if (actual == wanted) return "";
    const auto describe = [](const std::vector<std::string>& all) {
        std::string text = all.empty() ? "-" : "";
        for (const std::string& one : all) text += (text.empty() ? "" : ", ") + QuoteBytes(one);
        return text;
    };
    return "the writes to the thermal node differ" +
           ExpectedActual(describe(wanted), describe(actual));
}

}  // namespace velmar_sim
