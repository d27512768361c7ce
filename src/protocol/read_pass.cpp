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
    std::array<uint8_t, rd::kFrameSize> request{};
    kplc::transport::ReceiveArea response{};
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

// Whether any request of the batch is read or reported by the pass of `scope`.
// The passes of scopes nobody asked for (most of the nine) then cost neither
// an exchange nor building a plan.
bool scope_in_use(std::span<kplc_tag_str> table, std::span<const Reg> regs, int32_t scope,
                  std::span<const kplc::Local_MSG> catalogue) noexcept {
    for (const Reg &reg : regs) {
        // Unknown tag ids belong to no scope; the global pass reports them.
        if (reg.regId == 0 || reg.regId > table.size()) {
            if (scope == kplc::proto::kGlobalScope) return true;
            continue;
        }
        kplc_tag_str &tag = table[reg.regId - 1];
        rd::map_program(tag, catalogue);
        if (tag.mode_type == scope) return true;
    }
    return false;
}

}  // namespace

namespace kplc::proto::read {

unsigned read_pass(void *drv, kplc_plc_tag &entry, std::span<const Reg> regs, std::span<DrvRWBuf *const> bufs,
                   int32_t scope) noexcept {
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
    if (!scope_in_use(table, regs, scope, catalogue)) return ER_OK;
    PassPlan plan;
    plan_pass(plan, table, regs, bufs, scope, catalogue);
    report_refusals(plan, regs, bufs);
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
