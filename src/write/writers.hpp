// The writers: each gets the tag record and, where it writes more than the
// whole tag, the run of elements, and the runtime's value bytes (known to be
// there). They return ER_OK or ER_INVALID. The BOOL writers take the value of
// a bit from the lowest bit of its value byte.
#pragma once

#include <cstdint>

#include "kplc/records.h"
#include "kplc/tags.h"
#include "write/units.hpp"

namespace kplc::write {

// One 16-, 32- or 64-bit value (`words` 1, 2 or 4) into the whole tag.
unsigned write_value(PLC_DRV_INIT_SETTINGS *settings, const kplc_tag_str &tag, const unsigned char *value,
                     uint32_t words) noexcept;

// A run of elements of `words` words each of a numeric array, in one write.
unsigned write_run(PLC_DRV_INIT_SETTINGS *settings, const kplc_tag_str &tag, ElementRun run,
                   const unsigned char *value, uint32_t words) noexcept;

// One BOOL by the tag's name: set/reset on bit devices, else a bit write.
unsigned write_bit(PLC_DRV_INIT_SETTINGS *settings, const kplc_tag_str &tag, const unsigned char *value) noexcept;

// A run of BOOL elements, one value byte each, each by its element name.
unsigned write_bit_run(PLC_DRV_INIT_SETTINGS *settings, const kplc_tag_str &tag, ElementRun run,
                       const unsigned char *value) noexcept;

// One BOOL member by `name` (scope and device class from the tag): set/reset
// on bit devices, else a read-modify-write of its word, which leaves the
// bit's previous value in value[0].
unsigned write_member_bit(PLC_DRV_INIT_SETTINGS *settings, const kplc_tag_str &tag, const char *name,
                          unsigned char *value) noexcept;

// A BOOL member through an index without a device area: read-modify-write
// with the 16-bit bit number of the resolve response.
unsigned write_indexed_member_bit(PLC_DRV_INIT_SETTINGS *settings, const kplc_tag_str &tag,
                                  unsigned char *value) noexcept;

// Text from character `run.first` on, `run.count` bytes of it.
unsigned write_text(PLC_DRV_INIT_SETTINGS *settings, const kplc_tag_str &tag, ElementRun run,
                    const unsigned char *value) noexcept;

}  // namespace kplc::write
