#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/modem/event.h"
#include "sim/modem/fault_injector.h"
#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/modem/thermal_driver.h"
#include "sim/tool/child_process.h"
#include "sim/tool/log_stream.h"
#include "sim/tool/scenario.pb.h"
#include "sim/tool/simulated_radio.h"

namespace velmar_sim {

// The same file with its content in it, if that is a file of the workstation. Throws
// std::runtime_error. Any thread.
File WithContent(File file);

// A simulated phone with all that stands around the service: its folder, modem, thermal driver,
// radio and log, and the programs that run in it. Operations belong to the main thread.
class Simulation {
  public:
    // Fills `phone_folder` as `description` has it and starts nothing yet. `velmar` is the
    // service's executable. `events` is borrowed. Throws std::runtime_error when something cannot
    // be made.
    Simulation(const Phone& description, const std::string& velmar, PhoneFolder phone_folder,
               EventStream* events);

    // How Start starts the service's program, for those who read what it writes by themselves.
    Launch LaunchOf(const std::vector<std::string>& arguments) const;

    // Starts the service's program with `arguments`. What it writes to standard output goes to
    // `output`, to be read after its end, or with a null `output` to the log.
    std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& arguments,
                                        std::string* output);

    // Writes a file of the phone. Throws std::runtime_error.
    void WriteFile(const File& file) const;

    // Takes away a file of the phone, or a directory with all that it holds. Throws
    // std::runtime_error, also when there is none.
    void Remove(const std::string& path) const;

    const PhoneFolder& folder() const { return phone_folder; }
    SimulatedModem& modem() { return simulated_modem; }
    ThermalDriver& thermal() { return thermal_driver; }
    FaultInjector& faults() { return fault_injector; }
    SimulatedRadio& radio() { return simulated_radio; }
    LogStream& log() { return log_stream; }

  private:
    ChildProcess::OutputReader ToLog(const char* plain_tag);

    EventStream* const events;
    const std::string executable;
    const mode_t umask_of_programs;
    const std::vector<std::string> library_path;
    const PhoneFolder phone_folder;
    LogStream log_stream;
    SimulatedModem simulated_modem;
    ThermalDriver thermal_driver;
    FaultInjector fault_injector;
    SimulatedRadio simulated_radio;
};

}  // namespace velmar_sim
