// Replay: the PLC's side of a capture, served again.
//
// Reading: every packet of the capture is taken apart down to its TCP or UDP
// payload (Ethernet, Linux cooked v1/v2, raw IP and BSD loopback link layers;
// IPv4). TCP payloads are put back in stream order per direction: a segment
// that starts beyond the next expected byte waits, bytes already delivered
// (retransmissions, overlapping segments) are cut off, and a FIN counts once
// every byte before it has arrived. The client is the side that sent the SYN,
// or, for a connection whose start the capture missed, the side whose first
// payload is a request frame. The client's stream is cut into request frames
// by their data_len; everything the PLC sends until the next request is that
// request's answer, segment by segment with the time each arrived.
//
// Serving: a live request is compared with the recorded ones with its
// sequence number (bytes 8-9) left out. The first unused recorded request
// that equals it is taken, so a session that reads the same tag before and
// after a write gets both recorded values in order; once every equal one has
// been used, the last of them answers again (a poll that runs longer than the
// recording). The reply goes out with the live request's sequence number, as a
// PLC echoes it.
#include <arpa/inet.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "capture.hpp"
#include "format/wire.hpp"
#include "plc.hpp"

namespace kplc::sim {

namespace {

constexpr std::size_t kHeader = wire::kHeaderSize;

uint32_t be32(const uint8_t *p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }
uint16_t be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

// The table's names are literals, so the view's data is a C string.
const char *command_name(uint16_t code) {
    const wire::CommandRow *row = wire::command_row(code);
    return row != nullptr ? row->name.data() : "unknown command";
}

// Whether the 8 bytes at `p` are a data_len and its complement.
bool complement_ok(const uint8_t *p) { return wire::complement_holds({p, wire::kSequenceOffset}); }

// Whether `bytes` starts with the header of a request the driver sends: a
// data_len that covers at least the command code.
bool looks_like_request(std::span<const uint8_t> bytes) {
    if (bytes.size() < kHeader || !wire::complement_holds(bytes)) return false;
    const uint32_t data_len = *wire::data_len_of(bytes);
    return wire::frame_length(data_len) >= kHeader && data_len <= kMaxRequestDataLen &&
           wire::is_command(*wire::command_of(bytes));
}

double seconds(const timeval &tv) { return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6; }

unsigned to_ms(double s) { return s <= 0 ? 0U : static_cast<unsigned>(s * 1000.0 + 0.5); }

std::string hex(std::span<const uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out += ' ';
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 15];
    }
    return out;
}

struct Segment {
    std::vector<uint8_t> bytes;
    double time = 0;
};

// One recorded request and what the PLC did about it.
struct Exchange {
    std::vector<uint8_t> request;
    double time = 0;                // when the request was complete
    std::vector<Segment> reply;     // what the PLC sent until the next request
    bool closed = false;            // then the PLC closed (or reset) the connection
    double closed_time = 0;
    bool used = false;
    std::size_t number = 0;         // counts from 1 in capture order
};

struct Endpoint {
    uint32_t addr = 0;
    uint16_t port = 0;
    auto operator<=>(const Endpoint &) const = default;
};

std::string text(const Endpoint &e) {
    char buf[INET_ADDRSTRLEN] = {};
    const in_addr a{htonl(e.addr)};
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return std::string(buf) + ":" + std::to_string(e.port);
}

// One direction of a TCP connection, put back in order.
struct Direction {
    bool started = false;
    uint32_t next = 0;                                   // sequence number of the next byte to deliver
    std::map<uint32_t, std::vector<uint8_t>> waiting;    // segments that arrived early, by sequence number
    std::optional<uint32_t> fin;                         // sequence number of the FIN
    bool finished = false;
};

int32_t diff(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b); }

struct Connection {
    Endpoint client, server;
    bool client_known = false;
    Direction dir[2];            // 0: client to PLC, 1: PLC to client
    std::vector<uint8_t> input;  // client bytes not yet framed
    std::optional<std::size_t> current;  // exchange the PLC's bytes belong to
    bool broken = false;                  // the client's stream stopped framing
    bool done = false;                    // both ends closed or reset
};

}  // namespace

struct Replay::Data {
    std::vector<Exchange> exchanges;
    std::size_t tcp_connections = 0;
    std::size_t udp_exchanges = 0;
    std::size_t matched = 0;
    std::size_t mismatched = 0;
    std::size_t live = 0;
    std::size_t cursor = 0;  // exchanges before it are taken

    // TCP connections by their two endpoints (lower one first); a later
    // connection on the same endpoints replaces a finished one.
    std::map<std::pair<Endpoint, Endpoint>, Connection> tcp;
    // UDP: the exchange the PLC's datagrams to a client belong to.
    std::map<std::pair<Endpoint, Endpoint>, std::size_t> udp_current;

    void add_request(std::span<const uint8_t> request, double time, std::optional<std::size_t> &current) {
        Exchange e;
        e.request.assign(request.begin(), request.end());
        e.time = time;
        e.number = exchanges.size() + 1;
        exchanges.push_back(std::move(e));
        current = exchanges.size() - 1;
    }

    void deliver(Connection &c, int d, std::span<const uint8_t> bytes, double time) {
        if (bytes.empty()) return;
        if (d == 1) {
            if (c.current) exchanges[*c.current].reply.push_back({{bytes.begin(), bytes.end()}, time});
            return;
        }
        // What the client sends after the PLC closed its end never reaches
        // the PLC's application: it is no request to answer again.
        if (c.broken || c.dir[1].finished) return;
        c.input.insert(c.input.end(), bytes.begin(), bytes.end());
        while (c.input.size() >= wire::kSequenceOffset) {
            const uint32_t data_len = *wire::data_len_of(c.input);
            if (!complement_ok(c.input.data()) || data_len > kMaxRequestDataLen) {
                // No frame boundary can be found after this; the PLC closes
                // such a connection.
                std::fprintf(stderr, "kplc-sim: replay: %s: the client's stream stops framing, rest ignored\n",
                             text(c.client).c_str());
                c.broken = true;
                return;
            }
            const auto size = static_cast<std::size_t>(wire::frame_length(data_len));
            if (c.input.size() < size) return;
            add_request(std::span<const uint8_t>(c.input).first(size), time, c.current);
            c.input.erase(c.input.begin(), c.input.begin() + static_cast<std::ptrdiff_t>(size));
        }
    }

    void finish(Connection &c, int d, double time) {
        Direction &dir = c.dir[d];
        if (dir.finished) return;
        dir.finished = true;
        // The PLC closing first ends its last answer; a close that follows
        // the client's own is only the end of the conversation.
        if (d == 1 && !c.dir[0].finished && c.current) {
            exchanges[*c.current].closed = true;
            exchanges[*c.current].closed_time = time;
        }
        c.done = c.dir[0].finished && c.dir[1].finished;
    }

    // Delivers what is now in order in direction d, then the FIN when its turn has come.
    void drain(Connection &c, int d, double time) {
        Direction &dir = c.dir[d];
        for (auto it = dir.waiting.begin(); it != dir.waiting.end();) {
            const int32_t ahead = diff(it->first, dir.next);
            if (ahead > 0) {
                ++it;
                continue;
            }
            const std::size_t old = static_cast<std::size_t>(-ahead);
            if (old < it->second.size()) {
                deliver(c, d, std::span<const uint8_t>(it->second).subspan(old), time);
                dir.next += static_cast<uint32_t>(it->second.size() - old);
            }
            dir.waiting.erase(it);
            it = dir.waiting.begin();
        }
        if (dir.fin && diff(dir.next, *dir.fin) >= 0) finish(c, d, time);
    }

    void tcp_packet(const Endpoint &src, const Endpoint &dst, const uint8_t *seg, std::size_t len, double time) {
        if (len < 20) return;
        const std::size_t header = std::size_t{static_cast<uint8_t>(seg[12] >> 4)} * 4;
        if (header < 20 || header > len) return;
        const uint32_t seq = be32(seg + 4);
        const uint8_t flags = seg[13];
        const bool syn = (flags & 0x02) != 0, ack = (flags & 0x10) != 0, fin = (flags & 0x01) != 0,
                   rst = (flags & 0x04) != 0;
        const std::span<const uint8_t> payload(seg + header, len - header);

        const auto key = src < dst ? std::pair(src, dst) : std::pair(dst, src);
        auto it = tcp.find(key);
        if (syn && !ack) {
            // A new connection (also on endpoints a finished one used).
            if (it != tcp.end() && !it->second.done && it->second.client == src &&
                it->second.dir[0].started && it->second.dir[0].next == seq + 1) {
                return;  // the SYN again
            }
            Connection fresh;
            fresh.client = src;
            fresh.server = dst;
            fresh.client_known = true;
            it = tcp.insert_or_assign(key, std::move(fresh)).first;
            ++tcp_connections;
        } else if (it == tcp.end()) {
            // The capture began inside this connection: take the side that
            // sends a request frame for the client, or wait for one.
            if (!looks_like_request(payload)) return;
            Connection joined;
            joined.client = src;
            joined.server = dst;
            joined.client_known = true;
            it = tcp.emplace(key, std::move(joined)).first;
            ++tcp_connections;
        }
        Connection &c = it->second;
        const int d = src == c.client ? 0 : 1;
        Direction &dir = c.dir[d];
        if (rst) {
            if (c.current && d == 1 && !c.dir[0].finished) {
                exchanges[*c.current].closed = true;
                exchanges[*c.current].closed_time = time;
            }
            c.dir[0].finished = c.dir[1].finished = c.done = true;
            return;
        }
        if (!dir.started) {
            dir.started = true;
            dir.next = syn ? seq + 1 : seq;
        }
        const uint32_t start = syn ? seq + 1 : seq;
        if (!payload.empty() && diff(start + static_cast<uint32_t>(payload.size()), dir.next) > 0) {
            auto &slot = dir.waiting[start];
            if (payload.size() > slot.size()) slot.assign(payload.begin(), payload.end());
        }
        if (fin) dir.fin = start + static_cast<uint32_t>(payload.size());
        drain(c, d, time);
    }

    void udp_packet(const Endpoint &src, const Endpoint &dst, std::span<const uint8_t> payload, double time) {
        const uint64_t size = looks_like_request(payload) ? wire::frame_length(*wire::data_len_of(payload)) : 0;
        if (size != 0 && size <= payload.size()) {
            std::optional<std::size_t> current;
            add_request(payload.first(static_cast<std::size_t>(size)), time, current);
            udp_current[{src, dst}] = *current;
            ++udp_exchanges;
            return;
        }
        const auto it = udp_current.find({dst, src});
        if (it != udp_current.end()) exchanges[it->second].reply.push_back({{payload.begin(), payload.end()}, time});
    }

    // Takes one captured packet apart from its link layer down.
    void packet(int link, const pcap_pkthdr &h, const uint8_t *p) {
        std::size_t n = h.caplen;
        std::size_t off = 0;
        uint16_t type = 0x0800;
        switch (link) {
            case DLT_EN10MB:
                if (n < 14) return;
                type = be16(p + 12);
                off = 14;
                while ((type == 0x8100 || type == 0x88A8) && n >= off + 4) {
                    type = be16(p + off + 2);
                    off += 4;
                }
                break;
            case DLT_LINUX_SLL:
                if (n < 16) return;
                type = be16(p + 14);
                off = 16;
                break;
#ifdef DLT_LINUX_SLL2
            case DLT_LINUX_SLL2:
                if (n < 20) return;
                type = be16(p);
                off = 20;
                break;
#endif
            case DLT_NULL:
            case DLT_LOOP: {
                if (n < 4) return;
                uint32_t family = 0;
                std::memcpy(&family, p, 4);
                if (family != 2 && family != htonl(2)) return;
                off = 4;
                break;
            }
            case DLT_RAW:
#ifdef DLT_IPV4
            case DLT_IPV4:
#endif
                break;
            default:
                return;
        }
        if (type != 0x0800 || n < off + 20) return;
        const uint8_t *ip = p + off;
        if ((ip[0] >> 4) != 4) return;
        const std::size_t ihl = std::size_t{static_cast<uint8_t>(ip[0] & 15)} * 4;
        const std::size_t total = be16(ip + 2);
        if (ihl < 20 || total < ihl || off + total > n) return;
        if ((be16(ip + 6) & 0x3FFF) != 0) return;  // a fragment: not reassembled
        const Endpoint src{be32(ip + 12), be16(ip + ihl)};
        const Endpoint dst{be32(ip + 16), be16(ip + ihl + 2)};
        const uint8_t *l4 = ip + ihl;
        const std::size_t l4len = total - ihl;
        const double time = seconds(h.ts);
        if (ip[9] == 6) {
            tcp_packet(src, dst, l4, l4len, time);
        } else if (ip[9] == 17 && l4len >= 8) {
            udp_packet(src, dst, std::span<const uint8_t>(l4 + 8, l4len - 8), time);
        }
    }
};

Replay::Replay(const std::string &path, ReplayOptions options) : d_(std::make_unique<Data>()), options_(options) {
    char error[PCAP_ERRBUF_SIZE] = {};
    pcap_t *pcap = pcap_open_offline(path.c_str(), error);
    if (pcap == nullptr) throw std::runtime_error("cannot read capture " + path + ": " + error);
    const int link = pcap_datalink(pcap);
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    int got = 0;
    while ((got = pcap_next_ex(pcap, &header, &data)) == 1) d_->packet(link, *header, data);
    std::string failure = got == PCAP_ERROR ? pcap_geterr(pcap) : "";
    pcap_close(pcap);
    // A capture cut off while being written (the panel's tcpdump killed)
    // still replays up to its last whole packet.
    if (!failure.empty()) std::fprintf(stderr, "kplc-sim: replay: %s: %s; using what came before\n", path.c_str(), failure.c_str());
    d_->tcp.clear();
    d_->udp_current.clear();
    if (d_->exchanges.empty()) throw std::runtime_error("no request of the PLC protocol in capture " + path);
}

Replay::~Replay() = default;

std::size_t Replay::exchanges() const { return d_->exchanges.size(); }
std::size_t Replay::tcp_connections() const { return d_->tcp_connections; }
std::size_t Replay::udp_exchanges() const { return d_->udp_exchanges; }
std::size_t Replay::matched() const { return d_->matched; }
std::size_t Replay::mismatched() const { return d_->mismatched; }

namespace {

constexpr bool is_sequence_byte(std::size_t i) { return i == wire::kSequenceOffset || i == wire::kSequenceOffset + 1; }

// Requests compared without their sequence number.
bool same_request(std::span<const uint8_t> a, std::span<const uint8_t> b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (!is_sequence_byte(i) && a[i] != b[i]) return false;
    }
    return true;
}

// Bytes that differ, the sequence number left out; bytes only one side has count too.
std::size_t distance(std::span<const uint8_t> a, std::span<const uint8_t> b) {
    std::size_t d = a.size() > b.size() ? a.size() - b.size() : b.size() - a.size();
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        if (!is_sequence_byte(i) && a[i] != b[i]) ++d;
    }
    return d;
}

// Logs a live request that equals no recorded one, beside the nearest
// recorded request of the same command with the bytes that differ: bytes that
// differ between a read and a resolve would say nothing.
void report_mismatch(std::size_t live, std::span<const uint8_t> request, const std::vector<Exchange> &all,
                     std::size_t cursor) {
    const uint16_t command = wire::command_of(request).value_or(0);
    const auto command_of = [](const Exchange &e) { return wire::command_of(e.request).value_or(0); };
    std::optional<std::size_t> best;
    std::size_t best_distance = SIZE_MAX;
    for (std::size_t k = 0; k < all.size(); ++k) {
        // From the cursor on first, so that a tie goes to the exchange due next.
        const std::size_t i = (cursor + k) % all.size();
        if (command_of(all[i]) != command) continue;
        const std::size_t dist = distance(all[i].request, request);
        if (dist < best_distance) {
            best = i;
            best_distance = dist;
        }
    }
    if (!best) {
        std::fprintf(stderr,
                     "kplc-sim: replay: request %zu (%s, %zu bytes) matches no recorded request; the capture holds no "
                     "%s request\n",
                     live, command_name(command), request.size(), command_name(command));
        return;
    }
    const Exchange &near = all[*best];
    std::fprintf(stderr,
                 "kplc-sim: replay: request %zu (%s, %zu bytes) matches no recorded request; nearest %s request is "
                 "recorded request %zu (%zu bytes), %zu byte%s\n",
                 live, command_name(command), request.size(), command_name(command), near.number, near.request.size(),
                 best_distance, best_distance == 1 ? " differs" : "s differ");
    // The differing bytes, as runs of offsets.
    const std::size_t common = std::min(near.request.size(), request.size());
    for (std::size_t i = 0; i < common;) {
        if (is_sequence_byte(i) || near.request[i] == request[i]) {
            ++i;
            continue;
        }
        std::size_t end = i;
        while (end < common && end != wire::kSequenceOffset && near.request[end] != request[end]) ++end;
        std::fprintf(stderr, "kplc-sim: replay:   offset %zu: live %s, recorded %s\n", i,
                     hex(request.subspan(i, end - i)).c_str(),
                     hex(std::span<const uint8_t>(near.request).subspan(i, end - i)).c_str());
        i = end;
    }
    if (near.request.size() != request.size()) {
        const bool live_longer = request.size() > near.request.size();
        const auto &longer = live_longer ? request : std::span<const uint8_t>(near.request);
        std::fprintf(stderr, "kplc-sim: replay:   offset %zu: only the %s request goes on: %s\n", common,
                     live_longer ? "live" : "recorded", hex(longer.subspan(common)).c_str());
    }
}

}  // namespace

std::optional<Answer> Replay::respond(std::span<const uint8_t> request) {
    Data &d = *d_;
    const std::size_t live = ++d.live;
    auto &all = d.exchanges;
    std::optional<std::size_t> pick;
    // The next unused equal request from the cursor on, then an unused one
    // before it, then the last equal one again.
    for (std::size_t pass = 0; pass < 2 && !pick; ++pass) {
        const std::size_t from = pass == 0 ? d.cursor : 0;
        const std::size_t to = pass == 0 ? all.size() : d.cursor;
        for (std::size_t i = from; i < to && !pick; ++i) {
            if (!all[i].used && same_request(all[i].request, request)) pick = i;
        }
    }
    for (std::size_t i = all.size(); i-- > 0 && !pick;) {
        if (same_request(all[i].request, request)) pick = i;
    }

    if (!pick) {
        ++d.mismatched;
        report_mismatch(live, request, all, d.cursor);
        std::fflush(stderr);
        switch (options_.on_mismatch) {
            case OnMismatch::Model: return std::nullopt;
            case OnMismatch::Silent: return Answer{Answer::Kind::Silence, {}, 0, 0, 0, {}, false};
            case OnMismatch::Close: break;
        }
        return Answer{Answer::Kind::Close, {}, 0, 0, 0, {}, false};
    }

    ++d.matched;
    Exchange &e = all[*pick];
    if (!e.used) {
        e.used = true;
        while (d.cursor < all.size() && all[d.cursor].used) ++d.cursor;
    }
    Answer answer;
    if (e.reply.empty()) {
        answer.kind = e.closed ? Answer::Kind::Close : Answer::Kind::Silence;
        if (options_.timing && e.closed) answer.delay_ms = to_ms(e.closed_time - e.time);
        return answer;
    }
    for (const auto &s : e.reply) answer.bytes.insert(answer.bytes.end(), s.bytes.begin(), s.bytes.end());
    // A reply with a well-formed header carries the live request's sequence
    // number; bytes that are no frame (a garbled reply) go out as recorded.
    if (wire::complement_holds(answer.bytes) && wire::sequence_of(answer.bytes) && wire::sequence_of(request)) {
        answer.bytes[wire::kSequenceOffset] = request[wire::kSequenceOffset];
        answer.bytes[wire::kSequenceOffset + 1] = request[wire::kSequenceOffset + 1];
    }
    if (options_.timing) answer.delay_ms = to_ms(e.reply.front().time - e.time);
    // A reply that came in pieces is sent in two, cut where the longest pause was.
    std::size_t at = 0;
    double longest = -1;
    std::size_t sent = 0;
    for (std::size_t i = 0; i + 1 < e.reply.size(); ++i) {
        sent += e.reply[i].bytes.size();
        const double gap = e.reply[i + 1].time - e.reply[i].time;
        if (gap > longest) {
            longest = gap;
            at = sent;
        }
    }
    if (at > 0) {
        answer.split_at = at;
        answer.pause_ms = to_ms(longest);
    }
    answer.close = e.closed;
    return answer;
}

}  // namespace kplc::sim
