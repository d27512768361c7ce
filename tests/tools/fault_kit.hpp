// Shared parts of the fault injection and soak tests: runtime buffers fenced
// by inaccessible pages, a simulated PLC that can be stopped, restarted on the
// same port or swapped for a misbehaving one, and the driver calls the panel
// runtime makes, with their time measured.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "state/process_state.hpp"
#include "kplc/kplc.h"
#include "plc.hpp"
#include "server.hpp"
#include "testkit/workdir.hpp"

namespace kplc::fault {

inline constexpr uint32_t kPlcAddress = 0x7F000001;  // 127.0.0.1
inline constexpr uint8_t kFence = 0x5C;

// `size` bytes placed flush against a PROT_NONE page, with another PROT_NONE
// page in front of the region: a write past the end faults at once, and the
// unused head of the first page is filled with a pattern so that a write in
// front of the buffer shows in intact().
class Guarded {
public:
    explicit Guarded(std::size_t size) : size_(size) {
        page_ = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        const std::size_t body = (size / page_ + 1) * page_;  // always some fence bytes in front
        total_ = body + 2 * page_;
        void *map = ::mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED) throw std::runtime_error("mmap");
        base_ = static_cast<uint8_t *>(map);
        ::mprotect(base_, page_, PROT_NONE);
        ::mprotect(base_ + page_ + body, page_, PROT_NONE);
        head_ = base_ + page_;
        data_ = base_ + page_ + body - size;
        std::memset(head_, kFence, body);
    }
    ~Guarded() { ::munmap(base_, total_); }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;

    [[nodiscard]] uint8_t *data() const { return data_; }
    [[nodiscard]] std::size_t size() const { return size_; }
    // The fence bytes in front of the buffer are untouched.
    [[nodiscard]] bool intact() const {
        for (const uint8_t *p = head_; p < data_; ++p)
            if (*p != kFence) return false;
        return true;
    }

private:
    std::size_t size_, page_ = 4096, total_ = 0;
    uint8_t *base_ = nullptr, *head_ = nullptr, *data_ = nullptr;
};

// One runtime read request and the guarded records the runtime hands in.
struct ReadSpec {
    uint16_t id;
    uint32_t addr;
    uint32_t nums;
};

class GuardedBatch {
public:
    explicit GuardedBatch(const std::vector<ReadSpec> &specs)
        : regs_(specs.size() * sizeof(Reg)), bufs_(specs.size() * sizeof(DrvRWBuf)),
          ptrs_(specs.size() * sizeof(DrvRWBuf *)) {
        for (std::size_t i = 0; i < specs.size(); ++i) {
            values_.push_back(std::make_unique<Guarded>(specs[i].nums));
            Reg r{};
            r.regId = specs[i].id;
            r.regAddr = specs[i].addr;
            r.regNums = specs[i].nums;
            std::memcpy(regs_.data() + i * sizeof(Reg), &r, sizeof r);
        }
        n_ = specs.size();
    }
    // Runs kplc_mulity_read; buffers are refilled with a marker first.
    unsigned read(void *drv, CommunicationProperty *port) {
        auto *bufs = reinterpret_cast<DrvRWBuf *>(bufs_.data());
        auto *ptrs = reinterpret_cast<DrvRWBuf **>(ptrs_.data());
        for (std::size_t i = 0; i < n_; ++i) {
            std::memset(values_[i]->data(), 0xEE, values_[i]->size());
            bufs[i] = DrvRWBuf{0, values_[i]->data(), static_cast<int32_t>(values_[i]->size()), 0xDEAD};
            ptrs[i] = &bufs[i];
        }
        return kplc_mulity_read(drv, port, reinterpret_cast<Reg *>(regs_.data()), static_cast<int>(n_), ptrs);
    }
    [[nodiscard]] uint32_t error(std::size_t i) const { return reinterpret_cast<const DrvRWBuf *>(bufs_.data())[i].error; }
    [[nodiscard]] std::vector<uint8_t> value(std::size_t i) const {
        return {values_[i]->data(), values_[i]->data() + values_[i]->size()};
    }
    [[nodiscard]] bool intact() const {
        bool ok = regs_.intact() && bufs_.intact() && ptrs_.intact();
        for (const auto &v : values_) ok = ok && v->intact();
        return ok;
    }
    [[nodiscard]] std::size_t size() const { return n_; }

private:
    Guarded regs_, bufs_, ptrs_;
    std::vector<std::unique_ptr<Guarded>> values_;
    std::size_t n_ = 0;
};

// One write with its value bytes in a guarded buffer of regNums + 1 bytes (a
// text write may add a fill byte); at least 8 bytes, as a scalar write always
// takes its tag's whole value.
inline unsigned guarded_write(void *drv, CommunicationProperty *port, uint16_t id, uint32_t addr,
                              const std::vector<uint8_t> &value, bool *intact = nullptr) {
    Guarded buf(std::max<std::size_t>(value.size(), 8) + 1);
    std::memset(buf.data(), 0, buf.size());
    std::memcpy(buf.data(), value.data(), value.size());
    Reg reg{};
    reg.regId = id;
    reg.regAddr = addr;
    reg.regNums = static_cast<U32>(value.size());
    const unsigned rc = kplc_write(drv, port, &reg, buf.data());
    if (intact != nullptr) *intact = buf.intact();
    return rc;
}

// A simulated PLC on a fixed loopback port that the test can stop, restart
// healthy or restart misbehaving (sim::ServerOptions), like a PLC that is
// switched off, power-cycled or broken.
class SimulatedPlc {
public:
    explicit SimulatedPlc(const char *tags) : plc_(tags) { start({}); }
    ~SimulatedPlc() { stop(); }

    void start(sim::ServerOptions options) {
        stop();
        options.port = port_;
        server_ = std::make_unique<sim::Server>(plc_, options);
        server_->start();
        port_ = server_->port();
    }
    void stop() {
        if (server_) {
            server_->stop();
            accepted_ += server_->connections();
        }
        server_.reset();
    }
    [[nodiscard]] uint16_t port() const { return port_; }
    sim::Plc &plc() { return plc_; }
    // Connections accepted by the servers run so far (across restarts).
    [[nodiscard]] std::size_t connections() const { return accepted_ + (server_ ? server_->connections() : 0); }

private:
    sim::Plc plc_;
    std::unique_ptr<sim::Server> server_;
    uint16_t port_ = 0;
    std::size_t accepted_ = 0;
};

// Wall time of one call, in milliseconds.
template <typename Call>
auto timed(Call call, long &ms) {
    const auto t0 = std::chrono::steady_clock::now();
    auto result = call();
    ms = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count());
    return result;
}

// Descriptors open in this process.
inline std::size_t open_descriptors() {
    std::size_t n = 0;
    if (DIR *d = ::opendir("/proc/self/fd")) {
        while (const dirent *e = ::readdir(d))
            if (e->d_name[0] != '.') ++n;
        ::closedir(d);
        --n;  // the listing's own descriptor
    }
    return n;
}

inline bool link_up() { return kplc::state().init != 0; }

}  // namespace kplc::fault
