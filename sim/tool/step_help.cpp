#include "sim/tool/step_help.h"

#include <algorithm>
#include <regex>
#include <string_view>

#include "android-base/strings.h"
#include "google/protobuf/descriptor.pb.h"
#include "google/protobuf/io/tokenizer.h"
#include "google/protobuf/io/zero_copy_stream_impl_lite.h"

#include "sim/tool/bad_input.h"
#include "sim/tool/scenario.pb.h"

namespace velmar_sim {

// The schema as protoc read it: unlike the one in the generated classes it has the comments.
extern const std::string_view kScenarioSchema;

namespace {

using google::protobuf::DebugStringOptions;
using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptorSet;
using google::protobuf::io::Tokenizer;

struct ErrorFlag : google::protobuf::io::ErrorCollector {
    void AddError(int, int, const std::string&) override { is_set = true; }
    bool is_set = false;
};

const Descriptor* CommentedStep() {
    static const auto* pool = [] {
        FileDescriptorSet files;
        files.ParseFromArray(kScenarioSchema.data(), static_cast<int>(kScenarioSchema.size()));
        auto* made = new DescriptorPool();
        for (const auto& file : files.file()) made->BuildFile(file);
        return made;
    }();
    return pool->FindMessageTypeByName(Step::descriptor()->full_name());
}

std::vector<std::string> ValueNames(const FieldDescriptor& field) {
    std::vector<std::string> names;
    if (field.type() == FieldDescriptor::TYPE_BOOL) names = {"true", "false"};
    for (int i = 0; field.enum_type() != nullptr && i < field.enum_type()->value_count(); ++i) {
        names.push_back(field.enum_type()->value(i)->name());
    }
    return names;
}

}  // namespace

std::string DescribeStep(const std::string& path) {
    const FieldDescriptor* field = nullptr;
    const Descriptor* type = CommentedStep();
    for (const std::string& name : android::base::Split(path, ".")) {
        field = type == nullptr ? nullptr : type->FindFieldByName(name);
        if (field == nullptr) throw BadInput("help: expected a step, found " + path);
        type = field->message_type();
    }
    DebugStringOptions options;
    options.include_comments = true;
    std::string text = field->DebugStringWithOptions(options);
    if (type != nullptr) text += type->DebugStringWithOptions(options);
    if (field->enum_type() != nullptr) text += field->enum_type()->DebugStringWithOptions(options);
    // protoc notes the names that fields have in JSON.
    static const std::regex json_name(R"re( \[json_name = "\w*"\]|, json_name = "\w*")re");
    return std::regex_replace(text, json_name, "");
}

size_t NameAtEnd(const std::string& text) {
    constexpr char kNameCharacters[] =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    // Nothing found is one less than 0.
    return text.find_last_not_of(kNameCharacters) + 1;
}

std::vector<std::string> CompleteStep(const std::string& text) {
    const size_t end = NameAtEnd(text);
    google::protobuf::io::ArrayInputStream input(text.data(), static_cast<int>(end));
    ErrorFlag error;
    Tokenizer tokens(&input, &error);
    // The messages that the cursor is in, and the field whose value comes next. A name that is none
    // leads to null.
    std::vector<const Descriptor*> nesting = {Step::descriptor()};
    const FieldDescriptor* field = nullptr;
    bool is_value = false;
    while (tokens.Next()) {
        const std::string& token = tokens.current().text;
        if (token == ":") {
            is_value = true;
            continue;
        }
        const bool is_name = tokens.current().type == Tokenizer::TYPE_IDENTIFIER && !is_value;
        if (token == "{") nesting.push_back(field == nullptr ? nullptr : field->message_type());
        if (token == "}" && nesting.size() > 1) nesting.pop_back();
        const Descriptor* inner = nesting.back();
        field = is_name && inner != nullptr ? inner->FindFieldByName(token) : nullptr;
        is_value = false;
    }
    std::vector<std::string> names;
    // An open string is an error too.
    if (error.is_set) return names;
    if (is_value) {
        if (field != nullptr) names = ValueNames(*field);
    } else if (const Descriptor* inner = nesting.back(); inner != nullptr) {
        for (int i = 0; i < inner->field_count(); ++i) {
            const bool has_fields = inner->field(i)->message_type() != nullptr;
            names.push_back(inner->field(i)->name() + (has_fields ? " { " : ": "));
        }
    }
    const auto is_other = [word = text.substr(end)](const std::string& name) {
        return !android::base::StartsWith(name, word);
    };
    names.erase(std::remove_if(names.begin(), names.end(), is_other), names.end());
    return names;
}

}  // namespace velmar_sim
