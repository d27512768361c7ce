// The process-wide set-up the read and write targets share: the harness's
// working folder holding the tag file of a loopback PLC, a driver instance
// pointed at a loopback port that refuses connections (a link restart inside
// a run fails at once instead of reaching anything), and standard output
// silenced.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "harness/instance.hpp"

namespace kplc::fuzz {

// Tag definitions covering every writer family, every shape, the device
// classes the read and write paths tell apart, program-local tags and the
// degenerate rows (a string without characters, a zero-sized dimension).
extern const std::string_view kTagFile;
// Number of definition lines in kTagFile.
std::size_t tag_count();
// Bytes of one value of tag `reg_id` (1-based; 0 for an unknown id or a text
// type): the least a runtime's value buffer for that tag holds.
std::size_t value_width(unsigned reg_id);

struct Workspace : harness::Instance {
    Workspace();
    harness::WorkFolder folder{"kplc-fuzz"};
};

// Created on first use and kept for the life of the process.
Workspace &workspace();

// Driver messages go to standard output and the fuzzer reports on standard
// error: standard output goes to /dev/null unless KPLC_FUZZ_VERBOSE is set.
void silence_output();

}  // namespace kplc::fuzz
