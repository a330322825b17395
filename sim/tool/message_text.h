#pragma once

#include <string>

#include "google/protobuf/message.h"

// Messages in the short form that people read. Any thread.
namespace velmar_sim {

// One line: type, payload, token, result, size and the payload's fields, long ones cut; or the size
// and the `whole` message, as the send step of a scenario takes it. Bytes that are no VelmarMessage
// are given in hexadecimal.
std::string DescribeMessage(const std::string& bytes, bool whole = false);

// `message` in one line of text form, without the outer braces, long fields cut.
std::string ShortText(const google::protobuf::Message& message);

// "1 step", "2 steps".
std::string CountOf(size_t count, const std::string& noun);

// `bytes` in quotes, with escapes, cut after 64 bytes with the length behind.
std::string QuoteBytes(const std::string& bytes);

// `text` as a terminal may have it: control characters but line feeds and tabs are escaped.
std::string Printable(const std::string& text);

// `bytes` in hexadecimal, cut after 64 bytes unless `whole`.
std::string HexBytes(const std::string& bytes, bool whole = false);

}  // namespace velmar_sim
