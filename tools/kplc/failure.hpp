// Why a request failed, told from the traffic the tool relays.
//
// The driver reports only a result code (2 covers a refused connection, a
// silent PLC and a cut reply alike), and the tool does not change its
// interface. But every frame between the driver and the PLC passes through the
// tool's relay on 127.0.0.1, so the relay's record of one call says what went
// wrong: the connection to the PLC failed, a request got no answer, or an
// answer was shorter than the request asked for. Only lengths and the fields
// the protocol fixes (command code, symbol entries, location entries with their
// word counts, the resolve items' extension counts) are looked at.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "exit_status.hpp"

namespace kplc::cli {

struct TrafficEvent {
    enum class Kind : uint8_t {
        ConnectFailed,  // the relay could not connect to the PLC; `error` holds errno (0: no answer in time)
        Request,        // bytes the driver sent
        Reply,          // bytes the PLC sent
        Closed,         // the PLC closed the connection
    };
    Kind kind = Kind::Request;
    std::vector<uint8_t> bytes;
    int error = 0;
};

struct Diagnosis {
    Exit status = kExitFailed;  // kExitFailed: the traffic shows no cause
    std::string message;        // empty when the traffic shows no cause
};

// The first thing that went wrong in the traffic of one driver call. `plc` is
// the PLC's "address:port", `timeout` the response time-out in seconds.
Diagnosis diagnose(std::span<const TrafficEvent> events, const std::string &plc, unsigned timeout);

}  // namespace kplc::cli
