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
#include "service/velmar_service_handler.h"
#include "sim/modem/fault_injector.h"
#include "sim/modem/phone_folder.h"
#include "sim/modem/simulated_modem.h"
#include "sim/modem/thermal_driver.h"

// Runs the test's process in a phone of its own. It has one thread, so that it may be forked.
class PhoneFolderTestCase : public testing::Test {
  protected:
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is no other thread yet.
    PhoneFolderTestCase() { setenv(velmar_phone::kRootVariable, folder.root().c_str(), 1); }

    velmar_sim::PhoneFolder folder;
};

// The same with its log, which has a thread.
class LogTestCase : public PhoneFolderTestCase {
  protected:
    LogCapture log{folder};
};

// The same with a modem and a thermal driver.
class PhoneTestCase : public LogTestCase {
  protected:
    velmar_sim::SimulatedModem modem{folder};
    velmar_sim::ThermalDriver thermal{folder};
    velmar_sim::FaultInjector injector{folder};
};

// A monitor without its thread, which would never end.
class ThreadlessMonitor : public ModemStateMonitor {
  public:
    explicit ThreadlessMonitor(VelmarMessageHandler* hub) : ModemStateMonitor(hub) {}
    ~ThreadlessMonitor() override { close(boot_fd); }

    void OpenDevice() {
        boot_fd = open("/dev/umts_boot0", O_RDWR);
        EndWaitForDevice();
    }
};

// The same with the boot device open.
class OpenMonitor : public ThreadlessMonitor {
  public:
    explicit OpenMonitor(VelmarMessageHandler* hub) : ThreadlessMonitor(hub) { OpenDevice(); }
};

// A message handler with all its parts but the monitor's thread.
class TestHandler : public VelmarMessageHandler {
  public:
    TestHandler() { state_monitor = std::make_unique<OpenMonitor>(this); }

    using VelmarMessageHandler::recovery_callback;
    using VelmarMessageHandler::request_list;
    using VelmarMessageHandler::state_monitor;
};

// The same with expectations in the place of what the hub does for its parts.
class MockHandler : public TestHandler {
  public:
    MOCK_METHOD(void, OnModemStateChanged, (int state), (override));
    MOCK_METHOD(int, ProcessReceivedMessage, (void* data, unsigned int length), (override));
    MOCK_METHOD(int, SendRequest, (SitMessage * message, unsigned int timeout_seconds), (override));
    MOCK_METHOD(int, SendResponse, (SitMessage * message), (override));
};

// The envelope of a message as text, in one line.
std::string Text(SitMessage* message);

// The encoding of a message given as text.
std::string Encode(const std::string& text);

// A request with the next token.
std::unique_ptr<SitMessage> NewRequest();

// A message given as text, as if it had been received.
std::unique_ptr<SitMessage> Receive(const std::string& text);

MATCHER_P(IsMessage, text, "") {
    *result_listener << Text(arg);
    return Text(arg) == Text(Receive(text).get());
}

// The service with a hub that must not be called but as a test expects it.
class ServiceTestCase : public PhoneTestCase {
  protected:
    int Request(const std::string& text) {
        return service.OnReceiveRequest(Receive("type: REQUEST " + text).get());
    }
    int Indicate(const std::string& text) {
        return service.OnReceiveIndication(Receive("type: INDICATION " + text).get());
    }

    testing::StrictMock<MockHandler> handler;
    VelmarServiceHandler service{&handler};
};
