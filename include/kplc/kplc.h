/* Umbrella header: everything the driver exports. Compiles as C11 and C++. */
#ifndef KPLC_KPLC_H
#define KPLC_KPLC_H

#include "kplc/api.h"
#include "kplc/driver.h"
#include "kplc/records.h"
#include "kplc/support.h"
#include "kplc/tags.h"
#include "kplc/transport.h"

#endif
