// `kplc check`: a tag file read the way the driver reads it, and every line
// that will not give the tag its author meant.
//
// The driver is silent about its tag files: every line that ends in a line
// feed is a definition (a header line or a blank line becomes a tag and shifts
// every id after it), a last line without a line feed is dropped, and an
// unknown type name or a malformed range is simply left at zero.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tag_set.hpp"

namespace kplc::cli {

struct Problem {
    std::size_t line = 0;  // 1-based; 0 for the file as a whole
    std::string text;
};

// Problems of a tag file, in line order; empty for a clean file.
std::vector<Problem> check_tag_file(std::string_view contents, ParseLine parser);

}  // namespace kplc::cli
