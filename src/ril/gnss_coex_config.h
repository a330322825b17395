#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// Kind of an entry, as the radio numbers them; 1 is not used.
enum SitGnssBlankingRAT : uint8_t {
    kGnssBlankingGsm = 0,
    kGnssBlankingLte = 2,
    kGnssBlankingNr = 3,
    kGnssBlankingLtePair = 4,
    // A pair with at least one band written with 'N' or 'n'.
    kGnssBlankingNrPair = 5,
};

// Payload of request 227: the number of the first line, 16 bits, little-endian.
using GnssCoexHeader = std::array<uint8_t, 2>;

// Payload of request 226, little-endian: kind (1 byte), 1 (1 byte), band 1, value 1, band 2,
// value 2 (2 bytes each); band 2 and value 2 are 0 in an entry of one band.
using GnssCoexRecord = std::array<uint8_t, 10>;

// What a configuration's text consists of.
struct GnssCoexText {
    // False for a text without a line end, which is used nevertheless.
    bool has_lines = false;
    // Empty when there is none.
    std::string first_line;
    std::vector<std::string> entry_lines;
};

// What an entry's line is.
enum class GnssCoexLine {
    kEntry,
    // It has no second field.
    kTooShort,
    // A band or a value is missing.
    kIncomplete,
};

// The results of these functions depend on their text alone. Numbers are converted by
// std::stoi and std::stod: white space before a number and anything after it is skipped; a text
// without a number throws std::invalid_argument, a number that the type cannot hold
// std::out_of_range. Only the low 16 bits of a number are used. Any thread.

// Cuts a configuration into its lines, without the empty ones.
GnssCoexText SplitGnssCoexText(const std::string& text);

// Converts the first line.
GnssCoexHeader MakeGnssCoexHeader(const std::string& first_line);

// Converts the line "band 1,value 1" or "band 1,value 1,band 2,value 2" into `record`. Unless this
// returns kEntry, `record` is as it was.
GnssCoexLine MakeGnssCoexRecord(const std::string& line, GnssCoexRecord* record);
