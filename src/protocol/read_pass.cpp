// One read pass: the requests of one scope, read with a symbol resolve and a
// read by location exchange.
#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <span>

#include "kplc/driver.h"
#include "protocol/link.hpp"
#include "protocol/read_batch.hpp"
#include "protocol/read_plan.hpp"
#include "support/instance.hpp"
#include "transport/exchange.hpp"

namespace {

namespace rd = kplc::proto::read;

// Refused requests report ER_INVALID and keep their values. A scope that does
// not fit one exchange is reported once, not per request.
void report_refusals(const rd::PassPlan &plan, std::span<const Reg> regs, std::span<DrvRWBuf *const> bufs) {
    bool scope_reported = false;
    for (std::size_t i = 0; i < plan.size; ++i) {
        const rd::RequestPlan &request = plan.requests[i];
        if (!request.in_scope || request.refusal == rd::Refusal::None) continue;
        bufs[i]->error = ER_INVALID;
        if (request.refusal == rd::Refusal::ScopeTooLarge) {
            if (!scope_reported)
                std::printf("[PLC] read of scope %d refused: %s at line %d\r\n", static_cast<int>(plan.scope),
                            rd::describe(request.refusal), __LINE__);
            scope_reported = true;
            continue;
        }
        std::printf("[PLC] read request %d (tag id %u) refused: %s at line %d\r\n", static_cast<int>(i),
                    static_cast<unsigned>(regs[i].regId), rd::describe(request.refusal), __LINE__);
    }
}

unsigned read_scope(rd::PassPlan &plan, std::span<DrvRWBuf *const> bufs, PLC_DRV_INIT_SETTINGS *settings) {
    using kplc::link::Side;
    // Neither buffer is cleared: a request is written byte by byte from its
    // start up to the length sent, and only the bytes received are read.
    std::array<uint8_t, rd::kFrameSize> request;
    kplc::transport::ReceiveArea response;
    // A failed exchange takes the link down; the next batch starts it again.
    auto exchange = [&](std::size_t length) {
        return kplc::link::exchange(std::span<const uint8_t>(request).first(length), response, settings);
    };

    // Sequence numbers are taken only by requests that are sent.
    std::size_t length = rd::build_resolve_request(plan, request, kplc::link::sequence(Side::Read));
    if (length == 0) return ER_INVALID;  // plan_pass refuses every scope that does not fit
    (void)kplc::link::take_sequence(Side::Read);
    auto items = exchange(length);
    if (!items) return ER_INVALID;
    if (items->size() < rd::kMinResolveResponse) return ER_TIMEOUT;

    // A resolve response too short for one of its items is a response cut
    // short, like one below the minimum length.
    length = rd::build_location_request(plan, *items, request, kplc::link::sequence(Side::Read));
    if (length == 0) return ER_TIMEOUT;
    (void)kplc::link::take_sequence(Side::Read);
    auto values = exchange(length);
    if (!values) return ER_INVALID;
    if (values->size() < rd::kMinValueResponse) return ER_TIMEOUT;
    return rd::decode_values(plan, *values, bufs);
}

}  // namespace

namespace kplc::proto::read {

unsigned read_pass(void *drv, kplc_plc_tag &entry, std::span<const Reg> regs, std::span<DrvRWBuf *const> bufs,
                   int32_t scope, ScopeSet *in_use) noexcept {
    if (entry.tag_table == nullptr) return ER_INVALID;
    PLC_DRV_INIT_SETTINGS *settings = kplc::settings_of(drv);
    // The link starts lazily; the catalogue it loads maps program names to ids below.
    const unsigned started = kplc::link::ensure_started(settings);
    if (started != ER_OK) return started;

    // Which scopes the batch uses is learnt from the first pass's plan, which
    // maps every tag of the batch; the catalogue does not change within a
    // batch (a pass that loses the link fails, and a failed pass ends the
    // batch), so the later passes of scopes nobody asked for cost neither an
    // exchange nor building a plan.
    if (in_use != nullptr && in_use->known && (in_use->scopes & scope_bit(scope)) == 0) return ER_OK;
    PassPlan plan;
    const std::span<kplc_tag_str> table(entry.tag_table, entry.id_max);
    plan_pass(plan, table, regs, bufs, scope, kplc::link::catalogue());
    if (in_use != nullptr) *in_use = ScopeSet{true, plan.scopes};
    if (plan.refused != 0) report_refusals(plan, regs, bufs);
    if (plan.reading == 0) return ER_OK;
    return read_scope(plan, bufs, settings);
}

}  // namespace kplc::proto::read
