#pragma once

#include <android-base/strings.h>
#include <android/log.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Collects what the process logs while it lives, each line as its priority's letter, a blank and
// the text: "E Message not exist". One at a time.
class LogCapture {
  public:
    LogCapture() {
        Store(false).clear();
        Store(true).clear();
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger(Keep);
    }
    ~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The lines so far, without those that TakeLines() gave. Any thread.
    std::vector<std::string> Lines() const {
        std::lock_guard<std::mutex> guard(Lock());
        return Store(false);
    }

    // The same as one text, with "; " between. Those that follow begin anew.
    std::string TakeLines() {
        std::lock_guard<std::mutex> guard(Lock());
        return android::base::Join(std::exchange(Store(false), {}), "; ");
    }

    // The lines of the radio's client library: they have its tag and a buffer of their own.
    std::string TakeRadioLines() {
        std::lock_guard<std::mutex> guard(Lock());
        return android::base::Join(std::exchange(Store(true), {}), "; ");
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
    static std::vector<std::string>& Store(bool is_radio) {
        static std::vector<std::string> lines[2];
        return lines[is_radio ? 1 : 0];
    }
    static std::mutex& Lock() {
        static std::mutex lock;
        return lock;
    }
    static void Keep(const __android_logger_data* data, const char* message) {
        static const char kLetters[] = "??VDIWEF";
        const bool is_radio =
                data->buffer_id == LOG_ID_RADIO && std::string(data->tag) == "libsitril-client";
        std::lock_guard<std::mutex> guard(Lock());
        Store(is_radio).push_back(std::string(1, kLetters[data->priority & 7]) + " " + message);
    }
};
