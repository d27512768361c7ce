// The instance record as the lower layers see it.
#pragma once

#include "kplc/records.h"

namespace kplc {

// The connection settings view of an instance record. The view is the first
// member of PLC_DRV_INIT_SETTINGS_NEW, so the runtime's `drv` pointer and the
// settings pointer are the same address; its timeout2 is a real field set to 0
// by kplc_init on every pointer width.
inline PLC_DRV_INIT_SETTINGS *settings_of(void *drv) noexcept {
    return &static_cast<PLC_DRV_INIT_SETTINGS_NEW *>(drv)->view.settings;
}

}  // namespace kplc
