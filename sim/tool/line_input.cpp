#include "sim/tool/line_input.h"

#include <errno.h>
#include <locale.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <utility>

#include "android-base/strings.h"

#include "sim/tool/bad_input.h"
#include "sim/tool/step_help.h"

namespace velmar_sim {

namespace {

constexpr int kIdleMilliseconds = 20;
constexpr int kHistorySize = 1000;
// What is read of a pipe at once, in bytes.
constexpr size_t kPartSize = 4096;
constexpr char kPrompt[] = "velmar> ";

}  // namespace

void LineInput::HeldOutput::SendTo(std::streambuf* output) {
    const std::lock_guard<std::mutex> guard(lock);
    target = output;
}

std::string LineInput::HeldOutput::Take() {
    const std::lock_guard<std::mutex> guard(lock);
    const size_t end = text.rfind('\n') + 1;
    std::string lines = text.substr(0, end);
    text.erase(0, end);
    return lines;
}

std::streamsize LineInput::HeldOutput::xsputn(const char* written, std::streamsize size) {
    const std::lock_guard<std::mutex> guard(lock);
    text.append(written, static_cast<size_t>(size));
    return size;
}

int LineInput::HeldOutput::overflow(int character) {
    const char written = static_cast<char>(character);
    return static_cast<int>(xsputn(&written, 1));
}

int LineInput::HeldOutput::sync() {
    const std::lock_guard<std::mutex> guard(lock);
    if (target == nullptr) return 0;
    target->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    text.clear();
    return target->pubsync();
}

LineInput::LineInput(Completer completer, Idle while_idle)
    : complete(std::move(completer)),
      idle(std::move(while_idle)),
      terminal(std::cout.rdbuf()),
      errors(std::cerr.rdbuf()) {
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) return;
    std::cout.rdbuf(&held);
    if (isatty(STDERR_FILENO) == 1) std::cerr.rdbuf(&held);
    held.SendTo(terminal);
    // By the user's locale the editor knows characters of more than one byte.
    static_cast<void>(setlocale(LC_CTYPE, ""));
    editor = el_init("velmar_sim", stdin, stdout, stderr);
    past = history_init();
    HistEvent event;
    history(past, &event, H_SETSIZE, kHistorySize);
    el_set(editor, EL_CLIENTDATA, this);
    el_set(
            editor, EL_PROMPT, +[](EditLine*) { return const_cast<char*>(kPrompt); });
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_HIST, history, past);
    el_set(editor, EL_GETCFN, &LineInput::ReadCharacter);
    el_set(
            editor, EL_ADDFN, "velmar-complete", "Complete a name",
            +[](EditLine* line, int) { return Of(line)->Complete(); });
    el_set(editor, EL_BIND, "^I", "velmar-complete", nullptr);
}

LineInput::~LineInput() {
    if (!is_terminal()) return;
    history_end(past);
    el_end(editor);
    std::cout.rdbuf(terminal);
    std::cerr.rdbuf(errors);
}

std::optional<std::string> LineInput::Next() {
    if (!is_terminal()) return NextOfPipe();
    held.SendTo(nullptr);
    int size = 0;
    const char* typed = el_gets(editor, &size);
    held.SendTo(terminal);
    // After the end of the input the cursor is still behind the prompt.
    if (typed == nullptr || size <= 0) std::cout << "\n";
    std::cout.flush();
    if (typed == nullptr || size <= 0) return std::nullopt;
    HistEvent event;
    std::string line = android::base::Trim(std::string(typed, typed + size));
    if (!line.empty()) history(past, &event, H_ENTER, line.c_str());
    return line;
}

// Waits for each part of a line alike, so that a signal ends the wait in its midst too.
std::optional<std::string> LineInput::NextOfPipe() {
    while (true) {
        const size_t end = read_ahead.find('\n');
        if (end != std::string::npos) {
            std::string line = read_ahead.substr(0, end);
            read_ahead.erase(0, end + 1);
            return line;
        }
        char part[kPartSize];
        if (!AwaitInput()) return std::nullopt;
        const ssize_t size = read(STDIN_FILENO, part, sizeof(part));
        if (size < 0) {
            throw BadInput(std::string("standard input: cannot be read: ") +
                           strerrordesc_np(errno));
        }
        if (size == 0 && read_ahead.empty()) return std::nullopt;
        // The last line may lack its line feed.
        size == 0 ? read_ahead += '\n' : read_ahead.append(part, static_cast<size_t>(size));
    }
}

LineInput* LineInput::Of(EditLine* line) {
    void* self = nullptr;
    el_get(line, EL_CLIENTDATA, &self);
    return static_cast<LineInput*>(self);
}

// The editor calls it for each character.
int LineInput::ReadCharacter(EditLine* line, wchar_t* character) {
    if (!Of(line)->AwaitInput()) return 0;
    el_set(line, EL_GETCFN, EL_BUILTIN_GETCFN);
    const int count = el_wgetc(line, character);
    el_set(line, EL_GETCFN, &LineInput::ReadCharacter);
    return count;
}

// Waits until standard input can be read; false when waiting was given up.
bool LineInput::AwaitInput() {
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    do {
        if (!idle()) return false;
        if (is_terminal()) ShowAbove(held.Take());
    } while (poll(&input, 1, kIdleMilliseconds) <= 0);
    return true;
}

// Writes whole lines in the place of the prompt, and draws that again below them.
void LineInput::ShowAbove(const std::string& text) {
    if (text.empty()) return;
    const LineInfoW* line = el_wline(editor);
    int columns = 0;
    el_get(editor, EL_GETTC, "co", &columns, nullptr);
    const auto before = static_cast<int>(strlen(kPrompt) + (line->cursor - line->buffer));
    const int rows = columns > 0 ? before / columns : 0;
    const std::string up = rows > 0 ? "\033[" + std::to_string(rows) + "A" : "";
    const std::string all = "\r" + up + "\033[J" + text;
    terminal->sputn(all.data(), static_cast<std::streamsize>(all.size()));
    terminal->pubsync();
    // Makes the editor forget what it has drawn.
    el_resize(editor);
    el_set(editor, EL_REFRESH);
}

unsigned char LineInput::Complete() {
    const LineInfo* line = el_line(editor);
    const std::string text(line->buffer, line->cursor);
    const std::vector<std::string> names = complete(text);
    if (names.empty()) return CC_ERROR;
    const auto [first, last] = std::minmax_element(names.begin(), names.end());
    const auto same = std::mismatch(first->begin(), first->end(), last->begin(), last->end());
    const size_t typed = text.size() - NameAtEnd(text);
    const std::string more(first->begin() + static_cast<std::ptrdiff_t>(typed), same.first);
    if (more.empty()) ShowAbove(android::base::Join(names, "  ") + "\n");
    el_insertstr(editor, more.c_str());
    return CC_REFRESH;
}

}  // namespace velmar_sim
