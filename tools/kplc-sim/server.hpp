// The simulator's network side: a TCP (or UDP) server on its own thread that
// frames requests by their data_len, hands them to the Plc and sends the
// replies, optionally misbehaving in the ways a real link does.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "plc.hpp"

namespace kplc::sim {

// What the server sends for one request when a responder takes it instead of
// the Plc (a replayed capture, a test's script).
struct Answer {
    enum class Kind { Reply, Silence, Close };
    Kind kind = Kind::Reply;
    std::vector<uint8_t> bytes;  // Reply: the frame to send
    std::size_t split_at = 0;    // Reply: 0 < split_at < size sends two segments
    unsigned pause_ms = 0;       // Reply: pause between the two segments
    unsigned delay_ms = 0;       // wait before the first byte (or before closing)
    std::vector<uint8_t> stale;  // Reply: sent unasked after the reply
    bool close = false;          // Reply: close the connection once the reply is out (TCP)
};

// One thing the server saw or did on a connection, for a tap (recording a
// capture, a test's log). Open and Close are TCP only; for UDP every
// datagram counts as a connection of its own.
struct Event {
    enum class Kind { Open, Request, Reply, Close };
    Kind kind = Kind::Open;
    uint64_t connection = 0;              // counts from 1 in accept order
    bool udp = false;
    sockaddr_in client{};                 // the driver's end
    sockaddr_in local{};                  // the server's end
    std::span<const uint8_t> bytes;       // Request: one framed request; Reply: one segment as sent
    // Close: why the connection ends. by_client: the client closed it (or
    // reset it) first; otherwise the server closes, and `reason` says why.
    bool by_client = false;
    const char *reason = "";
};

struct ServerHooks {
    // Takes a framed request before the Plc; std::nullopt lets the Plc answer.
    std::function<std::optional<Answer>(std::span<const uint8_t> request)> respond;
    // Sees every event, on the server thread.
    std::function<void(const Event &)> tap;
    // Called before a second segment or stale bytes go out, with the client's
    // end; a test waits there until the driver has read what came before, so
    // the two never merge into one read.
    std::function<void(const sockaddr_in &client)> before_next_segment;
};

struct ServerOptions {
    std::string listen = "127.0.0.1";  // IPv4 address to bind
    uint16_t port = 0;                 // 0: an ephemeral port (see Server::port())
    bool udp = false;                  // one request per datagram frame, replies to the sender

    // Misbehaviour, for testing how the driver copes.
    unsigned close_after = 0;                // TCP: close a connection after answering this many requests (0: never)
    unsigned delay_ms = 0;                   // wait before every reply
    bool split = false;                      // send every reply in two parts, kSplitPauseMs apart
    std::optional<std::size_t> truncate = std::nullopt;  // send at most this many bytes of every reply
    bool garbage = false;                    // send random bytes of the reply's length instead
    bool silent = false;                     // read requests, never answer
    bool refuse = false;                     // TCP: accept and close at once
    bool trace = false;                      // print "> request" and "< reply" hex lines on stdout
};

inline constexpr unsigned kSplitPauseMs = 50;

class Server {
public:
    Server(Plc &plc, ServerOptions options, ServerHooks hooks = {});
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Binds, listens and starts serving on a thread. Throws std::system_error
    // when the socket cannot be set up, std::invalid_argument for a listen
    // address that is not an IPv4 address.
    void start();
    // The bound port (the ephemeral one when port 0 was asked for).
    [[nodiscard]] uint16_t port() const { return port_; }
    // Stops serving and closes every socket; safe to call more than once.
    void stop();

    // Connections accepted and requests framed so far.
    [[nodiscard]] std::size_t connections() const { return connections_.load(); }
    [[nodiscard]] std::size_t requests() const { return requests_.load(); }

private:
    struct Peer;
    void run_tcp();
    void run_udp();
    // Frames and answers the complete requests at the front of `peer`'s input.
    // Returns false when the connection is to be closed.
    bool serve(Peer &peer);
    // Returns false when the connection is to be closed.
    bool answer(Peer &peer, std::span<const uint8_t> request);
    bool carry_out(Peer &peer, const Answer &answer);
    bool send_part(Peer &peer, std::span<const uint8_t> part);
    void emit(const Peer &peer, Event::Kind kind, std::span<const uint8_t> bytes = {}) const;
    void emit_close(const Peer &peer) const;
    // Sleeps `ms` milliseconds; returns false early when stop() was called.
    bool pause(unsigned ms);

    Plc &plc_;
    ServerOptions options_;
    ServerHooks hooks_;
    int socket_ = -1;
    int wake_[2] = {-1, -1};
    uint16_t port_ = 0;
    std::thread thread_;
    sockaddr_in local_{};
    std::atomic<std::size_t> connections_{0};
    std::atomic<std::size_t> requests_{0};
    uint32_t random_ = 0x2545F491;  // garbage generator state (server thread only)
    bool stopping_ = false;         // stop() was called (server thread only)
};

}  // namespace kplc::sim
