// The running service under signals: each request that a signal sets off gets its response, and the
// modem's own requests are served throughout.

#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "sim/tool/simulation.h"

namespace {

using std::chrono::milliseconds;
using velmar_message::VelmarMessage;
using velmar_sim::LogLine;

constexpr int kOnline = 4;
constexpr milliseconds kLimit{20000};

class SignalTest : public testing::Test {
  protected:
    SignalTest() {
        simulation.modem().SetState(kOnline);
        service = simulation.Start({"--server"}, nullptr);
    }

    void SetUp() override {
        ASSERT_TRUE(Awaits("Failed to connect to RIL to send GNSS coex configuration"));
        // A client finds the server by it.
        while (simulation.folder().ReadFile("/data/vendor/radio/velmar_pid").value_or("").empty()) {
            std::this_thread::sleep_for(milliseconds(1));
        }
    }

    ~SignalTest() override {
        EXPECT_TRUE(service->IsRunning());
        service->Kill();
        EXPECT_FALSE(simulation.log().Find(0, velmar_sim::IsSanitizerReport, milliseconds(0)));
    }

    static velmar_sim::Phone PhoneWithoutRadio() {
        velmar_sim::Phone phone;
        phone.set_no_radio_library(true);
        return phone;
    }

    bool Awaits(const std::string& line) {
        return simulation.log()
                .Find(
                        0, [&](const LogLine& logged) { return logged.text == line; }, kLimit)
                .has_value();
    }

    int CountLines(const std::string& end) {
        int count = 0;
        simulation.log().Find(
                0,
                [&](const LogLine& logged) {
                    const std::string& text = logged.text;
                    count += text.size() >= end.size() &&
                             text.compare(text.size() - end.size(), end.size(), end) == 0;
                    return false;
                },
                milliseconds(0));
        return count;
    }

    // The modem responds to the next requests after this long.
    void RespondAfter(milliseconds delay) {
        velmar_sim::ResponsePolicy policy;
        policy.set_delay_ms(static_cast<uint32_t>(delay.count()));
        simulation.modem().SetResponsePolicy(policy);
    }

    // Counts the requests of the service up to its response to a property request.
    int RequestsUntilPropertyResponse(unsigned int token) {
        VelmarMessage request;
        request.set_type(velmar_message::REQUEST);
        request.set_token(token);
        request.mutable_property_message()->mutable_read_request()->set_name("a");
        simulation.modem().Send(request);
        for (int requests = 0;;) {
            const auto message = simulation.modem().Receive(kLimit);
            if (!message) {
                ADD_FAILURE() << "no response to the property request";
                return requests;
            }
            if (message->message.type() == velmar_message::RESPONSE) return requests;
            ++requests;
        }
    }

    velmar_sim::EventStream events;
    velmar_sim::Simulation simulation{PhoneWithoutRadio(), VELMAR_PATH, {}, &events};
    std::unique_ptr<velmar_sim::ChildProcess> service;
};

TEST_F(SignalTest, BothOptionsOfOneRunAreServed) {
    for (int run = 1; run <= 5; ++run) {
        RespondAfter(milliseconds(10 * run));
        std::string output;
        const auto client = simulation.Start({"-m", "-e"}, &output);
        while (CountLines(" response successful") < 2 * run) {
            ASSERT_EQ(CountLines("status:5"), 0) << "in run " << run;
            std::this_thread::sleep_for(milliseconds(5));
        }
        EXPECT_EQ(RequestsUntilPropertyResponse(run), 2) << "in run " << run;
    }
}

TEST_F(SignalTest, SignalsAtRandomEachGetTheirResponse) {
    constexpr int kSignals = 120;
    // NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp): a failure can be seen again.
    std::minstd_rand random(1);
    const auto random_ms = [&](int least, int most) {
        return milliseconds(std::uniform_int_distribution<>(least, most)(random));
    };
    int requests = 0;
    for (int i = 0; i < kSignals; ++i) {
        RespondAfter(random_ms(20, 70));
        service->Signal(random_ms(0, 1).count() == 0 ? SIGUSR1 : SIGUSR2);
        std::this_thread::sleep_for(random_ms(0, 60));
        if (i % 10 == 0) requests += RequestsUntilPropertyResponse(i);
    }
    // The last two may still wait: one at the modem, one of each kind to be taken.
    std::this_thread::sleep_for(milliseconds(500));
    requests += RequestsUntilPropertyResponse(kSignals);
    EXPECT_GE(requests, kSignals / 4);
    EXPECT_EQ(CountLines(" response successful"), requests);
}

}  // namespace
