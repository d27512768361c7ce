// `kplc check`: a tag file read the way the driver reads it, and every line
// that will not give the tag its author meant.
//
// The driver is silent about its tag files: every line that ends in a line
// feed is a definition (a header line or a blank line becomes a tag and shifts
// every id after it), a last line without a line feed is dropped, an unknown
// type name or a malformed range is simply left at zero, a device column it
// cannot place means "no device", and a scope column that is not -1 makes the
// tag local to a program. Messages quote only what the driver reads of a line:
// the last piece of a long line, up to a NUL byte.
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
    // A property worth knowing that is no fault of the file (a tag that can
    // only be read): shown, but the file still passes.
    bool note = false;
};

// Problems (and notes) of a tag file, in line order; none for a clean file.
std::vector<Problem> check_tag_file(std::string_view contents, ParseLine parser);

// `text` as a message quotes it: control bytes escaped, cut after `max`
// characters with the length said, so that no line of a file of any size
// makes a message of that size.
std::string quote(std::string_view text, std::size_t max = 40);

}  // namespace kplc::cli
