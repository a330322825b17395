#include "sim/tool/transcript.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <utility>

#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

constexpr char kPlain[] = "";
constexpr char kBold[] = "\033[1m";
constexpr char kFaint[] = "\033[2m";
constexpr char kGreen[] = "\033[32m";
constexpr char kCyan[] = "\033[36m";
constexpr char kReset[] = "\033[0m";
constexpr char kWipeLine[] = "\r\033[K";

// A summary shows the last message each way, and so many of the other lines.
constexpr std::ptrdiff_t kLastLines = 8;
constexpr std::ptrdiff_t kLastMessages = 1;
constexpr std::chrono::milliseconds kRedrawInterval{50};
constexpr uint64_t kBarWidth = 30;

template <typename... Values>
std::string Format(const char* format, Values... values) {
    char text[128];
    static_cast<void>(snprintf(text, sizeof(text), format, values...));
    return text;
}

}  // namespace

std::string ProgressText(uint64_t done, uint64_t total) {
    constexpr double kMebibyte = 1 << 20;
    const uint64_t filled = done * kBarWidth / total;
    return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') +
           Format("] %3d %%  %.1f of %.1f MiB", static_cast<int>(done * 100 / total),
                  static_cast<double>(done) / kMebibyte, static_cast<double>(total) / kMebibyte);
}

std::string RateText(uint64_t bytes, std::chrono::duration<double> taken) {
    return Format("%.3f s, %.1f MB/s", taken.count(),
                  static_cast<double>(bytes) / 1e6 / taken.count());
}

Transcript::Transcript(bool is_quiet) : quiet(is_quiet), on_terminal(isatty(STDOUT_FILENO) == 1) {}

void Transcript::Say(const std::string& text) {
    if (quiet) return;
    const std::lock_guard<std::mutex> guard(lock);
    std::cout << (on_terminal ? kBold : kPlain) << "--- " << text << (on_terminal ? kReset : kPlain)
              << std::endl;
}

void Transcript::Log(const LogLine& line) {
    Print({Clock::now(), kFaint, "log  " + DescribeLogLine(line)});
}

void Transcript::OnRadioCall(Clock::time_point time, const std::string& text) {
    Print({time, kGreen, "velmar -> radio  " + text});
}

void Transcript::OnSent(const std::string& bytes) {
    Print({Clock::now(), kCyan, "modem -> velmar  " + DescribeMessage(bytes)});
}

void Transcript::OnReceived(const ReceivedMessage& message) {
    Print({message.time, kGreen, "velmar -> modem  " + DescribeMessage(message.bytes)});
}

void Transcript::OnEvent(const std::string& text) {
    Print({Clock::now(), kPlain, text});
}

void Transcript::BeginSummary() {
    const std::lock_guard<std::mutex> guard(lock);
    summing_up = true;
    shown_tenths = 0;
}

void Transcript::EndSummary() {
    const std::lock_guard<std::mutex> guard(lock);
    summing_up = false;
    if (quiet) return;
    if (on_terminal) std::cout << kWipeLine;
    if (left_out > 0) std::cout << "           ... " << left_out << " lines like these\n";
    for (const Line& line : last_lines) Write(line);
    last_lines.clear();
    left_out = 0;
}

void Transcript::ShowProgress(uint64_t done, uint64_t total) {
    if (quiet) return;
    const std::lock_guard<std::mutex> guard(lock);
    const Clock::time_point now = Clock::now();
    if (on_terminal) {
        if (now - bar_drawn < kRedrawInterval && done < total) return;
        bar_drawn = now;
        std::cout << kWipeLine << ProgressText(done, total) << std::flush;
        return;
    }
    const uint64_t tenths = done * 10 / total;
    // The end has a line of its own.
    if (tenths == shown_tenths || done == total) return;
    shown_tenths = tenths;
    Write({now, kPlain, ProgressText(done, total)});
}

void Transcript::Print(Line line) {
    if (quiet) return;
    const std::lock_guard<std::mutex> guard(lock);
    if (summing_up) {
        Keep(std::move(line));
    } else {
        Write(line);
    }
}

// Called with the lock held.
void Transcript::Keep(Line line) {
    const auto same_kind = [&line](const Line& other) { return other.colour == line.colour; };
    const auto limit = line.colour == kCyan || line.colour == kGreen ? kLastMessages : kLastLines;
    if (std::count_if(last_lines.begin(), last_lines.end(), same_kind) >= limit) {
        last_lines.erase(std::find_if(last_lines.begin(), last_lines.end(), same_kind));
        ++left_out;
    }
    last_lines.push_back(std::move(line));
}

// Called with the lock held.
void Transcript::Write(const Line& line) const {
    char stamp[32];
    static_cast<void>(snprintf(stamp, sizeof(stamp), "%9.3f  ",
                               std::chrono::duration<double>(line.time - boot).count()));
    std::cout << stamp << (on_terminal ? line.colour : kPlain) << line.text
              << (on_terminal ? kReset : kPlain) << std::endl;
}

}  // namespace velmar_sim
