#pragma once

#include <android/log.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Collects what the process logs while it lives, each line as its priority's letter, a blank and
// the text: "E Message not exist". One at a time.
class LogCapture {
  public:
    LogCapture() {
        Store().clear();
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger(Keep);
    }
    ~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The lines so far. Any thread.
    std::vector<std::string> Lines() const {
        std::lock_guard<std::mutex> guard(Lock());
        return Store();
    }

    // How many of the lines so far are `line`.
    int Count(const std::string& line) const {
        int count = 0;
        for (const std::string& logged : Lines()) count += logged == line ? 1 : 0;
        return count;
    }

    // Whether `line` comes, or has come, within ten seconds.
    bool WaitFor(const std::string& line) const {
        for (int i = 0; i < 10000; ++i) {
            if (Count(line) > 0) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

  private:
    static std::vector<std::string>& Store() {
        static std::vector<std::string> lines;
        return lines;
    }
    static std::mutex& Lock() {
        static std::mutex lock;
        return lock;
    }
    static void Keep(const __android_logger_data* data, const char* message) {
        static const char kLetters[] = "??VDIWEF";
        std::lock_guard<std::mutex> guard(Lock());
        Store().push_back(std::string(1, kLetters[data->priority & 7]) + " " + message);
    }
};
