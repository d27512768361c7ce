// Loading a tag definition file into an array of tag records, one per line.
#pragma once

#include "kplc/tags.h"

namespace kplc::tags {

// Loads the file into a new record array (never freed) and returns the
// number of records, or 0 (nothing allocated) when the file cannot be opened
// ("[PLC] open ... failed" line) or holds no definition.
u32 load_table(kplc_tag_str **table, const char *csv_name) noexcept;

}  // namespace kplc::tags
