// Names of the tag definition files: one file per PLC address and device
// index. Both routines write at most 50 bytes (the caller's buffer).
#pragma once

#include "kplc/records.h"

namespace kplc::tags {

// The file of a read request: the port record's address and the request's
// device index; an empty name when either record is missing.
void port_file_name(const CommunicationProperty *setting, const Reg *reg, char *csv_name) noexcept;

// The file of a write: the endpoint's address (handed in under the serial
// record type) and the device index; an empty name without an endpoint.
void endpoint_file_name(const PLC_SERIAL_INIT_PARAMETERS *endpoint, char *csv_name, int dev_index) noexcept;

}  // namespace kplc::tags
