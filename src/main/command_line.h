#pragma once

// What the command line asks for, in the order in which it is done.
struct ModeFlags {
    bool modem_stat = false;
    bool extended_log = false;
    bool server = false;
};

// Prints how `program` is used to standard output.
void PrintUsage(const char* program);

// Reads the options. An unknown one, and -h, prints the usage, and parsing goes on.
// Main thread only, once.
ModeFlags ParseCommandLine(int argc, char** argv);
