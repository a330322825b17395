#include "sim/tool/transcript.h"

#include <string.h>

#include <iostream>

#include "android-base/stringprintf.h"

#include "sim/tool/log_stream.h"
#include "sim/tool/message_text.h"
#include "sim/tool/simulated_radio.h"

namespace velmar_sim {

namespace {

using android::base::StringPrintf;

constexpr char kPlain[] = "";
constexpr char kBold[] = "\033[1m";
constexpr char kFaint[] = "\033[2m";
constexpr char kGreen[] = "\033[32m";
constexpr char kCyan[] = "\033[36m";
constexpr char kReset[] = "\033[0m";

RadioCall CallFrom(const Event& event) {
    RadioCall call;
    call.ParseFromString(event.text);
    return call;
}

std::string DescribeFault(const Event& event) {
    const auto error = static_cast<int>(event.number);
    const std::string outcome = error == 0 ? "length " + std::to_string(event.total)
                                           : std::string(strerrorname_np(error));
    return "fault  " + event.tag + " " + event.text + ": " + outcome;
}

}  // namespace

void Transcript::Write(const Event& event) {
    const bool shows_repetition =
            event.kind == Event::Kind::kProgress || event.kind == Event::Kind::kRepetitionEnd;
    if (is_repetition && !shows_repetition) {
        ++left_out;
        return;
    }
    switch (event.kind) {
        case Event::Kind::kText:
            return Print(event, kPlain, event.text);
        case Event::Kind::kHeading:
            return Print(event, kBold, event.text);
        case Event::Kind::kSent:
            return Print(event, kCyan, "modem -> velmar  " + DescribeMessage(event.text, whole));
        case Event::Kind::kReceived:
            return Print(event, kGreen, "velmar -> modem  " + DescribeMessage(event.text, whole));
        case Event::Kind::kState:
            return Print(event, kPlain, "modem state " + std::to_string(event.number) + event.text);
        case Event::Kind::kOpened:
            return Print(event, kPlain, "velmar opened " + event.text);
        case Event::Kind::kClosed:
            return Print(event, kPlain, "velmar closed " + event.text);
        case Event::Kind::kLog:
            return Print(event, kFaint, "log  " + DescribeLogLine(event));
        case Event::Kind::kRadio:
            return Print(event, kGreen, DescribeRadioCall(CallFrom(event)));
        case Event::Kind::kFault:
            return Print(event, kPlain, DescribeFault(event));
        case Event::Kind::kProgress:
            return ShowProgress(event);
        case Event::Kind::kRepetitionBegin:
            is_repetition = true;
            left_out = 0;
            shown_tenths = 0;
            return;
        case Event::Kind::kRepetitionEnd:
            is_repetition = false;
            if (left_out == 0) return;
            return Print(event, kPlain, "... " + std::to_string(left_out) + " lines like these");
        case Event::Kind::kPhone:
        case Event::Kind::kStep:
            return;
    }
}

void Transcript::ShowProgress(const Event& event) {
    const int64_t tenths = event.number * 10 / event.total;
    // The end has a line of its own.
    if (tenths == shown_tenths || event.number == event.total) return;
    shown_tenths = tenths;
    Print(event, kPlain,
          StringPrintf("%d %% of %.1f MiB", static_cast<int>(event.number * 100 / event.total),
                       static_cast<double>(event.total) / (1 << 20)));
}

void Transcript::Print(const Event& event, const char* colour, const std::string& text) const {
    const double seconds = std::chrono::duration<double>(event.since_boot).count();
    // A heading stands without a time.
    const std::string line =
            (colour == kBold ? "--- " : StringPrintf("%9.3f  ", seconds)) + Printable(text);
    std::cout << (colours ? colour + line + kReset : line) << std::endl;
}

}  // namespace velmar_sim
