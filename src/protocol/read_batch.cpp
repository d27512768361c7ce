#include "protocol/read_batch.hpp"

#include <array>
#include <cstdio>

#include "kplc/driver.h"
#include "protocol/read_plan.hpp"
#include "state/process_state.hpp"
#include "support/places.hpp"
#include "tags/file_names.hpp"
#include "tags/loader.hpp"
#include "tags/registry.hpp"
#include "tags/table_memo.hpp"

namespace kplc::proto::read {
namespace {

// Scopes in reading order: global names, then the names local to PLC programs 0 to 7.
constexpr int kFirstScope = -1;
constexpr int kLastScope = 7;

}  // namespace

bool batch_acceptable(const void *drv, const CommunicationProperty *setting, const Reg *reg, int nReg,
                      DrvRWBuf *const *buff) noexcept {
    bool ok = drv != nullptr && setting != nullptr && reg != nullptr && buff != nullptr && nReg > 0 &&
              static_cast<unsigned>(nReg) <= kMaxBatch;
    // Every request needs a buffer record: a failed pass reports into all of them.
    for (int i = 0; ok && i < nReg; ++i) ok = buff[i] != nullptr;
    if (!ok) std::printf("[PLC] read batch of %d requests refused at line %d\r\n", nReg, __LINE__);
    return ok;
}

kplc_plc_tag *batch_tag_table(CommunicationProperty *setting, Reg *first, int build_place, int add_place) noexcept {
    // The table of the last batch, found again without forming its file name.
    kplc::tags::TableMemo &memo = kplc::state().read_table;
    kplc_plc_tag *registry = &kplc::state().read_tags;
    const bool keyed = setting != nullptr && first != nullptr;
    if (keyed) {
        if (kplc_plc_tag *entry = memo.find(*registry, setting->_baud, first->_devIndex)) return entry;
    }

    // "./driver/PLC%08X_%d.csv" with a 16-bit device index is at most 30
    // characters; callers of the name routine provide 50 bytes.
    std::array<char, 50> name{};
    tags::port_file_name(setting, first, name.data());
    kplc_plc_tag *found = tags::find_table(registry, name.data());
    if (found != nullptr) {
        if (keyed) memo.remember(*registry, setting->_baud, first->_devIndex, found);
        return found;
    }

    kplc_tag_str *table = nullptr;
    const u32 count = tags::load_table(&table, name.data());
    if (count == 0) {
        std::printf("[PLC] build tag table failed! at line %d\r\n", build_place);
        return nullptr;
    }
    if (tags::add_table(registry, name.data(), table, count) < 0) {
        std::printf("[PLC] add_tagtable failed! at line %d\r\n", add_place);
        return nullptr;
    }
    found = tags::find_table(registry, name.data());
    if (keyed && found != nullptr) memo.remember(*registry, setting->_baud, first->_devIndex, found);
    return found;
}

void forget_tables() noexcept { tags::init_registry(&kplc::state().read_tags); }

unsigned read_batch(void *drv, CommunicationProperty *setting, Reg *reg, int nReg, DrvRWBuf **buff) noexcept {
    if (!batch_acceptable(drv, setting, reg, nReg, buff)) return ER_INVALID;
    // One batch reads from one tag file, named by the first request's device;
    // the passes share its table rather than forming the name nine more times.
    kplc_plc_tag *entry = batch_tag_table(setting, reg, place::kReadEntryBuild, place::kReadEntryAdd);
    if (entry == nullptr) return ER_INVALID;

    const auto count = static_cast<std::size_t>(nReg);
    const std::span<const Reg> regs(reg, count);
    const std::span<DrvRWBuf *const> bufs(buff, count);
    ScopeSet in_use;
    for (int scope = kFirstScope; scope <= kLastScope; ++scope) {
        const unsigned result = read_pass(drv, *entry, regs, bufs, scope, &in_use);
        if (result != ER_OK) {
            // A failed pass fails the whole batch, whatever earlier passes read.
            for (int i = 0; i < nReg; ++i) buff[i]->error = result;
            return result;
        }
    }
    return ER_OK;
}

unsigned read_one_scope(void *drv, CommunicationProperty *setting, Reg *reg, int nReg, DrvRWBuf **buff,
                        int scope) noexcept {
    if (!batch_acceptable(drv, setting, reg, nReg, buff)) return ER_INVALID;
    kplc_plc_tag *entry = batch_tag_table(setting, reg, place::kReadPassBuild, place::kReadPassAdd);
    if (entry == nullptr) return ER_INVALID;
    const auto count = static_cast<std::size_t>(nReg);
    return read_pass(drv, *entry, std::span<const Reg>(reg, count), std::span<DrvRWBuf *const>(buff, count), scope);
}

}  // namespace kplc::proto::read
