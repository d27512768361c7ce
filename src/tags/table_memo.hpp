// The registry entry that one tag file resolved to, remembered by the key the
// file's name is made from (PLC address and device index), so that a call
// finds its table without formatting the name and comparing it along the ring.
//
// The registry's newest entry is remembered with it: a table registered since
// (every new entry goes to the front) or a registry emptied by kplc_init moves
// it, and the memo then no longer answers. Entries are never freed, so a new
// entry never takes an old one's address.
#pragma once

#include <cstdint>

#include "kplc/tags.h"

namespace kplc::tags {

class TableMemo {
public:
    [[nodiscard]] kplc_plc_tag *find(const kplc_plc_tag &registry, uint32_t address, int device) const noexcept {
        if (entry_ == nullptr || registry.list.next != newest_ || address != address_ || device != device_)
            return nullptr;
        return entry_;
    }

    void remember(const kplc_plc_tag &registry, uint32_t address, int device, kplc_plc_tag *entry) noexcept {
        newest_ = registry.list.next;
        address_ = address;
        device_ = device;
        entry_ = entry;
    }

private:
    const list_head *newest_ = nullptr;
    uint32_t address_ = 0;
    int device_ = 0;
    kplc_plc_tag *entry_ = nullptr;
};

}  // namespace kplc::tags
