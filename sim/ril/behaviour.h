#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace velmar_radio {

// What becomes of one request.
struct Answer {
    // It is answered at all.
    bool comes = true;
    int error = 0;
    // On the caller's thread, before its call returns.
    bool early = false;
    bool twice = false;
    // By default long enough for the caller to reach its wait: one that misses its wake-up in the
    // moment before would go on only when its time is over.
    std::chrono::milliseconds delay{20};
};

// How the radio behaves.
struct Behaviour {
    bool opens = true;
    int result = 0;
    // In the order of the requests; empty is the same as one default answer.
    std::vector<Answer> answers;
};

// Reads a behaviour from its text (radio_layout.h). Returns false, with the line and what was
// expected there in `fault`, when it is none. Any thread.
bool ParseBehaviour(const std::string& text, Behaviour* behaviour, std::string* fault);

// The answer to request number `index`, from 0. Any thread.
Answer AnswerTo(const Behaviour& behaviour, size_t index);

}  // namespace velmar_radio
