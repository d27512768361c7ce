// The read entry: one batch of register requests, read scope by scope.
#include <cstddef>
#include <span>

#include "kplc/driver.h"
#include "protocol/read_batch.hpp"
#include "support/places.hpp"

namespace {

// Scopes in reading order: global names, then the names local to PLC programs 0 to 7.
constexpr int kFirstScope = -1;
constexpr int kLastScope = 7;

}  // namespace

extern "C" {

KPLC_API unsigned int kplc_mulity_read(void *drv, CommunicationProperty *setting, Reg *reg, int nReg,
                                       DrvRWBuf **buff) {
    namespace rd = kplc::proto::read;
    if (!rd::batch_acceptable(drv, setting, reg, nReg, buff)) return ER_INVALID;
    // One batch reads from one tag file, named by the first request's device;
    // the passes share its table rather than forming the name nine more times.
    kplc_plc_tag *entry = rd::batch_tag_table(setting, reg, kplc::place::kReadEntryBuild, kplc::place::kReadEntryAdd);
    if (entry == nullptr) return ER_INVALID;

    const auto count = static_cast<std::size_t>(nReg);
    const std::span<const Reg> regs(reg, count);
    const std::span<DrvRWBuf *const> bufs(buff, count);
    rd::ScopeSet in_use;
    for (int scope = kFirstScope; scope <= kLastScope; ++scope) {
        const unsigned result = rd::read_pass(drv, *entry, regs, bufs, scope, &in_use);
        if (result != ER_OK) {
            // A failed pass fails the whole batch, whatever earlier passes read.
            for (int i = 0; i < nReg; ++i) buff[i]->error = result;
            return result;
        }
    }
    return ER_OK;
}

}  // extern "C"
