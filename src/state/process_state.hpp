// The driver's process-wide state, kept in one record.
//
// It has a folder of its own below every layer: the link (protocol/link.*)
// keeps its flag, endpoint, sequence counters, catalogue and drain area here,
// the read and write paths their tag registries, and the entry points fill it.
// Kept in interface/ it made each lower layer reach up; kept in support/ it
// would mix state into the stateless helpers.
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
struct CatalogueEntry {
    uint32_t local_id;  // program id as the PLC sent it (0 to 255)
    char name[256];     // program name, zero-terminated UTF-8
};

inline constexpr std::size_t kCatalogueCapacity = 256;
inline constexpr std::size_t kDrainAreaSize = 512;

// Everything the link to the PLC keeps between calls. Only the link
// (protocol/link.*) writes it; the read and write paths ask the link.
struct LinkState {
    bool up;                                  // connected (and started) since the last failure
    PLC_TCP_INIT_PARAMETERS *endpoint;        // PLC address and port of the instance initialised last
    uint16_t read_sid;                        // read path sequence counter, never reset
    uint16_t write_sid;                       // write path sequence counter, reset with the write side
    std::array<CatalogueEntry, kCatalogueCapacity> catalogue;  // the PLC's programs
    uint32_t catalogue_size;                  // valid catalogue entries
    std::array<unsigned char, kDrainAreaSize> drain_area;      // stale input is drained into it
};

struct ProcessState {
    LinkState link;
    ex_login_t *ex_login;                     // extra records of the instance initialised last
    kplc_plc_tag read_tags;                   // read-side tag registry head
    kplc_plc_tag write_tags;                  // write-side tag registry head
    tags::TableMemo read_table;               // the read side's last tag table, by address and device
    tags::TableMemo write_table;              // the write side's last tag table, by address and device
};

// The one instance. Zero-initialised before any code of the library runs.
extern ProcessState g_process_state;
inline ProcessState &state() noexcept { return g_process_state; }

}  // namespace kplc
