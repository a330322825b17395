#pragma once

#include <android-base/strings.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sim/modem/log_socket.h"

// Collects what programs of a phone, this process among them, log while it lives, each line as its
// priority's letter, a blank and the text: "E Message not exist". Any thread.
class LogCapture {
  public:
    static constexpr int kMainBuffer = 0;
    static constexpr int kRadioBuffer = 1;

    explicit LogCapture(const velmar_sim::PhoneFolder& folder)
        : socket(folder, [this](const velmar_sim::LogLine& line) {
              const std::lock_guard<std::mutex> guard(lock);
              buffers[line.total].push_back(std::string(1, line.priority) + " " + line.text);
          }) {}

    // The lines of a buffer so far as one text, with "; " between. Those that follow begin anew.
    std::string TakeLines(int buffer = kMainBuffer) {
        socket.Drain();
        const std::lock_guard<std::mutex> guard(lock);
        return android::base::Join(std::exchange(buffers[buffer], {}), "; ");
    }

    // How many of the lines so far, without those that TakeLines() gave, are `line`.
    int Count(const std::string& line) {
        socket.Drain();
        const std::lock_guard<std::mutex> guard(lock);
        const auto& lines = buffers[kMainBuffer];
        return static_cast<int>(std::count(lines.begin(), lines.end(), line));
    }

    // Whether `line` comes, or has come, within ten seconds.
    bool WaitFor(const std::string& line) {
        for (int i = 0; i < 10000 && Count(line) == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return Count(line) > 0;
    }

  private:
    std::mutex lock;
    std::map<int64_t, std::vector<std::string>> buffers;
    velmar_sim::LogSocket socket;
};
