// The PLC's program catalogue: its two requests and the parsing of the answer
// into the process-wide table.
#pragma once

#include "kplc/records.h"

namespace kplc::proto {

enum class Catalogue { Loaded, ExchangeFailed, Refused };

// Asks for the catalogue on the open link and fills the table. ExchangeFailed:
// the socket is closed and the link flag cleared; Refused: an answer was too
// short, the socket stays open.
Catalogue load_catalogue(PLC_DRV_INIT_SETTINGS *settings) noexcept;

}  // namespace kplc::proto
