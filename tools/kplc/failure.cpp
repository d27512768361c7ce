#include "failure.hpp"

#include <cstdio>
#include <cstring>
#include <optional>

#include "json.hpp"
#include "text.hpp"

namespace kplc::cli {
namespace {

constexpr uint16_t kResolve = 0x0C28;
constexpr uint16_t kReadByLocation = 0x1E09;
constexpr std::size_t kHeader = 12;
// A resolve item is 24 bytes plus 4 per extension; the driver reads up to its byte 40.
constexpr std::size_t kItemRead = 41;
constexpr std::size_t kValuesAt = 14;
constexpr std::size_t kShownNames = 8;

struct Exchange {
    std::vector<uint8_t> request;
    std::optional<std::vector<uint8_t>> reply;  // the first piece: what one receive of the driver got
    bool closed = false;
};

uint16_t be16(std::span<const uint8_t> b, std::size_t at) {
    return at + 1 < b.size() ? static_cast<uint16_t>(b[at] << 8 | b[at + 1]) : 0;
}

uint16_t command(const std::vector<uint8_t> &frame) { return be16(frame, 10); }

// Frame length the header announces: the bytes after the sequence number, plus 10.
std::size_t declared(const std::vector<uint8_t> &frame) {
    if (frame.size() < 4) return SIZE_MAX;
    return (std::size_t{frame[0]} << 24 | std::size_t{frame[1]} << 16 | std::size_t{frame[2]} << 8 | frame[3]) + 10;
}

std::string command_text(uint16_t code) {
    switch (code) {
    case 0x0C2C: return "catalogue";
    case 0x0C25: return "program catalogue";
    case kResolve: return "symbol resolve";
    case kReadByLocation: return "read by location";
    case 0x1E01: return "word write";
    case 0x1E03: return "bit write";
    case 0x3200: return "set bit";
    case 0x3300: return "reset bit";
    default: {
        char hex[8];
        std::snprintf(hex, sizeof hex, "0x%04X", static_cast<unsigned>(code));
        return hex;
    }
    }
}

// The names of a symbol resolve request, as the user writes them (no '#').
std::vector<std::string> resolve_names(const std::vector<uint8_t> &req) {
    std::vector<std::string> names;
    std::size_t at = kHeader + 2;
    if (at >= req.size()) return names;
    at += req[at] == 0 ? 2 : 8;  // scope block: global 00 00, a program 01 01 00 P 00 00 00 00
    const uint16_t count = be16(req, at);
    at += 2;
    for (uint16_t i = 0; i < count && at + 2 <= req.size(); ++i) {
        const std::size_t units = be16(req, at);
        at += 2;
        if (at + 2 * units > req.size()) break;
        std::string name;
        for (char c : utf8_of_utf16be(std::span(req).subspan(at, 2 * units)))
            if (c != '#') name.push_back(c);
        names.push_back(std::move(name));
        at += 2 * units;
    }
    return names;
}

// Indices of the requested items the reply does not hold; empty when it holds all.
std::vector<std::size_t> left_out(const Exchange &x) {
    std::vector<std::size_t> missing;
    const std::vector<uint8_t> &r = *x.reply;
    if (command(x.request) == kResolve) {
        const std::size_t n = resolve_names(x.request).size();
        std::size_t c = 0, i = 0;
        for (; i < n && r.size() >= c + kItemRead; ++i) c += 24 + 4 * std::size_t{r[c + 40]};
        for (; i < n; ++i) missing.push_back(i);
    } else if (command(x.request) == kReadByLocation) {
        const uint16_t n = be16(x.request, 13);
        std::size_t end = kValuesAt;
        for (std::size_t k = 0; k < n && 18 + 8 * k + 3 < x.request.size(); ++k) {
            end += 2 * std::size_t{x.request[18 + 8 * k + 3]};  // the entry's word count
            if (end > r.size()) missing.push_back(k);
        }
    }
    return missing;
}

std::string listing(const std::vector<std::size_t> &missing, const std::vector<std::string> &names) {
    std::string out;
    for (std::size_t k = 0; k < missing.size() && k < kShownNames; ++k) {
        if (k != 0) out += ", ";
        out += missing[k] < names.size() ? names[missing[k]] : cat("element ", missing[k] + 1);
    }
    if (missing.size() > kShownNames) out += cat(" and ", missing.size() - kShownNames, " more");
    return out;
}

std::vector<Exchange> exchanges_of(std::span<const TrafficEvent> events) {
    std::vector<Exchange> xs;
    for (const TrafficEvent &e : events) {
        const bool open = !xs.empty() && !xs.back().reply && !xs.back().closed;
        switch (e.kind) {
        case TrafficEvent::Kind::Request:
            // A frame the relay received in pieces continues until its announced length.
            if (open && xs.back().request.size() < declared(xs.back().request))
                xs.back().request.insert(xs.back().request.end(), e.bytes.begin(), e.bytes.end());
            else
                xs.push_back({e.bytes, std::nullopt, false});
            break;
        case TrafficEvent::Kind::Reply:
            if (open) xs.back().reply = e.bytes;
            break;
        case TrafficEvent::Kind::Closed:
            // Between requests: the connection ends with no request pending.
            if (open) xs.back().closed = true;
            else xs.push_back({{}, std::nullopt, true});
            break;
        case TrafficEvent::Kind::ConnectFailed: break;
        }
    }
    return xs;
}

}  // namespace

Diagnosis diagnose(std::span<const TrafficEvent> events, const std::string &plc, unsigned timeout) {
    // A failed connection comes before any exchange it prevented.
    for (const TrafficEvent &e : events) {
        if (e.kind != TrafficEvent::Kind::ConnectFailed) continue;
        const std::string why =
            e.error != 0 ? std::string(std::strerror(e.error)) : cat("no answer within ", timeout, " s");
        return {kExitConnect, cat("cannot connect to ", plc, ": ", why)};
    }
    const std::vector<Exchange> xs = exchanges_of(events);
    std::vector<std::string> names;  // of the latest resolve: the elements of a read by location
    for (const Exchange &x : xs) {
        const std::string what = command_text(command(x.request));
        if (command(x.request) == kResolve) names = resolve_names(x.request);
        if (x.request.empty())
            return {kExitNoAnswer, cat("the PLC at ", plc, " closed the connection")};
        if (!x.reply && x.closed)
            return {kExitNoAnswer, cat("the PLC at ", plc, " closed the connection without answering the ", what,
                                       " request")};
        if (!x.reply) return {kExitNoAnswer, cat("no answer from the PLC at ", plc, " within ", timeout, " s to the ",
                                                 what, " request")};
        const std::vector<std::size_t> missing = left_out(x);
        if (!missing.empty()) {
            const auto &labels = command(x.request) == kResolve ? resolve_names(x.request) : names;
            return {kExitShortReply, cat("the PLC's reply to the ", what, " request was too short (", x.reply->size(),
                                         " bytes): it left out ", listing(missing, labels))};
        }
    }
    // Every request was answered in full, yet the call failed: the answer was
    // not one the driver could use. The catalogue requests that restart the
    // link after a failed write are not the ones to blame.
    for (auto x = xs.rbegin(); x != xs.rend(); ++x) {
        const uint16_t code = command(x->request);
        if (x + 1 != xs.rend() && (code == 0x0C2C || code == 0x0C25)) continue;
        return {kExitBadReply, cat("the driver could not use the PLC's reply to the ", command_text(code),
                                   " request (", x->reply->size(), " bytes)")};
    }
    return {};
}

}  // namespace kplc::cli
