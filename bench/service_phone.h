#pragma once

#include <memory>
#include <string>

#include "bench/process_figures.h"
#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/modem/thermal_driver.h"
#include "sim/tool/child_process.h"

namespace velmar_bench {

// A simulated phone whose one long-lived program is the service, or what it is measured against.
// Operations belong to the main thread.
class ServicePhone {
  public:
    // Fills `folder`, which is made if it does not exist. `events` is borrowed and may be null.
    ServicePhone(const std::string& folder, velmar_sim::EventStream* events)
        : phone_folder(folder),
          phone_modem(phone_folder, events),
          thermal_driver(phone_folder, events) {}

    // Runs `executable`, under the name of velmar, with one argument. What it logs goes to `log`,
    // which may be null.
    std::unique_ptr<velmar_sim::ChildProcess> Run(
            const std::string& executable, const std::string& argument,
            const velmar_sim::ChildProcess::OutputReader& log);

    const velmar_sim::PhoneFolder& folder() const { return phone_folder; }
    velmar_sim::SimulatedModem& modem() { return phone_modem; }
    velmar_sim::ThermalDriver& thermal() { return thermal_driver; }

  private:
    velmar_sim::PhoneFolder phone_folder;
    velmar_sim::SimulatedModem phone_modem;
    velmar_sim::ThermalDriver thermal_driver;
};

// Path of a program that was built with this one.
std::string ProgramBesideThis(const std::string& name);

}  // namespace velmar_bench
