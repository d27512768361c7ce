// The exported steps of the link's start-up: connect, and load the program
// catalogue. Connecting does not mark the link up (a failed catalogue
// exchange takes it down); the read path and the write entry run the whole
// start-up through the link itself.
#include "kplc/driver.h"
#include "protocol/link.hpp"

extern "C" {

KPLC_API int XPLC_init(PLC_DRV_INIT_SETTINGS *settings) { return kplc::link::connect(settings); }

KPLC_API int xplc_getlocalMSG(PLC_DRV_INIT_SETTINGS *settings) {
    return kplc::link::load_catalogue(settings) == kplc::link::Catalogue::Loaded ? ER_OK : ER_INVALID;
}

}  // extern "C"
