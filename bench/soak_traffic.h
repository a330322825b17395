#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "bench/messages.h"
#include "bench/service_phone.h"
#include "bench/soak_log.h"
#include "proto/velmar_message.pb.h"
#include "sim/tool/simulated_radio.h"

namespace velmar_bench {

struct SoakCounts {
    uint64_t messages = 0;
    uint64_t answers = 0;
    uint64_t files = 0;
    uint64_t file_bytes = 0;
    uint64_t indications = 0;
    uint64_t dropped = 0;
    uint64_t service_requests = 0;
    uint64_t modem_restarts = 0;
    uint64_t channel_losses = 0;
    uint64_t client_runs = 0;
};

// What a modem and a phone do with the service, picked at random, with all that must come of it.
// Operations belong to the main thread; they throw std::runtime_error when something else came.
class SoakTraffic {
  public:
    // Prepares the phone and starts the service, `velmar`, with an online modem. The arguments are
    // borrowed.
    SoakTraffic(const std::string& velmar, uint64_t seed, ServicePhone* phone, SoakLog* log);

    // One thing out of all that the modem sends.
    void Step();

    // Runs the program's client, which makes the service ask the modem for something; nothing while
    // the request of the one before is not dealt with.
    void RunClient();

    // The modem goes offline and comes back, now and then with messages sent in between.
    void RestartModem();

    // The channel ends, and the service opens it again.
    void LoseChannel();

    // Waits until all that was begun is done, then compares the phone's files and properties with
    // what must be in them.
    void Settle();

    // From now on nothing is sent of which the service keeps a part for ever: messages of no known
    // type.
    void LeaveOutWhatIsKept() { leaves_out_what_is_kept = true; }

    const SoakCounts& counts() const { return done; }
    velmar_sim::ChildProcess& service() { return *server; }

  private:
    using Message = velmar_message::VelmarMessage;

    size_t Random(size_t limit) { return random() % limit; }
    std::string RandomBytes(size_t size);

    void SendBytes(const std::string& bytes);
    void Send(const Message& message) { SendBytes(message.SerializeAsString()); }
    void Indicate(Message* message);
    Message Request();
    void Exchange(const Message& request, const Message& answer);
    void Expect(const Message& answer);
    velmar_sim::ReceivedMessage Receive();
    void OnServiceRequest(const velmar_sim::ReceivedMessage& received);
    void GoOnline();
    void FinishRequests();

    Message AskForProperty();
    Message AnswerOfProperty(const Message& request) const;
    void ReadProperty();
    void SetProperty();
    void ReportTemperatures();
    void SendChunk();
    void RefuseChunk();
    void CheckStoredFile();
    void AppendExtendedLog();
    void LogLine();
    void ReportStatistics();
    void SendWhatIsDropped();

    void ExpectRadio(uint32_t request, const std::string& data);
    void CheckReadings();
    void CheckRadio();
    void CheckExtendedLog() const;
    void CheckText(const std::string& path, const std::string& expected) const;

    const std::string velmar;
    ServicePhone* const phone;
    SoakLog* const log;
    std::mt19937_64 random;
    const std::string block;
    velmar_sim::EventStream nowhere;
    velmar_sim::SimulatedRadio radio;
    SoakCounts done;
    bool leaves_out_what_is_kept = false;

    std::map<std::string, std::string> properties;
    std::vector<std::string> readings;
    // A file that is being sent: the part sent last, and all of it.
    std::unique_ptr<FilePart> transfer;
    std::string file_content;
    std::string statistics;
    uint64_t log_lines = 0;
    // Numbers of the records in the extended log, and its size in bytes.
    uint64_t first_record = 0;
    uint64_t next_record = 0;
    size_t extended_log_size = 0;
    uint64_t state_changes = 0;

    // Requests that the service has to send yet, without their token.
    std::multiset<std::string> awaited;
    std::set<uint32_t> tokens;
    std::deque<velmar_sim::RadioRequest> radio_requests;
    std::unique_ptr<velmar_sim::ChildProcess> server;
    std::unique_ptr<velmar_sim::ChildProcess> client;
};

}  // namespace velmar_bench
