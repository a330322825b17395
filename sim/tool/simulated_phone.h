#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/tool/child_process.h"
#include "sim/tool/janitor.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario.pb.h"
#include "sim/tool/simulated_radio.h"
#include "sim/tool/transcript.h"

namespace velmar_sim {

// A phone in a fresh folder, with its modem, its log, and the programs that run in it. When it goes
// they are killed and the folder is removed. Operations belong to the main thread.
class SimulatedPhone {
  public:
    // Makes the phone as `description` has it and starts nothing yet. `velmar` is the service's
    // executable. `transcript` is borrowed. Throws std::runtime_error when something cannot be
    // made.
    SimulatedPhone(const Phone& description, const std::string& velmar, bool keep_folder,
                   Transcript* transcript);

    // Starts the service's program with `arguments`. What it writes to standard output goes to
    // `output`, to be read after its end, or with a null `output` to the log.
    std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& arguments,
                                        std::string* output);

    const PhoneFolder& folder() const { return phone_folder; }
    SimulatedModem& modem() { return phone_modem; }
    SimulatedRadio& radio() { return phone_radio; }
    LogStream& log() { return phone_log; }

  private:
    ChildProcess::OutputReader ToLog(const char* plain_tag);
    std::string LibraryPathVariable() const;

    Transcript* const show;
    const std::string executable;
    mode_t umask_of_programs;
    // Below the folder of the service's libraries; nothing when the phone has no radio library.
    const std::optional<std::string> radio_library;
    Janitor janitor;
    PhoneFolder phone_folder;
    LogStream phone_log;
    SimulatedModem phone_modem;
    SimulatedRadio phone_radio;
};

}  // namespace velmar_sim
