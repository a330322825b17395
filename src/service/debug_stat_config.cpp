#include "service/debug_stat_config.h"

#include <stdio.h>
#include <string.h>

namespace {

constexpr char kEntrySeparators[] = "|\r\n";
constexpr char kFieldSeparators[] = ":";
constexpr char kParameterSeparators[] = ",";
constexpr char kParameterFormat[] = "%c=%d";
constexpr int kParameterItems = 2;
constexpr char kValueKey = 'v';
constexpr char kTypeKey = 't';

void ParseParameter(const char* text, DebugStatEntry* entry) {
    char key = 0;
    int number = 0;
    // NOLINTNEXTLINE(cert-err34-c): what follows the number, and its range, are not looked at.
    if (sscanf(text, kParameterFormat, &key, &number) != kParameterItems) return;
    if (key == kValueKey) entry->value = number;
    if (key == kTypeKey) entry->type = number;
}

}  // namespace

std::vector<char*> SplitDebugStatConfig(char* text) {
    std::vector<char*> entries;
    char* rest = nullptr;
    for (char* entry = strtok_r(text, kEntrySeparators, &rest); entry != nullptr;
         entry = strtok_r(nullptr, kEntrySeparators, &rest)) {
        entries.push_back(entry);
    }
    return entries;
}

bool ParseDebugStatEntry(char* text, DebugStatEntry* entry) {
    char* fields = nullptr;
    const char* module = strtok_r(text, kFieldSeparators, &fields);
    if (module == nullptr) return false;
    entry->module = module;
    char* list = strtok_r(nullptr, kFieldSeparators, &fields);
    if (list == nullptr) return true;
    char* parameters = nullptr;
    for (char* parameter = strtok_r(list, kParameterSeparators, &parameters); parameter != nullptr;
         parameter = strtok_r(nullptr, kParameterSeparators, &parameters)) {
        ParseParameter(parameter, entry);
    }
    return true;
}
