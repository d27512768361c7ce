// The driver's process-wide state, kept in one record.
//
// It has a folder of its own below every layer: the transport clears the link
// flag and drains into the drain area, the protocol and write paths take
// sequence numbers, the catalogue and the tag registries, and the entry points
// start from it. Kept in interface/ it made each lower layer reach up; kept in
// support/ it would mix state into the stateless helpers.
//
// One loaded library serves one PLC link: every entry point shares this state
// and the runtime calls the entry points one at a time, so nothing here is
// locked. The record is zero at load (static storage), which is the state the
// driver starts from: link down, empty catalogue, both counters at 0, both
// registry heads zeroed until kplc_init turns them into empty rings.
#pragma once

#include <array>
#include <cstdint>

#include "kplc/records.h"
#include "kplc/tags.h"
#include "tags/table_memo.hpp"

namespace kplc {

// One entry of the PLC's program catalogue.
struct Local_MSG {
    uint32_t local_id;  // program id as the PLC sent it (0 to 255)
    char name[256];     // program name, zero-terminated UTF-8
};

inline constexpr std::size_t kCatalogueCapacity = 256;
inline constexpr std::size_t kEmptyBuffSize = 512;

struct ProcessState {
    int init;                                 // link flag: 1 when connected and started
    PLC_TCP_INIT_PARAMETERS *tcp_settings;    // endpoint of the instance initialised last
    ex_login_t *ex_login;                 // extra records of that instance
    kplc_plc_tag g_kplc_tags;                 // read-side tag registry head
    kplc_plc_tag g_plc_tags;                  // write-side tag registry head
    uint16_t read_sid;                        // read path sequence counter, never reset
    uint16_t write_sid;                       // write path sequence counter, reset by zel_plc_init
    std::array<Local_MSG, kCatalogueCapacity> LocalInfo;  // program catalogue
    uint32_t localNum;                        // valid catalogue entries
    std::array<unsigned char, kEmptyBuffSize> EmptyBuff;  // stale input is drained into it
    tags::TableMemo read_table;               // the read side's last tag table, by address and device
    tags::TableMemo write_table;              // the write side's last tag table, by address and device
};

// The one instance. Zero-initialised before any code of the library runs.
ProcessState &state() noexcept;

// Takes the counter's current value for a request and advances it, wrapping
// from 65535 to 0.
inline uint16_t next_sid(uint16_t &counter) noexcept { return counter++; }

}  // namespace kplc
