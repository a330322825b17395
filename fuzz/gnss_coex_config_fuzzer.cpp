// Input: the text of a GNSS blanking configuration.

#include <errno.h>
#include <math.h>
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_failure.h"
#include "ril/gnss_coex_config.h"

namespace {

// What becomes of a text: bytes for the radio, why there are none, or what is thrown.
using Result = std::string;

constexpr char kNoNumber[] = "throws invalid_argument";
constexpr char kNoSuchNumber[] = "throws out_of_range";

struct ConversionError {
    const char* result;
};

std::vector<std::string> SplitAt(const std::string& text, char separator) {
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (c == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += c;
        }
    }
    return pieces;
}

int ReadInteger(const std::string& text) {
    size_t at = 0;
    while (at < text.size() && (text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r'))) ++at;
    const bool is_negative = at < text.size() && text[at] == '-';
    if (at < text.size() && (is_negative || text[at] == '+')) ++at;
    if (at == text.size() || text[at] < '0' || text[at] > '9') throw ConversionError{kNoNumber};
    int64_t number = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        number = std::min<int64_t>(number * 10 + (text[at] - '0'), int64_t{1} << 40);
    }
    if (is_negative) number = -number;
    if (number != static_cast<int>(number)) throw ConversionError{kNoSuchNumber};
    return static_cast<int>(number);
}

int ReadValue(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double number = strtod(text.c_str(), &end);
    if (end == text.c_str()) throw ConversionError{kNoNumber};
    if (errno == ERANGE) throw ConversionError{kNoSuchNumber};
    if (isnan(number)) return 0;
    // What the phone's processor makes of a number that an int does not hold.
    constexpr double kLowest = std::numeric_limits<int>::min();
    constexpr double kHighest = std::numeric_limits<int>::max();
    return static_cast<int>(fmin(fmax(trunc(number), kLowest), kHighest));
}

void Append16(int number, Result* bytes) {
    for (const int shift : {0, 8}) *bytes += static_cast<char>(number >> shift & 0xFF);
}

bool Begins(const std::string& name, const char* letters) {
    return !name.empty() && std::string(letters).find(name[0]) != std::string::npos;
}

int ReadBand(int kind, const std::string& name) {
    if (kind != 0) return ReadInteger(name);
    const std::string names[] = {"1800", "1900", "900", "450", "480", "850"};
    const auto* found = std::find(std::begin(names), std::end(names), name);
    return found != std::end(names) ? static_cast<int>(found - std::begin(names)) + 1 : 0;
}

Result ExpectedEntry(const std::string& line) {
    std::vector<std::string> fields = SplitAt(line, ',');
    if (fields.size() < 2) return "too short";
    if (fields.size() == 3) fields.pop_back();
    fields.resize(4);
    std::string band1 = fields[0];
    std::string band2 = fields[2];
    if (band1.empty() || fields[1].empty()) return "incomplete";
    if (band2.empty() != fields[3].empty()) return "incomplete";
    int kind = 0;
    if (!band2.empty()) {
        kind = Begins(band1, "Nn") || Begins(band2, "Nn") ? 5 : 4;
        band2.erase(0, 1);
    } else if (Begins(band1, "BbNn")) {
        kind = Begins(band1, "Bb") ? 2 : 3;
    }
    if (kind != 0) band1.erase(0, 1);
    Result bytes = {static_cast<char>(kind), 1};
    Append16(ReadBand(kind, band1), &bytes);
    Append16(ReadValue(fields[1]), &bytes);
    Append16(band2.empty() ? 0 : ReadBand(kind, band2), &bytes);
    Append16(band2.empty() ? 0 : ReadValue(fields[3]), &bytes);
    return bytes;
}

Result ExpectedHeader(const std::string& line) {
    Result bytes;
    Append16(ReadInteger(line), &bytes);
    return bytes;
}

Result MakeEntry(const std::string& line) {
    GnssCoexRecord untouched;
    untouched.fill(0xA5);
    GnssCoexRecord record = untouched;
    const GnssCoexLine kind = MakeGnssCoexRecord(line, &record);
    if (kind == GnssCoexLine::kEntry) return {record.begin(), record.end()};
    if (record != untouched) return "touched";
    return kind == GnssCoexLine::kTooShort ? "too short" : "incomplete";
}

Result MakeHeader(const std::string& line) {
    const GnssCoexHeader header = MakeGnssCoexHeader(line);
    return {header.begin(), header.end()};
}

void Check(Result (*make)(const std::string&), Result (*expect)(const std::string&),
           const std::string& line) {
    Result expected;
    try {
        expected = expect(line);
    } catch (const ConversionError& error) {
        expected = error.result;
    }
    Result made;
    try {
        made = make(line);
    } catch (const std::invalid_argument&) {
        made = kNoNumber;
    } catch (const std::out_of_range&) {
        made = kNoSuchNumber;
    }
    if (made == expected) return;
    FailFuzzing("line \"" + line + "\": expected " + expected + ", got " + made);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> lines = SplitAt(text, '\n');
    const GnssCoexText parts = SplitGnssCoexText(text);
    if (parts.has_lines != (lines.size() > 1)) FailFuzzing("has_lines is wrong");
    lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
    const std::string first_line = lines.empty() ? "" : lines[0];
    if (!lines.empty()) lines.erase(lines.begin());
    if (parts.first_line != first_line || parts.entry_lines != lines) {
        FailFuzzing("the text is not split at its line ends");
    }
    Check(MakeHeader, ExpectedHeader, first_line);
    for (const std::string& line : lines) Check(MakeEntry, ExpectedEntry, line);
    return 0;
}
