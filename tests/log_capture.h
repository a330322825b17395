#pragma once

#include <android-base/strings.h>
#include <android/log.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Collects what the process logs while it lives, each line as its priority's letter, a blank and
// the text: "E Message not exist". One at a time. Any thread.
class LogCapture {
  public:
    LogCapture() {
        for (auto& lines : buffers) lines.clear();
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger(Keep);
    }
    ~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The lines of a buffer so far as one text, with "; " between. Those that follow begin anew.
    std::string TakeLines(log_id_t buffer = LOG_ID_MAIN) {
        std::lock_guard<std::mutex> guard(lock);
        return android::base::Join(std::exchange(buffers[buffer], {}), "; ");
    }

    // How many of the lines so far, without those that TakeLines() gave, are `line`.
    int Count(const std::string& line) const {
        std::lock_guard<std::mutex> guard(lock);
        const auto& lines = buffers[LOG_ID_MAIN];
        return static_cast<int>(std::count(lines.begin(), lines.end(), line));
    }

    // Whether `line` comes, or has come, within ten seconds.
    bool WaitFor(const std::string& line) const {
        for (int i = 0; i < 10000 && Count(line) == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return Count(line) > 0;
    }

  private:
    static void Keep(const __android_logger_data* data, const char* message) {
        static const char kLetters[] = "??VDIWEF";
        std::lock_guard<std::mutex> guard(lock);
        buffers[data->buffer_id].push_back(std::string(1, kLetters[data->priority & 7]) + " " +
                                           message);
    }

    inline static std::mutex lock;
    inline static std::vector<std::string> buffers[LOG_ID_MAX];
};
