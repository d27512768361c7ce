// Every fact of the wire, for the driver, the simulator and the tool alike.
#pragma once

#include "format/wire_commands.hpp"
#include "format/wire_frame.hpp"
#include "format/wire_items.hpp"
