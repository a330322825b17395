// Input: the text of a GNSS blanking configuration.

#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "require.h"
#include "ril/gnss_coex_config.h"

namespace {

void CheckEntry(const std::string& line) {
    GnssCoexRecord record;
    record.fill(0xA5);
    const GnssCoexRecord before = record;
    const bool is_entry = MakeGnssCoexRecord(line, &record) == GnssCoexLine::kEntry;
    Require(is_entry || record == before, "a record that is not an entry:", line);
    if (!is_entry) return;
    const uint8_t kind = record[0];
    Require(kind <= 5 && kind != 1 && record[1] == 1, "another kind or second byte:", line);
    const bool is_single = (record[6] | record[7] | record[8] | record[9]) == 0;
    Require(kind >= 4 || is_single, "a second band in an entry of one:", line);
}

// A number that cannot be converted throws one of two exceptions; any other ends the process.
template <typename Convert>
void CheckConversion(const std::string& line, const Convert& convert) try {
    convert(line);
} catch (const std::invalid_argument&) {
} catch (const std::out_of_range&) {
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const GnssCoexText parts = SplitGnssCoexText(text);
    CheckConversion(parts.first_line, MakeGnssCoexHeader);
    for (const std::string& line : parts.entry_lines) CheckConversion(line, CheckEntry);
    return 0;
}
