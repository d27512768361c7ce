// The read entry: one batch of register requests, read scope by scope; the
// single pass and the element and word counts of the read path.
#include "kplc/driver.h"
#include "protocol/read_batch.hpp"
#include "format/tag_geometry.hpp"
#include "protocol/read_plan.hpp"

namespace rd = kplc::proto::read;

extern "C" {

KPLC_API unsigned int kplc_mulity_read(void *drv, CommunicationProperty *setting, Reg *reg, int nReg,
                                       DrvRWBuf **buff) {
    return rd::read_batch(drv, setting, reg, nReg, buff);
}

KPLC_API unsigned int xplc_mulity_read(void *drv, CommunicationProperty *setting, Reg *reg, int nReg,
                                       DrvRWBuf **buff, int var_mode) {
    return rd::read_one_scope(drv, setting, reg, nReg, buff, var_mode);
}

// A string request is one element here; see the read pass.
KPLC_API int xplc_getnum(int bits, int size) { return kplc::format::elements_in_stretch<int>(bits, size); }

KPLC_API int xplc_gettype(int bits, int num) { return rd::width_words(bits, num); }

}  // extern "C"
