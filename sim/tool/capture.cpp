#include "sim/tool/capture.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "sim/tool/bad_input.h"
#include "sim/tool/interruption.h"
#include "sim/tool/message_text.h"

namespace velmar_sim {

namespace {

constexpr uint32_t kPhoneAddress = 0x0a000001;
constexpr uint32_t kModemAddress = 0x0a000002;
constexpr uint16_t kPort = 50505;
constexpr uint8_t kTimeToLive = 64;
constexpr unsigned int kWordsOfHeader = sizeof(iphdr) / 4;
constexpr int kMaxPacket = 262144;
constexpr int64_t kMicrosecondsPerSecond = 1000000;

// How a capture begins: of either byte order, with nanoseconds, of the format's next generation.
constexpr std::array<uint32_t, 5> kMagics = {0xa1b2c3d4, 0xd4c3b2a1, 0xa1b23c4d, 0x4d3cb2a1,
                                             0x0a0d0d0a};

struct Headers {
    iphdr ip;
    udphdr udp;
};
constexpr size_t kMaxMessage = IP_MAXPACKET - sizeof(Headers);

uint16_t ChecksumOf(const iphdr& header) {
    std::array<uint16_t, sizeof(header) / sizeof(uint16_t)> words = {};
    memcpy(words.data(), &header, sizeof(header));
    uint32_t sum = 0;
    for (const uint16_t word : words) sum += word;
    while (sum > UINT16_MAX) sum = (sum >> 16) + (sum & UINT16_MAX);
    return static_cast<uint16_t>(~sum);
}

Headers HeadersFor(size_t size, bool is_sent) {
    Headers headers = {};
    headers.ip.version = IPVERSION;
    headers.ip.ihl = kWordsOfHeader;
    headers.ip.tot_len = htons(static_cast<uint16_t>(sizeof(Headers) + size));
    headers.ip.ttl = kTimeToLive;
    headers.ip.protocol = IPPROTO_UDP;
    headers.ip.saddr = htonl(is_sent ? kModemAddress : kPhoneAddress);
    headers.ip.daddr = htonl(is_sent ? kPhoneAddress : kModemAddress);
    headers.ip.check = ChecksumOf(headers.ip);
    headers.udp.source = headers.udp.dest = htons(kPort);
    headers.udp.len = htons(static_cast<uint16_t>(sizeof(udphdr) + size));
    return headers;
}

// The message in a packet. `place` stands before what is said of another packet.
Event MessageIn(const pcap_pkthdr& packet, const u_char* data, const std::string& place) {
    const auto require = [&place](bool holds, const char* expected) {
        if (!holds) throw BadInput(place + expected);
    };
    Headers headers = {};
    memcpy(&headers, data, std::min<size_t>(packet.caplen, sizeof(headers)));
    const iphdr& ip = headers.ip;
    const uint32_t source = ntohl(ip.saddr);
    require(packet.caplen > sizeof(headers) && ip.version == IPVERSION &&
                    ip.ihl == kWordsOfHeader && ip.protocol == IPPROTO_UDP &&
                    (source == kModemAddress || source == kPhoneAddress),
            "UDP from 10.0.0.2, the modem, or 10.0.0.1, the phone");
    require((ntohs(ip.frag_off) & (IP_MF | IP_OFFMASK)) == 0, "a whole datagram, found a fragment");
    require(headers.udp.source == htons(kPort) && headers.udp.dest == htons(kPort),
            "UDP between ports 50505");
    const size_t end = sizeof(ip) + ntohs(headers.udp.len);
    require(end > sizeof(headers) && end <= ntohs(ip.tot_len) && end <= packet.len,
            "a UDP length that fits the packet");
    require(packet.ts.tv_sec >= 0 && packet.ts.tv_sec <= UINT32_MAX && packet.ts.tv_usec >= 0 &&
                    packet.ts.tv_usec < kMicrosecondsPerSecond,
            "a time of 32 bits");
    Event event;
    event.kind = source == kModemAddress ? Event::Kind::kSent : Event::Kind::kReceived;
    // There may be padding behind the datagram.
    event.text.assign(data + sizeof(headers), data + std::min<size_t>(packet.caplen, end));
    // A message that fits no datagram is as long as its packet says.
    const size_t whole = end == IP_MAXPACKET ? packet.len : end;
    if (whole > sizeof(headers) + event.text.size()) {
        event.total = static_cast<int64_t>(whole - sizeof(headers));
    }
    event.since_boot =
            std::chrono::seconds(packet.ts.tv_sec) + std::chrono::microseconds(packet.ts.tv_usec);
    return event;
}

}  // namespace

CaptureWriter::CaptureWriter(const std::string& path)
    : file_path(path),
      format(pcap_open_dead(DLT_RAW, kMaxPacket), pcap_close),
      file(nullptr, pcap_dump_close) {
    FILE* opened = fopen(path.c_str(), "we");
    if (opened == nullptr) ThrowUnwritable(path, errno);
    is_regular = std::filesystem::is_regular_file(path);
    file.reset(pcap_dump_fopen(format.get(), opened));
    Flush();
}

void CaptureWriter::Write(const Event& event) {
    const bool is_sent = event.kind == Event::Kind::kSent;
    if (error != 0 || (!is_sent && event.kind != Event::Kind::kReceived)) return;
    const size_t kept = std::min(event.text.size(), kMaxMessage);
    const Headers headers = HeadersFor(kept, is_sent);
    std::string data(reinterpret_cast<const char*>(&headers), sizeof(headers));
    data.append(event.text, 0, kept);
    pcap_pkthdr packet = {};
    packet.ts.tv_sec = event.since_boot.count() / kMicrosecondsPerSecond;
    packet.ts.tv_usec = event.since_boot.count() % kMicrosecondsPerSecond;
    packet.caplen = static_cast<bpf_u_int32>(data.size());
    packet.len = static_cast<bpf_u_int32>(sizeof(headers) + event.text.size());
    // A signal would cut a long one.
    const SignalDelay delay(is_regular);
    pcap_dump(reinterpret_cast<u_char*>(file.get()), &packet,
              reinterpret_cast<const u_char*>(data.data()));
    Flush();
}

// So that a killed program leaves a capture that is complete up to its last message.
void CaptureWriter::Flush() {
    if (pcap_dump_flush(file.get()) != 0) error = errno;
}

void CaptureWriter::Finish() {
    if (error != 0) ThrowUnwritable(file_path, error);
}

bool IsCapture(FILE* file) {
    std::array<unsigned char, sizeof(uint32_t)> bytes = {};
    // The C library takes back all of them, not only the one that the standard promises.
    for (size_t left = fread(bytes.data(), 1, bytes.size(), file); left > 0; --left) {
        static_cast<void>(ungetc(bytes[left - 1], file));
    }
    uint32_t magic = 0;
    memcpy(&magic, bytes.data(), sizeof(magic));
    return std::find(kMagics.begin(), kMagics.end(), magic) != kMagics.end();
}

void ReadCapture(const std::string& path, InputFile file, const TraceReader& reader) {
    std::array<char, PCAP_ERRBUF_SIZE> why = {};
    const std::unique_ptr<pcap_t, void (*)(pcap_t*)> capture(
            pcap_fopen_offline(file.get(), why.data()), pcap_close);
    if (capture == nullptr) throw BadInput(path + ": expected a capture: " + why.data());
    // The capture closes it.
    static_cast<void>(file.release());
    const int link_type = pcap_datalink(capture.get());
    if (link_type != DLT_RAW) {
        const char* name = pcap_datalink_val_to_name(link_type);
        throw BadInput(path + ": expected a capture of the link type RAW, found " +
                       (name == nullptr ? std::to_string(link_type) : name));
    }
    pcap_pkthdr* packet = nullptr;
    const u_char* data = nullptr;
    for (int number = 1;; ++number) {
        const std::string place = path + ":" + std::to_string(number) + ": expected ";
        const int result = pcap_next_ex(capture.get(), &packet, &data);
        if (result == PCAP_ERROR_BREAK) return;
        if (result != 1) throw BadInput(place + "a packet: " + pcap_geterr(capture.get()));
        const Event event = MessageIn(*packet, data, place);
        if (event.total > 0) {
            Event cut = event;
            cut.kind = Event::Kind::kText;
            cut.text = "of a message of " + CountOf(event.total, "byte") + " these were captured:";
            reader(cut, number);
        }
        reader(event, number);
    }
}

}  // namespace velmar_sim
