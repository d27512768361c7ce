// Every fact of a tag, for the driver, the simulator and the tool alike.
#pragma once

#include "format/device_class.hpp"
#include "format/tag_abilities.hpp"
#include "format/tag_geometry.hpp"
#include "format/tag_limits.hpp"
#include "format/tag_lines.hpp"
#include "format/types.hpp"
