// End-to-end fixture: the driver's C entry points against the simulator,
// which runs on a thread of the test process and serves the same tag file the
// driver loads from its working folder.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "state/process_state.hpp"
#include "kplc/kplc.h"
#include "plc.hpp"
#include "server.hpp"
#include "testkit/fake_plc.hpp"
#include "testkit/workdir.hpp"

namespace kplc::e2e {

using testkit::Bytes;
using testkit::hex;
using testkit::to_hex;

inline constexpr uint32_t kPlcAddress = 0x7F000001;  // 127.0.0.1

// One register request of a read batch, and what came back for it.
struct ReadRequest {
    uint16_t id;
    uint32_t addr;
    uint32_t nums;
    std::size_t buffer = 256;
};
struct ReadResult {
    uint32_t error = 0;
    Bytes bytes;  // the runtime buffer after the call
};

class EndToEnd : public ::testing::Test {
protected:
    // Starts the simulator on an ephemeral port with `tags` as its tag file
    // and points a fresh driver instance at it. The driver reads `tags` too,
    // unless `driver_tags` gives it a file of its own.
    void start(const char *tags, sim::ServerOptions options = {}, const char *driver_tags = nullptr) {
        dir_.write_tag_file(kPlcAddress, 0, driver_tags != nullptr ? driver_tags : tags);
        const bool udp = options.udp;
        plc_ = std::make_unique<sim::Plc>(tags);
        ASSERT_TRUE(plc_->warnings().empty()) << plc_->warnings().front();
        server_ = std::make_unique<sim::Server>(*plc_, std::move(options));
        server_->start();
        instance_ = std::make_unique<testkit::Instance>(kPlcAddress, server_->port(), 1, udp);
    }
    void TearDown() override {
        // The driver keeps its loaded tag tables for the life of the process;
        // the next kplc_init forgets them. Release this test's.
        testkit::release_tag_tables();
        instance_.reset();
        if (server_) server_->stop();
    }

    sim::Plc &plc() { return *plc_; }
    sim::Server &server() { return *server_; }

    // kplc_write of `value` (with room behind it for the fill byte a text
    // write may add).
    unsigned write(uint16_t id, uint32_t addr, const Bytes &value) {
        Bytes buf = value;
        buf.push_back(0xEE);
        Reg reg{};
        reg.regId = id;
        reg.regAddr = addr;
        reg.regNums = static_cast<U32>(value.size());
        return kplc_write(instance_->drv, &instance_->port.prop, &reg, buf.data());
    }

    // One kplc_mulity_read of the batch; `rc` receives the call's result.
    std::vector<ReadResult> read_batch(const std::vector<ReadRequest> &requests, unsigned *rc = nullptr) {
        std::vector<Reg> regs(requests.size());
        std::vector<Bytes> buffers(requests.size());
        std::vector<DrvRWBuf> bufs(requests.size());
        std::vector<DrvRWBuf *> ptrs(requests.size());
        for (std::size_t i = 0; i < requests.size(); ++i) {
            regs[i] = Reg{};
            regs[i].regId = requests[i].id;
            regs[i].regAddr = requests[i].addr;
            regs[i].regNums = requests[i].nums;
            buffers[i].assign(requests[i].buffer, 0xEE);
            bufs[i] = DrvRWBuf{0, buffers[i].data(), static_cast<int32_t>(buffers[i].size()), 0xDEAD};
            ptrs[i] = &bufs[i];
        }
        const unsigned result = kplc_mulity_read(instance_->drv, &instance_->port.prop, regs.data(),
                                                 static_cast<int>(regs.size()), ptrs.data());
        if (rc != nullptr) *rc = result;
        std::vector<ReadResult> out(requests.size());
        for (std::size_t i = 0; i < requests.size(); ++i) out[i] = {bufs[i].error, buffers[i]};
        return out;
    }

    // The first `nums` bytes (one byte per bit for BOOLs) a single read returns;
    // nullopt when the read fails.
    std::optional<Bytes> read(uint16_t id, uint32_t addr, uint32_t nums, std::size_t shown = 0) {
        unsigned rc = 0;
        const auto r = read_batch({{id, addr, nums}}, &rc);
        if (rc != ER_OK || r[0].error != ER_OK) return std::nullopt;
        const std::size_t n = shown != 0 ? shown : nums;
        return Bytes(r[0].bytes.begin(), r[0].bytes.begin() + static_cast<std::ptrdiff_t>(n));
    }

private:
    testkit::ScopedWorkdir dir_;
    std::unique_ptr<sim::Plc> plc_;
    std::unique_ptr<sim::Server> server_;
    std::unique_ptr<testkit::Instance> instance_;
};

// Distinct, non-zero test bytes.
inline Bytes pattern(std::size_t n, uint8_t seed) {
    Bytes out(n);
    for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(seed + 37 * i + 1);
    return out;
}

inline Bytes text(std::string_view s) { return Bytes(s.begin(), s.end()); }

}  // namespace kplc::e2e
