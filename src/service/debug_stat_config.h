#pragma once

#include <string>
#include <vector>

// One entry of the debug statistics configuration: what to ask of one module of the modem.
struct DebugStatEntry {
    std::string module;
    // Negative: no value is sent.
    int value = -1;
    // 0: no type is sent.
    int type = 0;
};

// Cuts a configuration up into its entries, which stay in `text`. Entries are separated by any run
// of '|', carriage return and line feed. Any thread.
std::vector<char*> SplitDebugStatConfig(char* text);

// Reads one entry, MODULE[:KEY=NUMBER[,KEY=NUMBER]...], cutting it up in place; the key 'v' gives
// the value, 't' the type. A run of ':' or ',' counts as one, a leading one is skipped. A parameter
// of another form and a third field are passed over. Returns false when there is no module. Any
// thread.
bool ParseDebugStatEntry(char* text, DebugStatEntry* entry);
