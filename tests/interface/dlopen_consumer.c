// A panel runtime in miniature, compiled as C11: it loads the driver with
// dlopen, finds the entry points by name and sets up an instance from a port
// record followed by two extra records, as the runtime lays them out.
#include <dlfcn.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "kplc/records.h"

typedef void *(*create_fn)(void);
typedef unsigned int (*init_fn)(void *, CommunicationProperty *);
typedef unsigned int (*info_fn)(void *, PLC_DRV_INFO *);
typedef unsigned int (*ioctrl_fn)(void *, CommunicationProperty *, int, unsigned char *, unsigned char *);

static int failures, checks;

static void check(int ok, const char *what) {
    ++checks;
    if (!ok) ++failures, fprintf(stderr, "FAILED: %s\n", what);
}

struct port_with_extras { CommunicationProperty prop; ex_login_t extra[2]; };

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s path/to/libkplc.so\n", argv[0]);
        return 2;
    }
    void *lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (lib == NULL) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return 1;
    }
    // Function pointers from dlsym go through a data pointer, as POSIX allows.
    create_fn create;
    init_fn init;
    info_fn info;
    ioctrl_fn ioctrl;
    void *sym;
    sym = dlsym(lib, "kplc_create"), memcpy(&create, &sym, sizeof create);
    sym = dlsym(lib, "kplc_init"), memcpy(&init, &sym, sizeof init);
    sym = dlsym(lib, "kplc_driver_info"), memcpy(&info, &sym, sizeof info);
    sym = dlsym(lib, "kplc_ioctrl"), memcpy(&ioctrl, &sym, sizeof ioctrl);
    check(create && init && info && ioctrl, "entry points found by name");
    if (!(create && init && info && ioctrl)) return 1;

    struct port_with_extras port;
    memset(&port, 0, sizeof port);
    port.prop._sizeExtra = sizeof port.extra;
    port.prop._baud = 0x7F000001u; /* 127.0.0.1: nothing is connected by init */
    port.prop._datBits = 8500;
    port.prop._plcGlobalTimeout = 3;
    check(offsetof(struct port_with_extras, extra) == sizeof(CommunicationProperty),
          "extra records follow _varPort directly");

    void *drv = create();
    check(drv != NULL, "kplc_create returns an instance");
    check(init(drv, &port.prop) == ER_OK, "kplc_init returns ER_OK");
    const PLC_DRV_INIT_SETTINGS_NEW *rec = (const PLC_DRV_INIT_SETTINGS_NEW *)drv;
    check(rec->ex_count == 2, "two extra records counted");
    check((const void *)rec->ex_login == (const void *)port.extra, "extra records located");
    check(rec->view.settings.timeout2 == 0, "lower layers read timeout2 = 0");
    check(rec->old_serial_settings.mode == 'U', "work mode 0 selects a stream socket");

    PLC_DRV_INFO di = {0};
    check(info(drv, &di) == ER_OK && di.driver_no == 714 && di.version == 10, "driver info 714/10");

    unsigned char out[8];
    memset(out, 0xEE, sizeof out);
    const unsigned char want[8] = {0x08, 0, 0, 0, 0x10, 0, 0, 0};
    check(ioctrl(drv, &port.prop, 1000, NULL, out) == ER_OK, "ioctrl 1000 returns ER_OK");
    check(memcmp(out, want, sizeof want) == 0, "ioctrl 1000 writes 08 00 00 00 10 00 00 00");

    printf("%d passed, %d failed\n", checks - failures, failures);
    return failures == 0 ? 0 : 1;
}
