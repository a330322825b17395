#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "handler/velmar_message_handler.h"
#include "log_capture.h"
#include "sim/modem/fault_injector.h"
#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/modem/thermal_driver.h"

// Runs the test's process in a phone of its own, with a modem.
class PhoneTestCase : public testing::Test {
  protected:
    PhoneTestCase() {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the modem's thread does not look at it.
        setenv(velmar_phone::kRootVariable, folder.root().c_str(), 1);
    }

    velmar_sim::PhoneFolder folder;
    velmar_sim::SimulatedModem modem{folder};
    velmar_sim::ThermalDriver thermal{folder};
    velmar_sim::FaultInjector injector{folder};
    LogCapture log;
};

// A monitor that has the boot device open without a thread, which would never end.
class OpenMonitor : public ModemStateMonitor {
  public:
    explicit OpenMonitor(VelmarMessageHandler* message_handler)
        : ModemStateMonitor(message_handler) {
        boot_fd = open("/dev/umts_boot0", O_RDWR);
        EndWaitForDevice();
    }
    ~OpenMonitor() override { close(boot_fd); }
};

// A message handler with all its parts but the monitor's thread.
class TestHandler : public VelmarMessageHandler {
  public:
    TestHandler() { state_monitor = std::make_unique<OpenMonitor>(this); }

    using VelmarMessageHandler::recovery_callback;
    using VelmarMessageHandler::request_list;
    using VelmarMessageHandler::state_monitor;
};

// The encoding of a message given as text.
std::string Encode(const std::string& text);

// A message given as text, as if it had been received.
std::unique_ptr<SitMessage> Receive(const std::string& text);
