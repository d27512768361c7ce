// The instance record as the lower layers see it.
#pragma once

#include "kplc/records.h"

namespace kplc {

// The connection settings view of an instance record. The view is the first
// member of PLC_DRV_INIT_SETTINGS_NEW, so the runtime's `drv` pointer and the
// settings pointer are the same address; its timeout2 is a real field set to 0
// by configure_instance on every pointer width.
inline PLC_DRV_INIT_SETTINGS *settings_of(void *drv) noexcept {
    return &static_cast<PLC_DRV_INIT_SETTINGS_NEW *>(drv)->view.settings;
}

// A cleared instance record on the heap, or null after "kplc_create malloc error".
void *create_instance() noexcept;

// Copies the port record's address, port, socket kind and time-outs into the
// instance record and points it at the extra records behind the port record.
// Returns the record's endpoint. Touches nothing outside the two records.
PLC_TCP_INIT_PARAMETERS *configure_instance(void *drv, CommunicationProperty *setting) noexcept;

}  // namespace kplc
