// Where the write path's offsets and counts change units, all in one place.
//
// The runtime counts a write's offset and length in bytes for 16-, 32- and
// 64-bit tags, in bits for BOOL tags and in characters for text. The writers'
// records (PLC_DRV_REG_ADDR, PLC_DRV_BUFF), as the dispatch hands them on and
// as the exported writers take them, count elements, except that a 64-bit
// tag is counted in 32-bit units. A writer works on elements.
#pragma once

#include <cstdint>

#include "kplc/records.h"

namespace kplc::write {

// A run of consecutive elements of a tag, by row-major offset.
struct ElementRun {
    uint32_t first;
    uint32_t count;
};

// Converts the runtime's offset and length in the records, in place, into
// the records' units, by the tag's bit width.
void to_record_units(uint8_t bits, PLC_DRV_REG_ADDR &reg_addr, PLC_DRV_BUFF &buff) noexcept;

// The run of elements that records in their units name, for elements of
// `words` 16-bit words (a BOOL or a character counts as one word).
ElementRun element_run(uint32_t words, const PLC_DRV_REG_ADDR &reg_addr, const PLC_DRV_BUFF &buff) noexcept;

}  // namespace kplc::write
