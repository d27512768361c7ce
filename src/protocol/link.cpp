// Starting the link to the PLC: connect, then load the program catalogue.
#include "protocol/link.hpp"

#include <cstdio>

#include "kplc/driver.h"
#include "kplc/transport.h"
#include "protocol/catalogue.hpp"
#include "state/process_state.hpp"

namespace kplc {

unsigned start_link(PLC_DRV_INIT_SETTINGS *settings) noexcept {
    if (XPLC_init(settings) != 0) {
        std::puts("zel_plc_read init fail\r");
        return ER_TIMEOUT;
    }
    const proto::Catalogue result = proto::load_catalogue(settings);
    if (result != proto::Catalogue::Loaded) {
        // A refused catalogue leaves the new socket open (a failed exchange has
        // closed it already). Close it here: the next start-up connects again,
        // and repeated refusals must not pile up open connections.
        if (result == proto::Catalogue::Refused) zel_close_handel(settings->serial_handle);
        std::puts("xplc_getlocalMSG fail\r");
        return ER_TIMEOUT;
    }
    state().init = 1;
    return ER_OK;
}

}  // namespace kplc

extern "C" {

KPLC_API int XPLC_init(PLC_DRV_INIT_SETTINGS *settings) {
    return CommunicationSet(kplc::state().tcp_settings, settings);
}

}  // extern "C"
