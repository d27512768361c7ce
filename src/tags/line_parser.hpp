// The line parser of tag definition files.
#pragma once

#include "kplc/tags.h"

namespace kplc::tags {

// Parses one definition line (read where it stands, never written) into
// `tag`; a missing line gives a record with id 0, name class 1 and no device.
// Returns 0.
int parse_definition(const char *line, kplc_tag_str *tag) noexcept;

}  // namespace kplc::tags
