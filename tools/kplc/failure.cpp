#include "failure.hpp"

#include <cstdio>
#include <cstring>
#include <optional>

#include "format/frame_limits.hpp"
#include "format/wire.hpp"
#include "json.hpp"
#include "text.hpp"

namespace kplc::cli {
namespace {

using wire::Command;

constexpr std::size_t kShownNames = 8;

struct Exchange {
    std::vector<uint8_t> request;
    std::optional<std::vector<uint8_t>> reply;  // the first piece: what one receive of the driver got
    bool closed = false;
};

uint16_t command(const std::vector<uint8_t> &frame) { return wire::command_of(frame).value_or(0); }

bool is(uint16_t code, Command c) { return code == static_cast<uint16_t>(c); }

std::string command_text(uint16_t code) {
    if (const wire::CommandRow *row = wire::command_row(code)) return std::string(row->name);
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%04X", static_cast<unsigned>(code));
    return hex;
}

// The names of a symbol resolve request, as the user writes them (no '#').
std::vector<std::string> resolve_names(const std::vector<uint8_t> &req) {
    std::vector<std::string> names;
    wire::SymbolCursor symbols(req);
    while (const auto units = symbols.next()) {
        std::string name;
        for (char c : utf8_of_utf16be(*units))
            if (c != '#') name.push_back(c);
        names.push_back(std::move(name));
    }
    return names;
}

// Resolve items the reply holds as far as the driver reads them (up to
// their extension count), at most `wanted`.
std::size_t items_received(const std::vector<uint8_t> &reply, std::size_t wanted) {
    wire::ResolveCursor items(reply);
    std::size_t n = 0;
    while (n < wanted && items.whole()) {
        ++n;
        items.advance();
    }
    return n;
}

// Indices of the requested items the reply does not hold; empty when it holds all.
std::vector<std::size_t> left_out(const Exchange &x) {
    std::vector<std::size_t> missing;
    const std::vector<uint8_t> &r = *x.reply;
    const uint16_t code = command(x.request);
    if (is(code, Command::SymbolResolve)) {
        const std::size_t n = resolve_names(x.request).size();
        for (std::size_t i = items_received(r, n); i < n; ++i) missing.push_back(i);
    } else if (is(code, Command::ReadByLocation)) {
        const uint16_t n = wire::location_count(x.request).value_or(0);
        std::size_t end = wire::kReplyDataOffset;
        for (std::size_t k = 0; k < n; ++k) {
            const auto entry = wire::location_entry(x.request, k);
            if (!entry) break;
            end += 2 * std::size_t{entry->words};
            if (end > r.size()) missing.push_back(k);
        }
    }
    return missing;
}

// Whether a reply is framed as the protocol frames one: its length complement
// holds and it is no longer than its header announces (a reply cut short is
// told apart by what it left out). Replies too short to hold the complement
// are judged by their length alone.
bool framed(const std::vector<uint8_t> &reply) {
    if (reply.size() < wire::kSequenceOffset) return true;
    const auto data_len = wire::data_len_of(reply);
    return wire::complement_holds(reply) && data_len && wire::frame_length(*data_len) >= reply.size();
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
        case TrafficEvent::Kind::Request: {
            // A frame the relay received in pieces continues until its announced length.
            const auto data_len = open ? wire::data_len_of(xs.back().request) : std::nullopt;
            if (open && (!data_len || xs.back().request.size() < wire::frame_length(*data_len)))
                xs.back().request.insert(xs.back().request.end(), e.bytes.begin(), e.bytes.end());
            else
                xs.push_back({e.bytes, std::nullopt, false});
            break;
        }
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
        const uint16_t code = command(x.request);
        if (is(code, Command::SymbolResolve)) names = resolve_names(x.request);
        if (x.request.empty())
            return {kExitNoAnswer, cat("the PLC at ", plc, " closed the connection")};
        if (!x.reply && x.closed)
            return {kExitNoAnswer, cat("the PLC at ", plc, " closed the connection without answering the ", what,
                                       " request")};
        if (!x.reply) return {kExitNoAnswer, cat("no answer from the PLC at ", plc, " within ", timeout, " s to the ",
                                                 what, " request")};
        const std::vector<uint8_t> &reply = *x.reply;
        // The driver takes any reply to a catalogue request it went on from;
        // what the PLC said there did not fail the call.
        if (wire::starts_link(code) && &x != &xs.back()) continue;
        if (!framed(reply))
            return {kExitBadReply, cat("the PLC's reply to the ", what, " request (", reply.size(),
                                       " bytes) is not a frame of the PLC's protocol: its length fields disagree")};
        // A status other than done: the PLC refused the request and says why.
        // A resolve stops at the first name it does not know, so that name is
        // the first the reply holds no item for.
        if (const auto status = wire::status_of(reply); status && *status != wire::kStatusDone) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "0x%04X", static_cast<unsigned>(*status));
            if (is(code, Command::SymbolResolve)) {
                const std::size_t known = items_received(reply, names.size());
                if (known < names.size())
                    return {kExitBadReply, cat("the PLC does not know '", names[known], "' (status ", hex,
                                               "): the tag file names a variable the PLC does not have")};
            }
            return {kExitBadReply, cat("the PLC refused the ", what, " request (status ", hex, ")")};
        }
        // The driver takes a reply from one receive of a bounded area; the rest stays unread.
        if (reply.size() > proto::kReceiveArea)
            return {kExitBadReply, cat("the PLC's reply to the ", what, " request (", reply.size(),
                                       " bytes) is longer than the ", proto::kReceiveArea,
                                       " bytes the driver takes in one receive")};
        const std::vector<std::size_t> missing = left_out(x);
        if (!missing.empty()) {
            const auto &labels = is(code, Command::SymbolResolve) ? resolve_names(x.request) : names;
            return {kExitShortReply, cat("the PLC's reply to the ", what, " request was too short (", x.reply->size(),
                                         " bytes): it left out ", listing(missing, labels))};
        }
    }
    // Every request was answered in full, yet the call failed: the answer was
    // not one the driver could use. The catalogue requests that restart the
    // link after a failed write are not the ones to blame.
    for (auto x = xs.rbegin(); x != xs.rend(); ++x) {
        const uint16_t code = command(x->request);
        if (x + 1 != xs.rend() && wire::starts_link(code)) continue;
        return {kExitBadReply, cat("the driver could not use the PLC's reply to the ", command_text(code),
                                   " request (", x->reply->size(), " bytes)")};
    }
    return {};
}

}  // namespace kplc::cli
