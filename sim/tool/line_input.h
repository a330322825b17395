#pragma once

#include <histedit.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <streambuf>
#include <string>
#include <vector>

namespace velmar_sim {

// The lines of standard input. At a terminal they are edited, with a prompt, history and
// completion, and what is written to std::cout and std::cerr meanwhile, on whatever thread, is
// shown above the prompt. Main thread.
class LineInput {
  public:
    // Called again and again while a line is awaited; returns whether to go on waiting.
    using Idle = std::function<bool()>;

    // What the word at the end of a text can become.
    using Completer = std::function<std::vector<std::string>(const std::string&)>;

    LineInput(Completer completer, Idle while_idle);
    ~LineInput();
    LineInput(const LineInput&) = delete;
    LineInput& operator=(const LineInput&) = delete;

    bool is_terminal() const { return editor != nullptr; }

    // The next line without its line feed; nothing at the end, or when waiting was given up. Throws
    // BadInput when standard input cannot be read.
    std::optional<std::string> Next();

  private:
    // Keeps what is written to it, on any thread, until somebody takes it.
    class HeldOutput : public std::streambuf {
      public:
        // What is flushed goes to `output` unless that is null.
        void SendTo(std::streambuf* output);
        // The whole lines.
        std::string Take();

      private:
        std::streamsize xsputn(const char* written, std::streamsize size) override;
        int overflow(int character) override;
        int sync() override;

        std::mutex lock;
        std::streambuf* target = nullptr;
        std::string text;
    };

    std::optional<std::string> NextOfPipe();
    static LineInput* Of(EditLine* line);
    static int ReadCharacter(EditLine* line, wchar_t* character);
    bool AwaitInput();
    void ShowAbove(const std::string& text);
    unsigned char Complete();

    const Completer complete;
    const Idle idle;
    std::streambuf* const terminal;
    std::streambuf* const errors;
    HeldOutput held;
    // Of a pipe.
    std::string read_ahead;
    EditLine* editor = nullptr;
    History* past = nullptr;
};

}  // namespace velmar_sim
