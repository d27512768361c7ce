// One request/response exchange on the link's socket.
//
// The PLC answers every request with one response, and the driver takes what
// one read of the socket delivers as that response: the callers judge it by
// its length. Input still pending from an earlier exchange (a late answer, the
// tail of a long one) is thrown away before each request so that it cannot be
// mistaken for the new response. Any failure after the request was handed over
// closes the socket; the caller (the link) then counts itself down, and the
// next request opens a new connection. Nothing here keeps state: the drain
// area is the caller's.
#include "transport/exchange.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "transport/poll_wait.hpp"

namespace kplc::transport {

int drain(int sock, std::span<unsigned char> area) noexcept {
    const int ready = wait_readable(sock, 0);
    if (ready <= 0) return ready;  // -1: the wait failed; 0: nothing pending
    // One read of at most 512 bytes per exchange; anything beyond stays queued
    // and is met by the next exchange's drain.
    return static_cast<int>(::recv(sock, area.data(), area.size(), 0));
}

int send_request(const void *msg, int len, PLC_DRV_INIT_SETTINGS *settings,
                 std::span<unsigned char> drain_area) noexcept {
    const int sock = settings->serial_handle;
    (void)drain(sock, drain_area);
    // A negative length is a caller's error; it fails like a send would rather
    // than reach send() as a huge size.
    // MSG_NOSIGNAL: a connection the PLC has reset must fail the send, not
    // raise SIGPIPE and end the host process.
    const ssize_t sent = len < 0 ? -1 : ::send(sock, msg, static_cast<std::size_t>(len), MSG_NOSIGNAL);
    if (sent < 0) {
        std::puts("send error");
        ::close(sock);
        return -1;
    }
    return static_cast<int>(sent);
}

int send_and_receive(const void *send_data, int send_len, void *recv_data, int *recv_len,
                     PLC_DRV_INIT_SETTINGS *settings, std::span<unsigned char> drain_area) noexcept {
    int total = 0;
    if (send_request(send_data, send_len, settings, drain_area) < 0) return -1;

    const int sock = settings->serial_handle;
    const int ready = wait_readable(sock, static_cast<int64_t>(settings->response_timeout) * 1000);
    if (ready == 0) {
        std::puts("--timeout--\r");
        ::close(sock);
        return -1;
    }
    if (ready < 0) {
        std::puts("--err--\r");
        ::close(sock);
        return -1;
    }
    // One read, straight into the caller's buffer (which has room for the
    // whole receive area): a response split over segments yields what had
    // arrived; a longer one leaves its tail queued for the next drain.
    const ssize_t got = ::recv(sock, recv_data, proto::kReceiveArea, 0);
    if (got < 0) {
        ::close(sock);
        return -1;
    }
    // 0: the PLC closed the connection. The exchange still succeeds with an
    // empty response, which every caller rejects by its minimum length; the
    // next exchange then fails on the send or the read.
    total += static_cast<int>(got);
    *recv_len = total;
    return 0;
}

int wait_for_input(PLC_DRV_INIT_SETTINGS *settings, int mode) noexcept {
    int64_t timeout_ms;
    switch (mode) {
        case 0: timeout_ms = static_cast<int64_t>(settings->response_timeout) * 1000; break;
        case 1: timeout_ms = settings->timeout1; break;
        // No other mode has a time-out of its own: such a call checks for
        // input without waiting rather than wait for an undefined time.
        default: timeout_ms = 0; break;
    }
    return wait_readable(settings->serial_handle, timeout_ms);
}

std::optional<std::span<const uint8_t>> exchange(std::span<const uint8_t> request, ReceiveArea &response,
                                                 PLC_DRV_INIT_SETTINGS *settings,
                                                 std::span<unsigned char> drain_area) noexcept {
    int received = 0;
    if (send_and_receive(request.data(), static_cast<int>(request.size()), response.data(), &received, settings,
                         drain_area) != 0)
        return std::nullopt;
    const auto size = static_cast<std::size_t>(std::clamp(received, 0, static_cast<int>(response.size())));
    return std::span<const uint8_t>(response).first(size);
}

}  // namespace kplc::transport
