// A forwarding proxy on 127.0.0.1 between the driver and the PLC.
//
// The driver has no options of its own, so the tool points it at this proxy,
// which passes every byte on to the PLC and back, unchanged, and keeps a
// record of the traffic: from it the tool tells why a request failed
// (failure.hpp). With --trace it also prints each piece in hex on standard
// error: "> " what the driver sent, "< " what the PLC answered. The driver
// takes a response from one receive, so each piece is passed on as soon as it
// arrives.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "failure.hpp"

namespace kplc::cli {

class TraceProxy {
public:
    // `connect_ms` bounds the connection to the PLC; `print` shows the frames.
    TraceProxy(uint32_t plc_addr, uint16_t plc_port, bool udp, bool print, int connect_ms)
        : plc_addr_(plc_addr), plc_port_(plc_port), udp_(udp), print_(print), connect_ms_(connect_ms) {}
    ~TraceProxy();
    TraceProxy(const TraceProxy &) = delete;
    TraceProxy &operator=(const TraceProxy &) = delete;

    // Binds 127.0.0.1 on an ephemeral port and starts forwarding.
    bool start(std::string &error);
    [[nodiscard]] uint16_t port() const { return port_; }
    // The traffic since the previous call.
    std::vector<TrafficEvent> take();

private:
    void run_tcp();
    void run_udp();
    int connect_plc();
    void record(TrafficEvent::Kind kind, const uint8_t *data = nullptr, std::size_t n = 0, int error = 0);

    uint32_t plc_addr_;
    uint16_t plc_port_;
    bool udp_;
    bool print_;
    int connect_ms_;
    std::mutex mutex_;
    std::vector<TrafficEvent> events_;
    int listen_fd_ = -1;
    int upstream_fd_ = -1;  // UDP: the socket towards the PLC
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace kplc::cli
