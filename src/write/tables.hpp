// The write side's tag tables: its own registry, loaded from the same tag
// files as the read side's but once more, for itself.
#pragma once

#include <array>

#include "kplc/records.h"
#include "kplc/tags.h"

namespace kplc::write {

// "./driver/PLC%08X_%d.csv" with any device index fits 50 bytes.
using FileName = std::array<char, 50>;

// The table of device `dev_index` at the link's endpoint, loaded and
// registered on first use. The file name is formed into `csv_name` when the
// table had to be looked up by it (else it stays empty). Null after "build
// tag table failed!\r" or "kplc_add_tagtable failed!\r".
kplc_plc_tag *table_of(int dev_index, FileName &csv_name) noexcept;

// The file name of device `dev_index` at the link's endpoint.
void form_file_name(int dev_index, FileName &csv_name) noexcept;

// The write side starts over (a new instance): the endpoint becomes the
// link's, its sequence numbers start from 0, the link is down, and the write
// side's registry is empty. Returns 0.
unsigned start_over(PLC_TCP_INIT_PARAMETERS *endpoint) noexcept;

}  // namespace kplc::write
