// The write path's two doors: the runtime's write, and the dispatch of one
// write to the writer for its tag.
#pragma once

#include "kplc/records.h"

namespace kplc::write {

// Connects if the link is down (no catalogue), finds the tag record of the
// write side's table, converts offset and length in the caller's records
// into the records' units and calls the writer for the tag's type, name form,
// shape and device class. The records (and, on BOOL paths, the value bytes)
// stay changed. Returns the writer's result, ER_TIMEOUT when the link could
// not be connected, ER_INVALID when the table or the tag is missing, or
// KPLC_ER_NO_WRITER.
unsigned dispatch(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings,
                  int devIndex) noexcept;

// One write of the runtime: the dispatch on copies of the request, a
// "[PLC]: ... write error ..." line when it failed, and, when the link is
// down afterwards, its whole start-up at once (ER_TIMEOUT when that fails,
// else the write's own result).
unsigned write_request(void *drv, const Reg *reg, void *buf) noexcept;

}  // namespace kplc::write
