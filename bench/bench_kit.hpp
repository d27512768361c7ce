// Helpers shared by the benchmark programs: synthetic tag files and their
// records, percentiles. The working folder and the driver instance are the
// harness's.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "harness/instance.hpp"
#include "kplc/kplc.h"

namespace kplc::bench {

// `count` global DINT tags named V00000, V00001, ... (tag id k is V(k-1)).
std::string dint_tags(std::size_t count);

// `count` lines cycling through the shapes a real tag file holds: scalars of
// several types, arrays of one to three dimensions, string arrays, BOOLs on
// bit devices, program-local tags and two-index names.
std::string mixed_tags(std::size_t count);

// The records kplc_pase_str makes of each line of `text`, in order (what the
// loader would hold for the same file).
std::vector<kplc_tag_str> parse_table(const std::string &text);

// Nearest-rank percentile of `samples` (sorted in place); 0 for none.
double percentile(std::vector<double> &samples, double p);

}  // namespace kplc::bench
