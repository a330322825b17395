#pragma once

#include <pcap/pcap.h>

#include <memory>
#include <string>

#include "sim/modem/event.h"
#include "sim/tool/bad_input.h"
#include "sim/tool/trace.h"

// Captures: the messages of a session as UDP datagrams over IPv4 between 10.0.0.2, the modem, and
// 10.0.0.1, the phone, for programs that show network traffic. Times are those since the boot.
namespace velmar_sim {

// Writes messages into a capture; other events are passed over. What is written outlives the
// program, however it ends. A message of more than 65507 bytes is cut to them, and its packet says
// how long it was.
class CaptureWriter : public EventWriter {
  public:
    // Begins the file `path`. Throws BadInput when it cannot be written.
    explicit CaptureWriter(const std::string& path);

    void Write(const Event& event) override;
    void Finish() override;

  private:
    void Flush();

    const std::string file_path;
    const std::unique_ptr<pcap_t, void (*)(pcap_t*)> format;
    std::unique_ptr<pcap_dumper_t, void (*)(pcap_dumper_t*)> file;
    // A pipe may block.
    bool is_regular = false;
    // Of the first write that failed; nothing is written after it.
    int error = 0;
};

// Whether `file`, of which nothing was read yet, begins as a capture does. It can still be read
// from its beginning.
bool IsCapture(FILE* file);

// Hands over the messages of a capture as they are read, with the numbers of their packets from 1
// on. One that was cut has its whole size in `total`. `path` names the capture in errors. Throws
// BadInput when it comes to something else.
void ReadCapture(const std::string& path, InputFile file, const TraceReader& reader);

}  // namespace velmar_sim
