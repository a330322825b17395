#include "sim/ril/behaviour.h"

#include <algorithm>
#include <charconv>
#include <sstream>

namespace velmar_radio {

namespace {

constexpr char kDelayWord[] = "delay=";

using Words = std::vector<std::string>;

Words WordsOf(const std::string& line) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

bool ReadNumber(const std::string& word, int* number) {
    const char* end = word.data() + word.size();
    const auto parsed = std::from_chars(word.data(), end, *number);
    return parsed.ec == std::errc() && parsed.ptr == end;
}

bool ReadDelay(const std::string& word, std::chrono::milliseconds* delay) {
    const size_t length = sizeof(kDelayWord) - 1;
    int number = 0;
    if (word.compare(0, length, kDelayWord) != 0) return false;
    if (!ReadNumber(word.substr(length), &number) || number < 0) return false;
    *delay = std::chrono::milliseconds(number);
    return true;
}

bool ReadAnswer(const Words& words, Answer* answer) {
    if (words.size() == 2 && words[1] == "none") {
        answer->comes = false;
        return true;
    }
    if (words.size() < 2 || !ReadNumber(words[1], &answer->error)) return false;
    return std::all_of(words.begin() + 2, words.end(), [answer](const std::string& word) {
        answer->early |= word == "early";
        answer->twice |= word == "twice";
        return word == "early" || word == "twice" || ReadDelay(word, &answer->delay);
    });
}

bool ReadLine(const Words& words, Behaviour* behaviour) {
    if (words[0] == "answer") return ReadAnswer(words, &behaviour->answers.emplace_back());
    if (words[0] == "result") return words.size() == 2 && ReadNumber(words[1], &behaviour->result);
    behaviour->opens = false;
    return words == Words{"open", "null"};
}

}  // namespace

bool ParseBehaviour(const std::string& text, Behaviour* behaviour, std::string* fault) {
    std::istringstream lines(text);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        const Words words = WordsOf(line);
        if (words.empty() || ReadLine(words, behaviour)) continue;
        *fault = std::to_string(number) + ": expected \"open null\", \"result NUMBER\", " +
                 "\"answer none\" or \"answer ERROR [early] [twice] [delay=MILLISECONDS]\", " +
                 "found \"" + line + "\"";
        return false;
    }
    return true;
}

Answer AnswerTo(const Behaviour& behaviour, size_t index) {
    if (behaviour.answers.empty()) return Answer();
    return behaviour.answers[std::min(index, behaviour.answers.size() - 1)];
}

}  // namespace velmar_radio
