#include "protocol/read_batch.hpp"

#include <array>
#include <cstdio>

#include "state/process_state.hpp"
#include "protocol/read_plan.hpp"
#include "tags/table_memo.hpp"

namespace kplc::proto::read {

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
    kplc_plc_tag *registry = &kplc::state().g_kplc_tags;
    const bool keyed = setting != nullptr && first != nullptr;
    if (keyed) {
        if (kplc_plc_tag *entry = memo.find(*registry, setting->_baud, first->_devIndex)) return entry;
    }

    // "./driver/PLC%08X_%d.csv" with a 16-bit device index is at most 30
    // characters; callers of the name routine provide 50 bytes.
    std::array<char, 50> name{};
    kplc_get_csv_name(setting, first, name.data());
    kplc_plc_tag *found = kplc_get_tagtable(registry, name.data());
    if (found != nullptr) {
        if (keyed) memo.remember(*registry, setting->_baud, first->_devIndex, found);
        return found;
    }

    kplc_tag_str *table = nullptr;
    const u32 count = kplc_build_tagtable(&table, name.data());
    if (count == 0) {
        std::printf("[PLC] build tag table failed! at line %d\r\n", build_place);
        return nullptr;
    }
    if (kplc_add_tagtable(registry, name.data(), table, count) < 0) {
        std::printf("[PLC] add_tagtable failed! at line %d\r\n", add_place);
        return nullptr;
    }
    found = kplc_get_tagtable(registry, name.data());
    if (keyed && found != nullptr) memo.remember(*registry, setting->_baud, first->_devIndex, found);
    return found;
}

}  // namespace kplc::proto::read
