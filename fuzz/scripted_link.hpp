// A PLC link for the fuzz targets that needs no server thread and no network:
// the driver's socket is one end of a socket pair, and the harness answers
// each request the moment the driver sends it, with the next reply of a script
// taken from the fuzz input. When the script is used up the harness shuts its
// end for writing, so further exchanges see an empty response at once instead
// of waiting for the response time-out. Runs are fast and deterministic.
//
// The answer is written from inside send(): the harness defines send() itself
// (it takes precedence over the C library's for the statically linked driver),
// forwards the request, reads it off the other end and queues the reply.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "kplc/records.h"

namespace kplc::fuzz {

class ScriptedLink {
public:
    // The descriptor the driver's socket is moved to; high, so that nothing
    // the driver opens in the meantime (a tag file) can take its number.
    static constexpr int kDriverFd = 900;

    // Opens a fresh pair, puts its driver end into `settings` and marks the
    // link as started, so the driver exchanges without connecting.
    ScriptedLink(PLC_DRV_INIT_SETTINGS &settings, std::vector<std::span<const uint8_t>> replies);
    // A link whose replies come from `answer`, called with each request (the
    // seed maker lets the simulator answer and records what it said).
    using Responder = std::function<std::vector<uint8_t>(std::span<const uint8_t> request)>;
    ScriptedLink(PLC_DRV_INIT_SETTINGS &settings, Responder answer);
    // Closes what the driver left open (it closes its end itself after a
    // failed exchange) and the harness end.
    ~ScriptedLink();
    ScriptedLink(const ScriptedLink &) = delete;
    ScriptedLink &operator=(const ScriptedLink &) = delete;

    // Requests the driver sent on this link.
    [[nodiscard]] std::size_t requests() const { return requests_; }

    // Called from the interposed send() after the request went out.
    void on_request();

private:
    void open(PLC_DRV_INIT_SETTINGS &settings);
    void reply(std::span<const uint8_t> bytes);

    int peer_ = -1;
    std::vector<std::span<const uint8_t>> replies_;
    Responder answer_;
    std::size_t next_ = 0;
    std::size_t requests_ = 0;
};

// True when a run left a socket open: the lowest free descriptor number rose
// above the lowest seen before, and a socket holds that number. (The fuzzing
// engine opens and closes files of its own, on other threads too, so the mark
// only ever moves down and only sockets count.)
bool descriptor_leaked();

}  // namespace kplc::fuzz
