// Captures in the simulator: replaying a recorded PLC conversation (the PLC's
// side of it) and recording the conversations the simulator serves. Both read
// and write capture files through libpcap, so pcap and pcapng from tcpdump,
// dumpcap or Wireshark open alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "server.hpp"

namespace kplc::sim {

// What the replay does with a request that equals no recorded request.
enum class OnMismatch { Close, Silent, Model };

struct ReplayOptions {
    OnMismatch on_mismatch = OnMismatch::Close;
    // Keep the recorded time between a request and its reply. The pause
    // between the segments of one reply is always kept: it decides what a
    // single receive of the driver gets.
    bool timing = false;
};

// The PLC's side of a capture. Every request the driver sent in the capture,
// with what the PLC sent back until the next request of that conversation:
// the reply segments and their timing, or silence, or a closed connection.
class Replay {
public:
    // Reads the capture at `path`; throws std::runtime_error when it cannot
    // be read or holds no request of the protocol.
    Replay(const std::string &path, ReplayOptions options);
    ~Replay();
    Replay(const Replay &) = delete;
    Replay &operator=(const Replay &) = delete;

    // The recorded answer to a live request (ServerHooks::respond); nullopt
    // hands a request that matches nothing to the simulated PLC (--on-mismatch
    // model).
    std::optional<Answer> respond(std::span<const uint8_t> request);

    [[nodiscard]] std::size_t exchanges() const;
    [[nodiscard]] std::size_t tcp_connections() const;
    [[nodiscard]] std::size_t udp_exchanges() const;
    // Live requests answered from the capture, and those that matched nothing.
    [[nodiscard]] std::size_t matched() const;
    [[nodiscard]] std::size_t mismatched() const;

private:
    struct Data;
    std::unique_ptr<Data> d_;
    ReplayOptions options_;
};

// Writes every event of the server as packets of a capture file: a TCP
// handshake for each connection, each request and each reply segment as one
// segment with consistent sequence numbers, FINs at the close; UDP datagrams
// for a datagram server. Timestamps are the time of each event.
class Recorder {
public:
    // Throws std::runtime_error when the file cannot be created.
    explicit Recorder(const std::string &path);
    ~Recorder();
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    // ServerHooks::tap: one call per event, on the server thread.
    void tap(const Event &event);

private:
    struct Data;
    std::unique_ptr<Data> d_;
};

}  // namespace kplc::sim
