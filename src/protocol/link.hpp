// Starting the link to the PLC: connect, then load the program catalogue.
#pragma once

#include "kplc/records.h"

namespace kplc {

// The whole start-up: connects (XPLC_init), loads the program catalogue and
// sets the link flag. Returns ER_OK, or ER_TIMEOUT after printing
// "zel_plc_read init fail\r" (connect failed) or "xplc_getlocalMSG fail\r"
// (catalogue failed; the link flag is 0 and no socket stays open). Callers
// run it when the link flag is 0; it does not look at the flag itself.
unsigned start_link(PLC_DRV_INIT_SETTINGS *settings) noexcept;

}  // namespace kplc
