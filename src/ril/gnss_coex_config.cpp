#include "ril/gnss_coex_config.h"

#include <android-base/strings.h>

#include <cmath>
#include <limits>
#include <utility>

using android::base::Split;

namespace {

constexpr size_t kPairFields = 4;

// Where the fields of a record lie.
constexpr size_t kKindOffset = 0;
constexpr size_t kAlwaysOneOffset = 1;
constexpr size_t kBand1Offset = 2;
constexpr size_t kValue1Offset = 4;
constexpr size_t kBand2Offset = 6;
constexpr size_t kValue2Offset = 8;

struct GsmBand {
    const char* name;
    int code;
};

constexpr GsmBand kGsmBands[] = {{"850", 6}, {"480", 5},  {"450", 4},
                                 {"900", 3}, {"1900", 2}, {"1800", 1}};

bool StartsWith(const std::string& name, char upper, char lower) {
    return !name.empty() && (name.front() == upper || name.front() == lower);
}

bool IsLte(const std::string& band) {
    return StartsWith(band, 'B', 'b');
}

bool IsNr(const std::string& band) {
    return StartsWith(band, 'N', 'n');
}

// Returns the kind of an entry and strips the letter prefixes from its band names.
SitGnssBlankingRAT TakeKind(std::string* band1, std::string* band2) {
    if (!band2->empty()) {
        bool has_nr = IsNr(*band2) || IsNr(*band1);
        // In a pair the first character is dropped unchecked: "3" becomes empty.
        band1->erase(0, 1);
        band2->erase(0, 1);
        return has_nr ? kGnssBlankingNrPair : kGnssBlankingLtePair;
    }
    if (!IsLte(*band1) && !IsNr(*band1)) return kGnssBlankingGsm;
    SitGnssBlankingRAT kind = IsLte(*band1) ? kGnssBlankingLte : kGnssBlankingNr;
    band1->erase(0, 1);
    return kind;
}

int ConvertBand(SitGnssBlankingRAT rat, const std::string& band) {
    if (rat != kGnssBlankingGsm) return std::stoi(band);
    for (const GsmBand& known : kGsmBands) {
        if (band == known.name) return known.code;
    }
    return 0;
}

// C++ leaves the conversion of a double outside int's range undefined, so this saturates, as
// aarch64 does.
int ConvertValue(const std::string& text) {
    double value = std::stod(text);
    if (std::isnan(value)) return 0;
    if (value >= std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
    if (value <= std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
    return static_cast<int>(value);
}

// Writes the low 16 bits of `value`, little-endian whatever the machine is.
void PutLow16(uint8_t* bytes, int value) {
    auto bits = static_cast<unsigned int>(value);
    bytes[0] = static_cast<uint8_t>(bits);
    bytes[1] = static_cast<uint8_t>(bits >> 8);
}

}  // namespace

GnssCoexText SplitGnssCoexText(const std::string& text) {
    GnssCoexText parts;
    std::vector<std::string> lines = Split(text, "\n");
    parts.has_lines = lines.size() > 1;
    for (std::string& line : lines) {
        if (line.empty()) continue;
        if (parts.first_line.empty()) {
            parts.first_line = std::move(line);
        } else {
            parts.entry_lines.push_back(std::move(line));
        }
    }
    return parts;
}

GnssCoexHeader MakeGnssCoexHeader(const std::string& first_line) {
    GnssCoexHeader header;
    PutLow16(header.data(), std::stoi(first_line));
    return header;
}

GnssCoexLine MakeGnssCoexRecord(const std::string& line, GnssCoexRecord* record) {
    std::vector<std::string> fields = Split(line, ",");
    if (fields.size() < 2) return GnssCoexLine::kTooShort;
    bool is_pair = fields.size() >= kPairFields;
    std::string band1 = fields[0];
    std::string value1 = fields[1];
    std::string band2 = is_pair ? fields[2] : "";
    std::string value2 = is_pair ? fields[3] : "";
    if (band1.empty() || value1.empty() || band2.empty() != value2.empty()) {
        return GnssCoexLine::kIncomplete;
    }
    GnssCoexRecord filled = {};
    SitGnssBlankingRAT kind = TakeKind(&band1, &band2);
    filled[kKindOffset] = kind;
    filled[kAlwaysOneOffset] = 1;
    PutLow16(&filled[kBand1Offset], ConvertBand(kind, band1));
    PutLow16(&filled[kValue1Offset], ConvertValue(value1));
    // A second band of a single character affects the kind only.
    if (!band2.empty()) {
        PutLow16(&filled[kBand2Offset], ConvertBand(kind, band2));
        PutLow16(&filled[kValue2Offset], ConvertValue(value2));
    }
    *record = filled;
    return GnssCoexLine::kEntry;
}
