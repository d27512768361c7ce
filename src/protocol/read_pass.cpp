// One read pass: the requests of one scope, read with a symbol resolve and a
// read by location exchange.
#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <span>

#include "support/instance.hpp"
#include "protocol/link.hpp"
#include "state/process_state.hpp"
#include "support/places.hpp"
#include "kplc/driver.h"
#include "protocol/read_batch.hpp"
#include "protocol/read_plan.hpp"
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
    auto &st = kplc::state();
    // Neither buffer is cleared: a request is written byte by byte from its
    // start up to the length sent, and only the bytes received are read.
    std::array<uint8_t, rd::kFrameSize> request;
    kplc::transport::ReceiveArea response;
    // A failed exchange has cleared the link flag; the next batch starts the link again.
    auto exchange = [&](std::size_t length) {
        return kplc::transport::exchange(std::span<const uint8_t>(request).first(length), response, settings);
    };

    // Sequence numbers are taken only by requests that are sent.
    std::size_t length = rd::build_resolve_request(plan, request, st.read_sid);
    if (length == 0) return ER_INVALID;  // plan_pass refuses every scope that does not fit
    kplc::next_sid(st.read_sid);
    auto items = exchange(length);
    if (!items) return ER_INVALID;
    if (items->size() < rd::kMinResolveResponse) return ER_TIMEOUT;

    // A resolve response too short for one of its items is a response cut
    // short, like one below the minimum length.
    length = rd::build_location_request(plan, *items, request, st.read_sid);
    if (length == 0) return ER_TIMEOUT;
    kplc::next_sid(st.read_sid);
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
    auto &st = kplc::state();
    PLC_DRV_INIT_SETTINGS *settings = kplc::settings_of(drv);
    // The link starts lazily; the catalogue it loads maps program names to ids below.
    if (st.init == 0) {
        const unsigned started = kplc::start_link(settings);
        if (started != ER_OK) return started;
    }

    const std::span<const kplc::Local_MSG> catalogue(st.LocalInfo.data(),
                                                     std::min<std::size_t>(st.localNum, st.LocalInfo.size()));
    const std::span<kplc_tag_str> table(entry.tag_table, entry.id_max);
    // Which scopes the batch uses is learnt from the first pass's plan, which
    // maps every tag of the batch; the catalogue does not change within a
    // batch (a pass that loses the link fails, and a failed pass ends the
    // batch), so the later passes of scopes nobody asked for cost neither an
    // exchange nor building a plan.
    if (in_use != nullptr && in_use->known && (in_use->scopes & scope_bit(scope)) == 0) return ER_OK;
    PassPlan plan;
    plan_pass(plan, table, regs, bufs, scope, catalogue);
    if (in_use != nullptr) *in_use = ScopeSet{true, plan.scopes};
    if (plan.refused != 0) report_refusals(plan, regs, bufs);
    if (plan.reading == 0) return ER_OK;
    return read_scope(plan, bufs, settings);
}

}  // namespace kplc::proto::read

extern "C" {

KPLC_API unsigned int xplc_mulity_read(void *drv, CommunicationProperty *setting, Reg *reg, int nReg,
                                       DrvRWBuf **buff, int var_mode) {
    if (!rd::batch_acceptable(drv, setting, reg, nReg, buff)) return ER_INVALID;
    kplc_plc_tag *entry = rd::batch_tag_table(setting, reg, kplc::place::kReadPassBuild, kplc::place::kReadPassAdd);
    if (entry == nullptr) return ER_INVALID;
    const auto count = static_cast<std::size_t>(nReg);
    return rd::read_pass(drv, *entry, std::span<const Reg>(reg, count), std::span<DrvRWBuf *const>(buff, count),
                         var_mode);
}

}  // extern "C"
