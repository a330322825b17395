#pragma once

#include <cstdint>

// What the command line asks for, in the order in which it is done. A flag is set when it is 1.
struct ModeFlags {
    uint8_t modem_stat;
    uint8_t extended_log;
    uint8_t server;
};

// Prints how `program` is used to standard output.
void PrintUsage(const char* program);

// Reads the options. One that is unknown, and -h, prints the usage and is otherwise passed over.
// Main thread only, once.
ModeFlags ParseCommandLine(int argc, char** argv);
