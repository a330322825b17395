#include "sim/tool/transcript.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

constexpr char kPlain[] = "";
constexpr char kBold[] = "\033[1m";
constexpr char kFaint[] = "\033[2m";
constexpr char kGreen[] = "\033[32m";
constexpr char kCyan[] = "\033[36m";
constexpr char kReset[] = "\033[0m";

}  // namespace

Transcript::Transcript(bool is_quiet) : quiet(is_quiet), coloured(isatty(STDOUT_FILENO) == 1) {}

void Transcript::Say(const std::string& text) {
    if (quiet) return;
    const std::lock_guard<std::mutex> guard(lock);
    std::cout << (coloured ? kBold : kPlain) << "--- " << text << (coloured ? kReset : kPlain)
              << std::endl;
}

void Transcript::Log(const LogLine& line) {
    Print(Clock::now(), kFaint, "log  " + DescribeLogLine(line));
}

void Transcript::OnSent(const std::string& bytes) {
    Print(Clock::now(), kCyan, "modem -> velmar  " + DescribeMessage(bytes));
}

void Transcript::OnReceived(const ReceivedMessage& message) {
    Print(message.time, kGreen, "velmar -> modem  " + DescribeMessage(message.bytes));
}

void Transcript::OnEvent(const std::string& text) {
    Print(Clock::now(), kPlain, text);
}

void Transcript::Print(Clock::time_point time, const char* colour, const std::string& text) {
    if (quiet) return;
    const std::lock_guard<std::mutex> guard(lock);
    char stamp[32];
    static_cast<void>(snprintf(stamp, sizeof(stamp), "%9.3f  ",
                               std::chrono::duration<double>(time - boot).count()));
    std::cout << stamp << (coloured ? colour : kPlain) << text << (coloured ? kReset : kPlain)
              << std::endl;
}

}  // namespace velmar_sim
