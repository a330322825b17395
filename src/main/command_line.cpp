#include "main/command_line.h"

#include <getopt.h>
#include <stdio.h>

namespace {

// There is deliberately no long option "help"; like any unknown one, --help prints the usage.
constexpr option kLongOptions[] = {
        {"modemstat", no_argument, nullptr, 'm'},
        {"extendedlog", no_argument, nullptr, 'e'},
        {"server", no_argument, nullptr, 's'},
        {nullptr, 0, nullptr, 0},
};
constexpr char kShortOptions[] = "hmes";
constexpr int kNoMoreOptions = -1;

}  // namespace

void PrintUsage(const char* program) {
    printf("\nUsage for %s:\n", program);
    puts("\n-m, --modemstat:   Send modem stat request to modem");
    puts("\n-e, --extendedlog: Send extended log request to modem");
    puts("\n-s, --server:      Start message handler server");
    puts("\n-h, --help:        Usage help");
}

ModeFlags ParseCommandLine(int argc, char** argv) {
    ModeFlags flags;
    while (true) {
        int option = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr);
        switch (option) {
            case 'm':
                flags.modem_stat = true;
                break;
            case 'e':
                flags.extended_log = true;
                break;
            case 's':
                flags.server = true;
                break;
            case kNoMoreOptions:
                return flags;
            default:
                PrintUsage(argv[0]);
        }
    }
}
