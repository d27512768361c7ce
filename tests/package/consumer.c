// An integrator's program in miniature, compiled as C11 against an installed
// kplc (CMake package or pkg-config) and linked to libkplc.so.0 directly.
//
// It checks what a panel build relies on after installing the package:
//  - the headers' version macros name the version the package was found as;
//  - the records have the runtime's layout on this target (natural alignment,
//    field order; pointers and the records holding them follow the target's
//    pointer width), shown as a table so an ILP32 run documents itself;
//  - the entry points link and answer, from the library in the expected folder.
//
// usage: kplc_consumer [LIBDIR]  (LIBDIR: folder libkplc.so.0 must come from)
#define _GNU_SOURCE
#include <dlfcn.h>
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kplc/kplc.h"

#define STR2(x) #x
#define STR(x) STR2(x)
#define HEADER_VERSION STR(KPLC_VERSION_MAJOR) "." STR(KPLC_VERSION_MINOR) "." STR(KPLC_VERSION_PATCH)

static int failures, checks;

static void check(int ok, const char *what) {
    ++checks;
    if (!ok) ++failures, fprintf(stderr, "FAILED: %s\n", what);
}

struct layout_row { const char *what; size_t got, want; };

#define P sizeof(void *)
#define AT(rec, field, want) {#rec "." #field, offsetof(rec, field), (want)}
#define SIZE(rec, want) {"sizeof " #rec, sizeof(rec), (want)}

#define CP(field, want) AT(CommunicationProperty, field, want)
#define TCP(field, want) AT(PLC_TCP_INIT_PARAMETERS, field, want)

static const struct layout_row layout[] = {
    CP(_sizeExtra, 2), CP(_flag, 4), CP(_workMode, 14), CP(_baud, 16), CP(_datBits, 20), CP(_plcGlobalTimeout, 28),
    CP(_protocalTimeout1, 30), CP(_maxBlockBits, 54), CP(_varSlave, 56), CP(_varPort, 64),
    SIZE(CommunicationProperty, 68), AT(ex_login_t, user, 2), AT(ex_login_t, password, 26), SIZE(ex_login_t, 50),
    AT(Reg, plcNo, 6), AT(Reg, regType, 8), AT(Reg, regId, 10), AT(Reg, regAddr, 12), AT(Reg, regNums, 16),
    AT(Reg, subAddr, 20), AT(Reg, _devIndex, 22), SIZE(Reg, 24),
    AT(DrvRWBuf, buff, P), AT(DrvRWBuf, size, 2 * P), AT(DrvRWBuf, error, 2 * P + 4), SIZE(DrvRWBuf, 2 * P + 8),
    AT(PLC_DRV_INFO, version, 2), SIZE(PLC_DRV_INFO, 4), AT(Mulity_Property, TotalPackage, 4), SIZE(Mulity_Property, 8),
    TCP(ipaddr, P), TCP(port, P + 4), TCP(stop_bits, P + 6), TCP(mode, P + 7), SIZE(PLC_TCP_INIT_PARAMETERS, P + 8),
    AT(PLC_DRV_REG_ADDR, reg_id, 4), AT(PLC_DRV_REG_ADDR, sub_addr, 12), SIZE(PLC_DRV_REG_ADDR, 16),
    AT(PLC_DRV_BUFF, buff, P), SIZE(PLC_DRV_BUFF, 2 * P),
};

static void check_layout(void) {
    printf("record layout, %u-bit pointers:\n", (unsigned)(8 * P));
    for (const struct layout_row *row = layout; row < layout + sizeof layout / sizeof layout[0]; ++row) {
        printf("  %-40s %3zu%s\n", row->what, row->got, row->got == row->want ? "" : "  <- differs");
        check(row->got == row->want, row->what);
    }
}

static void check_entry_points(const char *libdir) {
    // A port record as the runtime hands it in; kplc_init connects nowhere.
    CommunicationProperty port = {._baud = 0x7F000001u, ._datBits = 9600, ._plcGlobalTimeout = 1};

    void *drv = kplc_create();
    check(drv != NULL, "kplc_create returns an instance");
    if (drv == NULL) return;
    check(kplc_init(drv, &port) == ER_OK, "kplc_init returns ER_OK");
    // The run-time version query a runtime uses: driver number and version.
    PLC_DRV_INFO info = {0};
    check(kplc_driver_info(drv, &info) == ER_OK, "kplc_driver_info returns ER_OK");
    printf("driver %u, driver version %u\n", (unsigned)info.driver_no, (unsigned)info.version);
    check(info.driver_no == 714 && info.version == 10, "kplc_driver_info reports driver 714, version 10");

    Mulity_Property batch;
    memset(&batch, 0xEE, sizeof batch);
    check(kplc_ioctrl(drv, &port, 1000, NULL, (unsigned char *)&batch) == ER_OK, "kplc_ioctrl(1000) returns ER_OK");
    check(batch.nReg == 8 && batch.TotalPackage == 16, "kplc_ioctrl(1000) reports 8 registers, 16 packages");

    Dl_info where;
    void *entry;
    unsigned int (*fn)(void *, PLC_DRV_INFO *) = kplc_driver_info;
    memcpy(&entry, &fn, sizeof entry);
    const int found = dladdr(entry, &where) != 0 && where.dli_fname != NULL;
    check(found, "dladdr finds the library of kplc_driver_info");
    if (!found) return;
    printf("library: %s\n", where.dli_fname);
    // Folders compared as the file system resolves them: with /lib a link to
    // usr/lib, the loader may name either path.
    char dir[PATH_MAX], got[PATH_MAX], want[PATH_MAX];
    snprintf(dir, sizeof dir, "%s", where.dli_fname);
    char *slash = strrchr(dir, '/');
    if (slash != NULL) *slash = '\0';
    check(libdir == NULL || (slash != NULL && realpath(dir, got) != NULL && realpath(libdir, want) != NULL &&
                             strcmp(got, want) == 0),
          "the entry points come from the library in the expected folder");
}

int main(int argc, char **argv) {
    printf("kplc headers %s\n", HEADER_VERSION);
#ifdef KPLC_EXPECTED_VERSION
    printf("package version %s\n", KPLC_EXPECTED_VERSION);
    check(strcmp(HEADER_VERSION, KPLC_EXPECTED_VERSION) == 0, "header version macros match the package version");
#endif
    check_layout();
    check_entry_points(argc > 1 ? argv[1] : NULL);
    printf("%d passed, %d failed\n", checks - failures, failures);
    return failures == 0 ? 0 : 1;
}
