// The read path from the entry's side: one batch read scope by scope, or a
// single pass; what both check before they touch a batch; the read side's
// tag tables.
#pragma once

#include <cstdint>
#include <span>

#include "kplc/records.h"
#include "kplc/tags.h"

namespace kplc::proto::read {

// A batch is read only when every array is there and holds 1 to 256 requests
// (the per-request tables of a pass are that long) with a buffer record for
// each. Otherwise prints one "[PLC]" line and returns false; nothing is sent.
bool batch_acceptable(const void *drv, const CommunicationProperty *setting, const Reg *reg, int nReg,
                      DrvRWBuf *const *buff) noexcept;

// The tag table of the batch's first request from the read side's registry,
// loaded from its file and registered on first use. On failure prints the
// build or registration message with the caller's place number and returns null.
kplc_plc_tag *batch_tag_table(CommunicationProperty *setting, Reg *first, int build_place, int add_place) noexcept;

// Which scopes a batch's requests belong to, learnt from the plan of the
// first pass that runs (once the link, and with it the program catalogue, is
// up) and kept for the batch's other passes.
struct ScopeSet {
    bool known = false;
    uint16_t scopes = 0;  // bit 0: global names; bit 1 + p: program p
};

// One pass over a batch that batch_acceptable has let through, with the tag
// table batch_tag_table found for it: starts the link if it is down, then
// reads the requests whose tags belong to `scope` (-1 global, 0 to 7 a
// program) in one resolve and one read by location exchange. A scope nobody
// asked for costs no exchange, and, once `in_use` (shared by the passes of
// one batch, when given) knows the batch, no plan either. Returns the pass's result; refused requests carry their own.
unsigned read_pass(void *drv, kplc_plc_tag &entry, std::span<const Reg> regs, std::span<DrvRWBuf *const> bufs,
                   int32_t scope, ScopeSet *in_use = nullptr) noexcept;

// The whole batch: global names, then programs 0 to 7, one pass each. A
// failed pass ends the batch and its result goes into every request's error.
unsigned read_batch(void *drv, CommunicationProperty *setting, Reg *reg, int nReg, DrvRWBuf **buff) noexcept;

// One pass of `scope` over a batch (the same checks, its own place numbers).
unsigned read_one_scope(void *drv, CommunicationProperty *setting, Reg *reg, int nReg, DrvRWBuf **buff,
                        int scope) noexcept;

// Empties the read side's registry (the tables stay allocated, unreachable).
void forget_tables() noexcept;

}  // namespace kplc::proto::read
