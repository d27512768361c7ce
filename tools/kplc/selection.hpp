// Names on the command line that pick more than one element of an array: a
// range "Temps[2..4]", a row "Grid[1]" (the trailing indices left out), or both
// "Cube[1,0..1]". The elements must follow each other in the runtime's
// row-major order, since one selection is one run of elements.
#pragma once

#include <string_view>

#include "tag_set.hpp"

namespace kplc::cli {

// As TagSet::find, and ranges and rows besides.
Lookup find_selection(const TagSet &tags, std::string_view query);

}  // namespace kplc::cli
