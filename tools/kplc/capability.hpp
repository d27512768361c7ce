// What the driver can do with a tag: which types and shapes its read path
// decodes and its write dispatch has a writer for, and how long a name the
// protocol carries.
#pragma once

#include <cstdint>
#include <string>

#include "format/frame_limits.hpp"
#include "tag_set.hpp"

namespace kplc::cli {

// Names travel as at most 255 UTF-16 code units.
inline constexpr uint32_t kMaxNameUnits = proto::kMaxNameUnits;

// False, with the reason in `why`, when the driver's read path cannot read the tag.
bool driver_reads(const Tag &tag, std::string &why);

// False, with the reason in `why`, when the driver has no writer for the tag.
bool driver_writes(const Tag &tag, std::string &why);

// UTF-16 code units of the longest name the driver sends for an element of the
// tag (its name with the index suffix "[#i,#j]" and, for strings, "[#c]").
uint32_t longest_wire_name(const Tag &tag);

}  // namespace kplc::cli
