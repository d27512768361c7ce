// A forwarding proxy on 127.0.0.1 that shows the driver's traffic.
//
// The driver has no options of its own, so to see its frames the tool points
// it at this proxy, which passes every byte on to the PLC and back and prints
// each piece in hex on standard error: "> " what the driver sent, "< " what the
// PLC answered. The driver takes a response from one receive, so each piece is
// passed on as soon as it arrives, unchanged.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace kplc::cli {

class TraceProxy {
public:
    TraceProxy(uint32_t plc_addr, uint16_t plc_port, bool udp) : plc_addr_(plc_addr), plc_port_(plc_port), udp_(udp) {}
    ~TraceProxy();
    TraceProxy(const TraceProxy &) = delete;
    TraceProxy &operator=(const TraceProxy &) = delete;

    // Binds 127.0.0.1 on an ephemeral port and starts forwarding.
    bool start(std::string &error);
    [[nodiscard]] uint16_t port() const { return port_; }

private:
    void run_tcp();
    void run_udp();
    int connect_plc();

    uint32_t plc_addr_;
    uint16_t plc_port_;
    bool udp_;
    int listen_fd_ = -1;
    int upstream_fd_ = -1;  // UDP: the socket towards the PLC
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace kplc::cli
