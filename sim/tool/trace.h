#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "android-base/unique_fd.h"

#include "sim/modem/event.h"
#include "sim/tool/bad_input.h"

// Traces: what happened in a simulated phone, as data. sim/tool/trace.proto is their schema.
namespace velmar_sim {

// Writes events into a file, one JSON object a line. What is written outlives the program, however
// it ends.
class TraceWriter : public EventWriter {
  public:
    // Begins the file `path`. Throws BadInput when it cannot be written.
    explicit TraceWriter(const std::string& path);

    void Write(const Event& event) override;
    void Finish() override;

  private:
    const std::string file_path;
    const android::base::unique_fd file;
    // A pipe may block.
    bool is_regular = false;
    // Of the first write that failed; nothing is written after it.
    int error = 0;
    // When requests passed, by direction and token.
    std::map<std::pair<Event::Kind, uint32_t>, std::chrono::microseconds> requests;
};

// Whether the file is empty or begins as the writers of traces begin one.
bool HoldsTrace(const std::string& path);

// Takes an event of a trace, and where it stands there: the number of its line or packet.
using TraceReader = std::function<void(const Event& event, int place)>;

// Hands over the events of the trace in `file`, each as soon as it is read. It is a capture, or has
// lines; each is a JSON object as TraceWriter writes them, or "modem" or "phone", as the sender,
// and the bytes of a message in hexadecimal. `path` names the trace in errors. Throws BadInput,
// with the place, when it comes to something else.
void ReadTrace(const std::string& path, InputFile file, const TraceReader& reader);

}  // namespace velmar_sim
