#include "sim/tool/message_text.h"

#include <algorithm>

#include "android-base/stringprintf.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/stubs/strutil.h"
#include "google/protobuf/text_format.h"

#include "proto/velmar_message.pb.h"

namespace velmar_sim {

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::TextFormat;
using velmar_message::VelmarMessage;

constexpr size_t kMaxShownBytes = 64;

// Prints fields as usual, but cuts the long ones.
class ShortValuePrinter : public TextFormat::FastFieldValuePrinter {
  public:
    void PrintString(const std::string& value,
                     TextFormat::BaseTextGenerator* generator) const override {
        generator->PrintString(QuoteBytes(value));
    }
    void PrintBytes(const std::string& value,
                    TextFormat::BaseTextGenerator* generator) const override {
        generator->PrintString(QuoteBytes(value));
    }
};

// The field of `message` that is set in its first oneof, or null.
const FieldDescriptor* ChosenField(const Message& message) {
    const auto* descriptor = message.GetDescriptor();
    if (descriptor->oneof_decl_count() == 0) return nullptr;
    return message.GetReflection()->GetOneofFieldDescriptor(message, descriptor->oneof_decl(0));
}

// "property_message.read_request { name: "x" }": the names on the way to the innermost message,
// and its fields.
std::string DescribePayload(const Message& envelope) {
    std::string path;
    const Message* inner = &envelope;
    for (const auto* field = ChosenField(envelope); field != nullptr; field = ChosenField(*inner)) {
        path += (path.empty() ? "" : ".") + field->name();
        inner = &inner->GetReflection()->GetMessage(*inner, field);
    }
    if (path.empty()) return "without payload";
    return path + " { " + ShortText(*inner) + "}";
}

std::string SizeText(const std::string& bytes) {
    return CountOf(bytes.size(), "byte");
}

}  // namespace

std::string CountOf(size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string QuoteBytes(const std::string& bytes) {
    std::string text =
            '"' + google::protobuf::strings::CHexEscape(bytes.substr(0, kMaxShownBytes)) + '"';
    if (bytes.size() > kMaxShownBytes) text += "... (" + SizeText(bytes) + ")";
    return text;
}

std::string Printable(const std::string& text) {
    std::string shown;
    unsigned char before = 0;
    for (const char one : text) {
        const auto byte = static_cast<unsigned char>(one);
        // Those beyond ASCII stand after 0xc2.
        const bool is_control = (byte < ' ' && one != '\n' && one != '\t') || one == '\x7f' ||
                                (before == 0xc2 && byte < 0xa0);
        shown += is_control ? android::base::StringPrintf("\\x%02x", byte) : std::string(1, one);
        before = byte;
    }
    return shown;
}

std::string HexBytes(const std::string& bytes, bool whole) {
    const size_t shown = whole ? bytes.size() : std::min(bytes.size(), kMaxShownBytes);
    std::string text;
    for (const char byte : bytes.substr(0, shown)) {
        text += android::base::StringPrintf(text.empty() ? "%02x" : " %02x",
                                            static_cast<unsigned char>(byte));
    }
    return bytes.size() > shown ? text + " ..." : text;
}

std::string ShortText(const Message& message) {
    TextFormat::Printer printer;
    printer.SetSingleLineMode(true);
    printer.SetDefaultFieldValuePrinter(new ShortValuePrinter());
    std::string text;
    printer.PrintToString(message, &text);
    return text;
}

std::string DescribeMessage(const std::string& bytes, bool whole) {
    VelmarMessage message;
    if (!message.ParseFromString(bytes)) {
        return "not a message, " + SizeText(bytes) + ": " + HexBytes(bytes, whole);
    }
    if (whole) return "(" + SizeText(bytes) + ") " + message.ShortDebugString();
    std::string text = message.has_type() ? velmar_message::VelmarMessageType_Name(message.type())
                                          : std::string("(no type)");
    if (message.has_token()) text += " token=" + std::to_string(message.token());
    if (message.has_result()) {
        text += " result=" + velmar_message::VelmarResult_Name(message.result());
    }
    return text + " (" + SizeText(bytes) + ") " + DescribePayload(message);
}

}  // namespace velmar_sim
