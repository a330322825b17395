#pragma once

#include <google/protobuf/text_format.h>
#include <stdlib.h>

#include <stdexcept>
#include <string>

// A number of the environment.
inline double Variable(const char* name, double otherwise) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change.
    const char* text = getenv(name);
    return text != nullptr ? strtod(text, nullptr) : otherwise;
}

// Throws std::runtime_error for a text that is no such message.
template <typename Message>
Message FromText(const std::string& text) {
    Message message;
    if (google::protobuf::TextFormat::ParseFromString(text, &message)) return message;
    throw std::runtime_error("no " + message.GetTypeName() + ": " + text);
}
