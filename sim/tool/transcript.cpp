#include "sim/tool/transcript.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <utility>

#include "android-base/stringprintf.h"

#include "sim/tool/log_stream.h"
#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

using android::base::StringPrintf;

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
constexpr int64_t kBarWidth = 30;

const char* ColourOf(Event::Kind kind) {
    switch (kind) {
        case Event::Kind::kHeading:
            return kBold;
        case Event::Kind::kSent:
            return kCyan;
        case Event::Kind::kReceived:
        case Event::Kind::kRadio:
            return kGreen;
        case Event::Kind::kLog:
            return kFaint;
        default:
            return kPlain;
    }
}

std::string Describe(const Event& event) {
    switch (event.kind) {
        case Event::Kind::kHeading:
            return "--- " + event.text;
        case Event::Kind::kSent:
            return "modem -> velmar  " + DescribeMessage(event.bytes);
        case Event::Kind::kReceived:
            return "velmar -> modem  " + DescribeMessage(event.bytes);
        case Event::Kind::kRadio:
            return "velmar -> radio  " + event.text;
        case Event::Kind::kLog:
            return "log  " + DescribeLogLine({event.priority, event.tag, event.text});
        case Event::Kind::kState:
            return "modem state " + std::to_string(event.number) + event.text;
        case Event::Kind::kOpened:
            return "velmar opened " + event.text;
        case Event::Kind::kClosed:
            return "velmar closed " + event.text;
        default:
            return event.text;
    }
}

}  // namespace

std::string ProgressText(int64_t done, int64_t total) {
    constexpr double kMebibyte = 1 << 20;
    const int64_t filled = done * kBarWidth / total;
    return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') +
           StringPrintf("] %3d %%  %.1f of %.1f MiB", static_cast<int>(done * 100 / total),
                        static_cast<double>(done) / kMebibyte,
                        static_cast<double>(total) / kMebibyte);
}

Transcript::Transcript() : on_terminal(isatty(STDOUT_FILENO) == 1) {}

void Transcript::Write(const Event& event) {
    switch (event.kind) {
        case Event::Kind::kRepetitionBegin:
            summing_up = true;
            shown_tenths = 0;
            return;
        case Event::Kind::kRepetitionEnd:
            return EndSummary();
        case Event::Kind::kProgress:
            return ShowProgress(event);
        default:
            break;
    }
    Line line = LineOf(event, Describe(event));
    if (summing_up) return Summarize(std::move(line));
    Print(line);
}

void Transcript::Summarize(Line line) {
    const auto same_kind = [&line](const Line& other) { return other.colour == line.colour; };
    const auto limit = line.colour == kCyan || line.colour == kGreen ? kLastMessages : kLastLines;
    if (std::count_if(last_lines.begin(), last_lines.end(), same_kind) >= limit) {
        last_lines.erase(std::find_if(last_lines.begin(), last_lines.end(), same_kind));
        ++left_out;
    }
    last_lines.push_back(std::move(line));
}

void Transcript::EndSummary() {
    summing_up = false;
    if (on_terminal) std::cout << kWipeLine;
    if (left_out > 0) std::cout << "           ... " << left_out << " lines like these\n";
    for (const Line& line : last_lines) Print(line);
    last_lines.clear();
    left_out = 0;
}

// A bar where a terminal shows it, otherwise a line for each tenth.
void Transcript::ShowProgress(const Event& event) {
    const std::string text = ProgressText(event.number, event.total);
    const bool is_end = event.number == event.total;
    if (on_terminal) {
        if (event.time - bar_drawn < kRedrawInterval && !is_end) return;
        bar_drawn = event.time;
        std::cout << kWipeLine << text << std::flush;
        return;
    }
    const int64_t tenths = event.number * 10 / event.total;
    // The end has a line of its own.
    if (tenths == shown_tenths || is_end) return;
    shown_tenths = tenths;
    Print(LineOf(event, text));
}

// A heading stands without a time.
Transcript::Line Transcript::LineOf(const Event& event, const std::string& text) const {
    const double seconds = std::chrono::duration<double>(event.time - boot).count();
    const bool is_heading = event.kind == Event::Kind::kHeading;
    return {ColourOf(event.kind), (is_heading ? "" : StringPrintf("%9.3f  ", seconds)) + text};
}

void Transcript::Print(const Line& line) const {
    if (on_terminal) {
        std::cout << line.colour << line.text << kReset << std::endl;
    } else {
        std::cout << line.text << std::endl;
    }
}

}  // namespace velmar_sim
