// Recording: the server's events written as the packets a capture on the
// wire would hold, through libpcap's dump interface.
//
// Each packet gets an Ethernet header with zero addresses (what a capture on
// Linux's loopback shows), an IPv4 header and a TCP or UDP header with correct
// checksums. A TCP connection is a handshake at Open, one segment per request
// and per reply segment as the server sent it, and FINs at Close in the order
// the two ends closed. Every packet is flushed at once, so a simulator that is
// killed still leaves a capture that opens.
#include <arpa/inet.h>
#include <pcap/pcap.h>
#include <sys/time.h>

#include <cstring>
#include <map>
#include <stdexcept>
#include <vector>

#include "capture.hpp"

namespace kplc::sim {

namespace {

constexpr uint8_t kFin = 0x01, kSyn = 0x02, kPsh = 0x08, kAck = 0x10;
constexpr std::size_t kSnapLength = 262144;

void put16(std::vector<uint8_t> &b, std::size_t at, uint16_t v) {
    b[at] = static_cast<uint8_t>(v >> 8);
    b[at + 1] = static_cast<uint8_t>(v);
}
void put32(std::vector<uint8_t> &b, std::size_t at, uint32_t v) {
    put16(b, at, static_cast<uint16_t>(v >> 16));
    put16(b, at + 2, static_cast<uint16_t>(v));
}

// The Internet checksum of `bytes`, starting from `sum`.
uint16_t checksum(const uint8_t *bytes, std::size_t n, uint32_t sum = 0) {
    for (std::size_t i = 0; i + 1 < n; i += 2) sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    if (n % 2 != 0) sum += static_cast<uint32_t>(bytes[n - 1] << 8);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

}  // namespace

struct Recorder::Data {
    pcap_t *pcap = nullptr;
    pcap_dumper_t *dump = nullptr;
    uint16_t ip_id = 0;
    struct Flow {
        uint32_t client_next = 0;  // next sequence number of each end
        uint32_t server_next = 0;
    };
    std::map<uint64_t, Flow> flows;

    void write(const sockaddr_in &from, const sockaddr_in &to, bool udp, uint8_t flags, uint32_t seq, uint32_t ack,
               std::span<const uint8_t> payload) {
        const std::size_t l4 = udp ? 8 : 20;
        const std::size_t ip_len = 20 + l4 + payload.size();
        std::vector<uint8_t> p(14 + ip_len, 0);
        put16(p, 12, 0x0800);
        const std::size_t ip = 14;
        p[ip] = 0x45;
        put16(p, ip + 2, static_cast<uint16_t>(ip_len));
        put16(p, ip + 4, ip_id++);
        put16(p, ip + 6, 0x4000);  // don't fragment
        p[ip + 8] = 64;
        p[ip + 9] = udp ? 17 : 6;
        std::memcpy(&p[ip + 12], &from.sin_addr, 4);
        std::memcpy(&p[ip + 16], &to.sin_addr, 4);
        put16(p, ip + 10, checksum(&p[ip], 20));
        const std::size_t t = ip + 20;
        std::memcpy(&p[t], &from.sin_port, 2);
        std::memcpy(&p[t + 2], &to.sin_port, 2);
        if (udp) {
            put16(p, t + 4, static_cast<uint16_t>(8 + payload.size()));
        } else {
            put32(p, t + 4, seq);
            put32(p, t + 8, ack);
            p[t + 12] = 0x50;  // 20-byte header
            p[t + 13] = flags;
            put16(p, t + 14, 65535);
        }
        if (!payload.empty()) std::memcpy(&p[t + l4], payload.data(), payload.size());
        // Pseudo-header: addresses, protocol, length.
        uint32_t sum = 0;
        for (std::size_t i = 12; i < 20; i += 2) sum += static_cast<uint32_t>(p[ip + i] << 8 | p[ip + i + 1]);
        sum += p[ip + 9];
        sum += static_cast<uint32_t>(l4 + payload.size());
        uint16_t c = checksum(&p[t], l4 + payload.size(), sum);
        if (udp && c == 0) c = 0xFFFF;
        put16(p, t + (udp ? 6 : 16), c);

        pcap_pkthdr h{};
        gettimeofday(&h.ts, nullptr);
        h.caplen = h.len = static_cast<bpf_u_int32>(p.size());
        pcap_dump(reinterpret_cast<u_char *>(dump), &h, p.data());
        pcap_dump_flush(dump);
    }
};

Recorder::Recorder(const std::string &path) : d_(std::make_unique<Data>()) {
    d_->pcap = pcap_open_dead(DLT_EN10MB, static_cast<int>(kSnapLength));
    if (d_->pcap == nullptr) throw std::runtime_error("libpcap: cannot set up a capture");
    d_->dump = pcap_dump_open(d_->pcap, path.c_str());
    if (d_->dump == nullptr) {
        const std::string error = pcap_geterr(d_->pcap);
        pcap_close(d_->pcap);
        throw std::runtime_error("cannot create capture " + path + ": " + error);
    }
}

Recorder::~Recorder() {
    pcap_dump_close(d_->dump);
    pcap_close(d_->pcap);
}

void Recorder::tap(const Event &e) {
    Data &d = *d_;
    const sockaddr_in &client = e.client;
    const sockaddr_in &server = e.local;
    if (e.udp) {
        if (e.kind == Event::Kind::Request) d.write(client, server, true, 0, 0, 0, e.bytes);
        if (e.kind == Event::Kind::Reply) d.write(server, client, true, 0, 0, 0, e.bytes);
        return;
    }
    auto &f = d.flows[e.connection];
    const auto size = static_cast<uint32_t>(e.bytes.size());
    switch (e.kind) {
        case Event::Kind::Open: {
            // Initial sequence numbers that differ per connection and are easy to read.
            f.client_next = static_cast<uint32_t>(e.connection) * 0x01000000U;
            f.server_next = 0x80000000U + static_cast<uint32_t>(e.connection) * 0x00010000U;
            d.write(client, server, false, kSyn, f.client_next++, 0, {});
            d.write(server, client, false, kSyn | kAck, f.server_next++, f.client_next, {});
            d.write(client, server, false, kAck, f.client_next, f.server_next, {});
            break;
        }
        case Event::Kind::Request:
            d.write(client, server, false, kPsh | kAck, f.client_next, f.server_next, e.bytes);
            f.client_next += size;
            break;
        case Event::Kind::Reply:
            d.write(server, client, false, kPsh | kAck, f.server_next, f.client_next, e.bytes);
            f.server_next += size;
            break;
        case Event::Kind::Close:
            if (e.by_client) {
                d.write(client, server, false, kFin | kAck, f.client_next++, f.server_next, {});
                d.write(server, client, false, kFin | kAck, f.server_next++, f.client_next, {});
                d.write(client, server, false, kAck, f.client_next, f.server_next, {});
            } else {
                d.write(server, client, false, kFin | kAck, f.server_next++, f.client_next, {});
                d.write(client, server, false, kFin | kAck, f.client_next++, f.server_next, {});
                d.write(server, client, false, kAck, f.server_next, f.client_next, {});
            }
            d.flows.erase(e.connection);
            break;
    }
}

}  // namespace kplc::sim
