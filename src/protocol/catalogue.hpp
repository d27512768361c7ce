// The PLC's program catalogue as it arrives in answer to the program
// catalogue request.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "state/process_state.hpp"

namespace kplc::proto {

// Fills `table` from the start with the entries of the answer and returns
// their count; nullopt (table untouched) when the answer is too short to hold
// the entry count.
std::optional<uint32_t> parse_catalogue(std::span<const uint8_t> response,
                                        std::span<CatalogueEntry, kCatalogueCapacity> table) noexcept;

}  // namespace kplc::proto
