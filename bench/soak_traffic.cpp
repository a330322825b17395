#include "bench/soak_traffic.h"

#include <sys/types.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "sim/tool/differences.h"
#include "sim/tool/message_text.h"

namespace velmar_bench {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using velmar_message::VelmarMessage;
using velmar_message::VelmarResult;
using velmar_sim::DescribeMessage;
using velmar_sim::ReceivedMessage;

constexpr seconds kPatience{20};
constexpr milliseconds kSilence{100};
constexpr milliseconds kPoll{2};
// Long enough for a busy workstation: an answer that comes before the service has noted its request
// is lost.
constexpr milliseconds kAnswerDelay{200};
constexpr int kOnline = 4;
constexpr int kOfflineStates[] = {0, 3};

constexpr size_t kBlockSize = size_t{1} << 20;
constexpr size_t kMaxFile = 300000;
constexpr size_t kMaxChunk = 60000;
constexpr mode_t kStoredMode = 0666;

constexpr size_t kProperties = 20;
constexpr char kRefusedProperty[] = "vendor.soak.refused";

constexpr char kStatisticsFile[] = "/data/vendor/modem_stat/debug.txt";
constexpr size_t kMaxStatistics = 100000;
constexpr char kExtendedLog[] = "/data/vendor/radio/extended_logs/extended_log_soak.txt";
// Above this size in bytes the service puts the log aside.
constexpr size_t kMaxExtendedLog = 1048576;
// "11-21 07:00:00.634\n"
constexpr size_t kTimeStampSize = 19;
constexpr size_t kMaxRecordFill = 700;

// The configuration below, as it reaches the radio.
constexpr uint32_t kRadioHeader = 227;
constexpr uint32_t kRadioEntry = 226;

// The head of a message of each type, then a tag that no message has.
constexpr char kBrokenRequest[] = "\x08\x01\x18\x05\x07";
constexpr char kBrokenIndication[] = "\x08\x03\x07";
constexpr char kWithoutType[] = "\x07";

void PreparePhone(const velmar_sim::PhoneFolder& folder) {
    folder.WriteFile("/data/vendor/radio/modem_stat.conf", "soak:v=1,t=2\n");
    folder.WriteFile("/data/vendor/radio/modem_userspace_logging.conf", "soak\n");
    folder.WriteFile("/data/vendor/radio/gnss_blanking.csv", "258\nB3,10\n");
    folder.RefuseProperty(kRefusedProperty);
}

std::string Record(uint64_t number) {
    return "record " + std::to_string(number) + std::string(number * 37 % kMaxRecordFill, '.') +
           "\n";
}

// What the service asks for, without a token.
std::string ServiceRequest(VelmarMessage message) {
    message.set_type(velmar_message::REQUEST);
    message.set_message_id(message.payload_case());
    return message.SerializeAsString();
}

std::string StatisticsEnable() {
    VelmarMessage message;
    auto* enable = message.mutable_modem_stat_message()->mutable_enable_request();
    enable->set_module("soak");
    enable->set_value(1);
    enable->set_type(2);
    return ServiceRequest(message);
}

std::string LogEnable() {
    VelmarMessage message;
    message.mutable_userspace_log_message()->mutable_enable_request()->set_name("soak");
    return ServiceRequest(message);
}

}  // namespace

SoakTraffic::SoakTraffic(const std::string& executable, uint64_t seed, ServicePhone* service_phone,
                         SoakLog* service_log)
    : velmar(executable),
      phone(service_phone),
      log(service_log),
      random(seed),
      block(RandomBytes(kBlockSize)),
      radio(phone->folder(), &nowhere) {
    PreparePhone(phone->folder());
    velmar_sim::ResponsePolicy policy;
    policy.delay = kAnswerDelay;
    phone->modem().SetResponsePolicy(policy);
    phone->modem().SetState(kOnline);
    server = phone->Run(velmar, "--server", [this](const auto& line) { log->Take(line); });
    GoOnline();
    // Reader and sender may both open the channel at first, and the one that comes second closes it
    // again. Once requests are answered, a message goes to the one that is left.
    FinishRequests();
}

std::string SoakTraffic::RandomBytes(size_t size) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

void SoakTraffic::Step() {
    using Kind = void (SoakTraffic::*)();
    // The more often a kind stands here, the more often it is picked.
    static constexpr Kind kKinds[] = {
            &SoakTraffic::ReadProperty,
            &SoakTraffic::ReadProperty,
            &SoakTraffic::ReadProperty,
            &SoakTraffic::SetProperty,
            &SoakTraffic::SetProperty,
            &SoakTraffic::ReportTemperatures,
            &SoakTraffic::ReportTemperatures,
            &SoakTraffic::SendChunk,
            &SoakTraffic::SendChunk,
            &SoakTraffic::SendChunk,
            &SoakTraffic::RefuseChunk,
            &SoakTraffic::AppendExtendedLog,
            &SoakTraffic::AppendExtendedLog,
            &SoakTraffic::LogLine,
            &SoakTraffic::LogLine,
            &SoakTraffic::ReportStatistics,
            &SoakTraffic::SendWhatIsDropped,
    };
    (this->*kKinds[Random(std::size(kKinds))])();
}

void SoakTraffic::SendBytes(const std::string& bytes) {
    phone->modem().SendBytes(bytes);
    ++done.messages;
}

void SoakTraffic::Indicate(VelmarMessage* message) {
    message->set_type(velmar_message::INDICATION);
    message->clear_token();
    Send(*message);
    ++done.indications;
}

VelmarMessage SoakTraffic::Request() {
    VelmarMessage request;
    request.set_type(velmar_message::REQUEST);
    // Now and then without one: then the answer has none either.
    if (Random(16) != 0) request.set_token(static_cast<uint32_t>(random()));
    return request;
}

void SoakTraffic::Exchange(const VelmarMessage& request, const VelmarMessage& answer) {
    Send(request);
    Expect(answer);
}

void SoakTraffic::Expect(const VelmarMessage& answer) {
    ReceivedMessage received = Receive();
    for (; received.message.type() == velmar_message::REQUEST; received = Receive()) {
        OnServiceRequest(received);
    }
    const std::string expected = answer.SerializeAsString();
    ++done.answers;
    if (received.bytes == expected) return;
    throw std::runtime_error("wrong answer: expected " + DescribeMessage(expected) + "\n  found " +
                             DescribeMessage(received.bytes));
}

ReceivedMessage SoakTraffic::Receive() {
    std::optional<ReceivedMessage> received = phone->modem().Receive(kPatience);
    if (received) return *std::move(received);
    throw std::runtime_error("expected a message of the service, none came");
}

void SoakTraffic::OnServiceRequest(const ReceivedMessage& received) {
    VelmarMessage message = received.message;
    message.clear_token();
    const auto found = awaited.find(message.SerializeAsString());
    const bool is_new = tokens.insert(received.message.token()).second;
    if (found == awaited.end() || !is_new) {
        throw std::runtime_error(
                "the service sent a request that is not due, or its token again: " +
                DescribeMessage(received.bytes));
    }
    awaited.erase(found);
    ++done.service_requests;
}

void SoakTraffic::GoOnline() {
    phone->modem().SetState(kOnline);
    log->Await(kStateChanged, ++state_changes);
    awaited.insert({StatisticsEnable(), LogEnable()});
    ExpectRadio(kRadioHeader, {"\x02\x01", 2});
    ExpectRadio(kRadioEntry, {"\x02\x01\x03\x00\x0a\x00\x00\x00\x00\x00", 10});
}

void SoakTraffic::RunClient() {
    if (client && client->IsRunning()) return;
    if (client && client->wait_status() != 0) {
        throw std::runtime_error("a client run ended with " +
                                 velmar_sim::ChildProcess::DescribeEnd(client->wait_status()));
    }
    // One signal handler at a time: it waits for the modem's answer.
    log->Await(kAnswerTaken, done.service_requests);
    VelmarMessage request;
    const bool is_report = done.client_runs++ % 2 == 0;
    if (is_report) {
        request.mutable_modem_stat_message()->mutable_report_request();
    } else {
        request.mutable_extended_log_message()->mutable_request();
    }
    awaited.insert(ServiceRequest(request));
    client = phone->Run(velmar, is_report ? "--modemstat" : "--extendedlog", nullptr);
}

void SoakTraffic::RestartModem() {
    Settle();
    phone->modem().SetState(kOfflineStates[Random(std::size(kOfflineStates))]);
    log->Await(kStateChanged, ++state_changes);
    std::deque<VelmarMessage> unanswered;
    if (done.modem_restarts++ % 3 == 0) {
        // One of them may find the service waiting for a message; the other stays in the channel.
        for (int i = 0; i < 2; ++i) {
            unanswered.push_back(AskForProperty());
            Send(unanswered.back());
        }
        if (std::optional<ReceivedMessage> early = phone->modem().Receive(kSilence)) {
            if (early->bytes != AnswerOfProperty(unanswered.front()).SerializeAsString() ||
                phone->modem().Receive(kSilence)) {
                throw std::runtime_error("expected at most one answer while the modem is offline");
            }
            ++done.answers;
            unanswered.pop_front();
        }
    }
    GoOnline();
    for (const VelmarMessage& request : unanswered) Expect(AnswerOfProperty(request));
}

void SoakTraffic::LoseChannel() {
    Settle();
    if (Random(2) == 0) {
        phone->modem().SendEndOfFile();
    } else {
        phone->modem().HangUp();
    }
    log->Await(kChannelLost, ++done.channel_losses);
    if (!phone->modem().WaitForChannel(kPatience)) {
        throw std::runtime_error("expected the service to open the channel again");
    }
}

VelmarMessage SoakTraffic::AskForProperty() {
    VelmarMessage request = Request();
    request.mutable_property_message()->mutable_read_request()->set_name(
            "vendor.soak." + std::to_string(Random(kProperties)));
    return request;
}

VelmarMessage SoakTraffic::AnswerOfProperty(const VelmarMessage& request) const {
    const auto found = properties.find(request.property_message().read_request().name());
    const bool is_set = found != properties.end();
    VelmarMessage answer =
            AnswerTo(request, is_set ? velmar_message::SUCCESS : velmar_message::PROPERTY_FAILURE);
    answer.mutable_property_message()->mutable_read_response()->set_value(is_set ? found->second
                                                                                 : "");
    return answer;
}

void SoakTraffic::ReadProperty() {
    const VelmarMessage request = AskForProperty();
    Exchange(request, AnswerOfProperty(request));
}

void SoakTraffic::SetProperty() {
    std::string name = "vendor.soak." + std::to_string(Random(kProperties));
    if (Random(8) == 0) name = kRefusedProperty;
    std::string value(Random(velmar_sim::PhoneFolder::kMaxPropertyValue + 5), '\0');
    for (char& letter : value) letter = static_cast<char>('a' + Random(26));
    const bool is_taken =
            name != kRefusedProperty && value.size() <= velmar_sim::PhoneFolder::kMaxPropertyValue;
    if (is_taken) properties[name] = value;
    VelmarMessage request = Request();
    auto* write = request.mutable_property_message()->mutable_write_request();
    write->set_name(name);
    write->set_value(value);
    VelmarMessage answer = AnswerTo(
            request, is_taken ? velmar_message::SUCCESS : velmar_message::PROPERTY_FAILURE);
    answer.mutable_property_message()->mutable_write_response();
    Exchange(request, answer);
}

void SoakTraffic::ReportTemperatures() {
    VelmarMessage request = Request();
    auto* set = request.mutable_modem_temperature_message()->mutable_set_request();
    for (size_t i = Random(5); i > 0; --i) {
        auto* reading = set->add_sensors();
        reading->set_sensor(Random(8) == 0 ? std::numeric_limits<uint64_t>::max() : Random(100));
        reading->set_temperature(Random(8) == 0 ? std::numeric_limits<int64_t>::min()
                                                : static_cast<int64_t>(Random(200)) - 100);
        reading->set_update(Random(2) == 0);
        readings.push_back(std::to_string(reading->sensor()) + (reading->update() ? " 1 " : " 0 ") +
                           std::to_string(reading->temperature()) + "\n");
    }
    VelmarMessage answer = AnswerTo(request, velmar_message::SUCCESS);
    answer.clear_result();
    answer.mutable_modem_temperature_message()->mutable_set_response();
    Exchange(request, answer);
}

void SoakTraffic::SendChunk() {
    if (!transfer) {
        const size_t size = 1 + Random(kMaxFile);
        file_content = block.substr(Random(kBlockSize - size), size);
        transfer = std::make_unique<FilePart>();
        transfer->total = size;
        transfer->name = "file" + std::to_string(Random(3));
        transfer->directory = Random(2) == 0 ? velmar_message::FILE_DIRECTORY_MDS
                                             : velmar_message::FILE_DIRECTORY_REPLAY;
    }
    const size_t left = transfer->total - transfer->offset;
    const size_t size = std::min(left, 1 + Random(kMaxChunk));
    transfer->content = file_content.substr(transfer->offset, size);
    VelmarMessage message = Request();
    if (Random(2) == 0) {
        message.set_type(velmar_message::INDICATION);
        SetFilePart(*transfer, &message);
        Indicate(&message);
    } else {
        SetFilePart(*transfer, &message);
        Exchange(message, AnswerToFilePart(message, velmar_message::FILE_RESULT_DEFAULT));
    }
    transfer->offset += size;
    if (size == left) CheckStoredFile();
}

void SoakTraffic::RefuseChunk() {
    const bool is_begun = transfer != nullptr && transfer->offset > 0;
    FilePart part;
    part.total = kMaxFile;
    part.directory = velmar_message::FILE_DIRECTORY_RESERVED;
    if (is_begun) part = *transfer;
    // Not where the part before it ended.
    ++part.offset;
    VelmarMessage request = Request();
    SetFilePart(part, &request);
    Exchange(request,
             AnswerToFilePart(request, is_begun ? velmar_message::FILE_RESULT_BAD_OFFSET
                                                : velmar_message::FILE_RESULT_BAD_DIRECTORY));
    // One that is given up leaves its temporary file, which the next of that name begins anew.
    if (Random(4) == 0) transfer.reset();
}

void SoakTraffic::CheckStoredFile() {
    const std::unique_ptr<FilePart> file = std::move(transfer);
    // Its answer comes after all that came before it is done.
    ReadProperty();
    const bool is_mds = file->directory == velmar_message::FILE_DIRECTORY_MDS;
    const std::string path =
            std::string(is_mds ? velmar_sim::kMdsFiles : velmar_sim::kReplayFiles) + "/" +
            file->name;
    CheckText(path, file_content);
    if (phone->folder().Mode(path) != kStoredMode) {
        throw std::runtime_error(path + " has not the mode 0666");
    }
    if (phone->folder().Mode(std::string(velmar_sim::kUnfinishedFiles) + "/" + file->name)) {
        throw std::runtime_error("the temporary file of " + path + " is still there");
    }
    ++done.files;
    done.file_bytes += file_content.size();
}

void SoakTraffic::AppendExtendedLog() {
    if (extended_log_size > kMaxExtendedLog) {
        first_record = next_record;
        extended_log_size = 0;
    }
    const std::string record = Record(next_record++);
    extended_log_size += record.size() + kTimeStampSize;
    VelmarMessage message;
    auto* indication = message.mutable_extended_log_message()->mutable_indication();
    indication->set_name("soak");
    indication->set_data(record);
    Indicate(&message);
}

void SoakTraffic::LogLine() {
    VelmarMessage message;
    auto* indication = message.mutable_userspace_log_message()->mutable_indication();
    indication->set_text("soak " + std::to_string(log_lines));
    indication->set_level(LevelOfModemLine(log_lines));
    ++log_lines;
    Indicate(&message);
}

void SoakTraffic::ReportStatistics() {
    const std::string data = block.substr(Random(kBlockSize - kMaxRecordFill), 1 + Random(600));
    VelmarMessage message;
    auto* report = message.mutable_modem_stat_message()->mutable_report_indication();
    report->set_data(data);
    if (statistics.empty() || statistics.size() > kMaxStatistics) {
        statistics = data;
    } else if (Random(4) == 0) {
        // An offset of 0 writes over the start.
        report->set_offset(0);
        statistics.replace(0, data.size(), data);
    } else {
        report->set_offset(1 + static_cast<uint32_t>(Random(kMaxStatistics)));
        statistics += data;
    }
    Indicate(&message);
}

void SoakTraffic::SendWhatIsDropped() {
    const size_t size = Random(32) == 0 ? velmar_sim::kMaxMessageForPhone - 16 : Random(64);
    const std::string noise = block.substr(Random(kBlockSize - size), size);
    VelmarMessage message = Request();
    ++done.dropped;
    switch (Random(leaves_out_what_is_kept ? 6 : 7)) {
        case 0:
            return SendBytes(kBrokenRequest + noise);
        case 1:
            return SendBytes(kBrokenIndication + noise);
        case 2:
            // A response that nobody waits for.
            message.set_type(velmar_message::RESPONSE);
            message.set_token(std::numeric_limits<uint32_t>::max() - 1);
            return Send(message);
        case 3:
            message.mutable_file_message()->mutable_file_write_request()->set_data(noise);
            return Send(message);
        case 4:
            message.mutable_property_message()->mutable_write_response();
            return Send(message);
        case 5:
            message.mutable_property_message()->mutable_read_request()->set_name(kRefusedProperty);
            message.set_type(velmar_message::INDICATION);
            return Send(message);
        default:
            return SendBytes(kWithoutType + noise);
    }
}

void SoakTraffic::FinishRequests() {
    while (!awaited.empty()) OnServiceRequest(Receive());
    log->Await(kAnswerTaken, done.service_requests);
}

void SoakTraffic::Settle() {
    FinishRequests();
    if (!tokens.empty() && *tokens.rbegin() + 1 != tokens.size()) {
        throw std::runtime_error("the service left out a token");
    }
    for (; !radio_requests.empty(); radio_requests.pop_front()) CheckRadio();
    while (client && client->IsRunning()) std::this_thread::sleep_for(kPoll);
    ReadProperty();
    log->Await(kModemLine, log_lines);
    log->Check();
    CheckReadings();
    for (const auto& [name, value] : properties) {
        if (phone->folder().GetProperty(name) != value) {
            throw std::runtime_error("property " + name + " has not the value that was set last");
        }
    }
    if (!statistics.empty()) CheckText(kStatisticsFile, statistics);
    CheckExtendedLog();
    if (std::optional<ReceivedMessage> more = phone->modem().Receive(milliseconds(0))) {
        throw std::runtime_error("the service sent one message more: " +
                                 DescribeMessage(more->bytes));
    }
}

void SoakTraffic::CheckReadings() {
    const std::vector<std::string> expected = std::exchange(readings, {});
    const std::vector<std::string> actual = phone->thermal().TakeWrites();
    if (actual == expected) return;
    const auto differing =
            std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    throw std::runtime_error("the thermal node has got " + std::to_string(actual.size()) +
                             " readings, " + std::to_string(expected.size()) +
                             " were sent; the first difference is at " +
                             std::to_string(differing.first - expected.begin()));
}

void SoakTraffic::ExpectRadio(uint32_t request, const std::string& data) {
    radio_requests.emplace_back();
    radio_requests.back().set_request(request);
    radio_requests.back().set_data(data);
}

void SoakTraffic::CheckRadio() {
    const auto request = radio.Receive(kPatience);
    if (!request) throw std::runtime_error("a request has not reached the radio");
    const std::string difference = RadioDifference(radio_requests.front(), *request);
    if (!difference.empty()) throw std::runtime_error(difference);
}

void SoakTraffic::CheckText(const std::string& path, const std::string& expected) const {
    const std::string content = phone->folder().ReadFile(path).value_or("");
    if (content == expected) return;
    const auto [actual, wanted] =
            std::mismatch(content.begin(), content.end(), expected.begin(), expected.end());
    throw std::runtime_error(path + " has " + std::to_string(content.size()) + " bytes, expected " +
                             std::to_string(expected.size()) + "; the first difference is at " +
                             std::to_string(wanted - expected.begin()));
}

// Every record has its place; what stands between them is the time.
void SoakTraffic::CheckExtendedLog() const {
    const std::string content = phone->folder().ReadFile(kExtendedLog).value_or("");
    size_t at = 0;
    for (uint64_t number = first_record; number < next_record; ++number) {
        const std::string record = Record(number);
        const bool is_there = content.compare(at, record.size(), record) == 0;
        at += record.size() + kTimeStampSize;
        if (is_there && at <= content.size() && content[at - 1] == '\n') continue;
        throw std::runtime_error(std::string(kExtendedLog) + " lacks record " +
                                 std::to_string(number) + " or its time");
    }
    if (at != content.size()) {
        throw std::runtime_error(std::string(kExtendedLog) + " has " +
                                 std::to_string(content.size()) + " bytes, expected " +
                                 std::to_string(at));
    }
}

}  // namespace velmar_bench
