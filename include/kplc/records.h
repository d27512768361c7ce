/* Records that cross the boundary between the panel runtime and the driver.
 *
 * The runtime lays its records out in host (little-endian) order with every
 * field at its natural alignment, in the order given here; the static
 * assertions in src/interface/layout_checks.cpp pin the offsets for LP64 and
 * ILP32. */
#ifndef KPLC_RECORDS_H
#define KPLC_RECORDS_H

#include <stdint.h>

#include "kplc/api.h"

KPLC_BEGIN_DECLS

typedef uint8_t U8;
typedef uint16_t U16;
typedef uint32_t U32;
typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef U32 StrNo;

/* Result codes of the entry points (returned as unsigned 32-bit numbers). */
enum {
    ER_OK = 0,
    ER_OTHER = 1,
    ER_TIMEOUT = 2,
    ER_INVALID = 3
};

/* The write path's result for a tag whose type, name form or shape has no writer. */
#define KPLC_ER_NO_WRITER 0xFFFFFFFFu

/* Per-port configuration handed in by the runtime. `_sizeExtra` bytes of
 * ex_login_t records follow `_varPort` in memory. */
typedef struct CommunicationProperty {
    U16 _sizeBase;
    U16 _sizeExtra;
    U32 _flag;
    U16 _no;
    U16 _plcDrvNo;
    U16 _plcDrvVersion;
    U16 _workMode;         /* 0: stream socket, otherwise datagram */
    U32 _baud;             /* PLC IPv4 address, first octet most significant */
    U16 _datBits;          /* PLC port */
    U16 _checkBits;
    U16 _stopBits;
    U16 _slaveNo;
    U16 _plcGlobalTimeout; /* response time-out, seconds */
    U16 _protocalTimeout1; /* short wait, milliseconds */
    U16 _comInterval;
    U16 _comMinCycle;
    U16 _comErrorRetrys;
    U16 _comErrorChecks;
    U16 _comNakRetrys;
    U16 _comNakChecks;
    U16 _devRetryInterval;
    U16 _devMaxRetrys;
    U16 _res;
    U16 _maxReadBlockWords;
    U16 _maxWriteBlockWords;
    U16 _maxBlockBits;
    StrNo _varSlave;
    StrNo _varIp;
    StrNo _varPort;
} CommunicationProperty;

/* One extra record behind CommunicationProperty (50 bytes each). */
typedef struct ex_login_t {
    int16_t enabled;
    char user[24];
    char password[24];
} ex_login_t;

typedef struct Ex_CommunicationProperty {
    CommunicationProperty base;
    U8 sta_no;
} Ex_CommunicationProperty;

/* One register request. */
typedef struct Reg {
    U16 flag;
    U16 hmiNo;
    U16 portNo;
    U16 plcNo;
    U8 regType;
    U8 addrMode;
    U16 regId;    /* 1-based tag id within the tag file */
    U32 regAddr;  /* start of the stretch within the tag */
    U32 regNums;  /* length of the stretch */
    U8 subAddr;
    U8 level;
    U16 _devIndex;
} Reg;

/* One result buffer of a read batch. */
typedef struct DrvRWBuf {
    U32 flag;
    void *buff;
    int32_t size;
    U32 error;
} DrvRWBuf;

typedef struct PLC_DRV_INFO {
    uint16_t driver_no;
    uint16_t version;
} PLC_DRV_INFO;

/* Answer to control command 1000. */
typedef struct Mulity_Property {
    int32_t nReg;
    int32_t TotalPackage;
} Mulity_Property;

/* Connection settings that every lower layer receives. */
typedef struct PLC_DRV_INIT_SETTINGS {
    int serial_handle;
    uint16_t mode;
    uint16_t driver_id;
    uint32_t response_timeout; /* seconds */
    uint32_t timeout1;         /* milliseconds, short wait */
    uint32_t timeout2;
} PLC_DRV_INIT_SETTINGS;

/* The first five fields of PLC_DRV_INIT_SETTINGS. */
typedef struct PLC_DRV_INIT_SETTINGS1 {
    int serial_handle;
    uint16_t mode;
    uint16_t driver_id;
    uint32_t response_timeout;
    uint32_t timeout1;
} PLC_DRV_INIT_SETTINGS1;

/* Endpoint of the link. */
typedef struct PLC_TCP_INIT_PARAMETERS {
    const char *com_device;
    int ipaddr;        /* first octet in the most significant byte */
    int16_t port;      /* used as an unsigned 16-bit port */
    uint8_t stop_bits; /* local interface: 1 eth0, 2 eth1, 3 wlan0, else none */
    uint8_t mode;      /* 'U': stream socket, else datagram */
} PLC_TCP_INIT_PARAMETERS;

/* The framework's serial parameter record; this driver always passes its
 * PLC_TCP_INIT_PARAMETERS where one is asked for. */
typedef struct PLC_SERIAL_INIT_PARAMETERS {
    const char *com_device;
    int baud;
    uint8_t parity;
    uint8_t data_bits;
    uint8_t stop_bits;
    uint8_t mode;
    int ipaddr;
    int16_t port;
} PLC_SERIAL_INIT_PARAMETERS;

/* Address of one write. */
typedef struct PLC_DRV_REG_ADDR {
    uint16_t device_id;
    uint8_t reg_type;
    uint32_t reg_id;
    uint32_t reg_addr;
    uint16_t sub_addr;
    uint16_t reserved;
} PLC_DRV_REG_ADDR;

/* Data of one write. */
typedef struct PLC_DRV_BUFF {
    uint32_t length;
    unsigned char *buff;
} PLC_DRV_BUFF;

/* The instance record returned by kplc_create; opaque to the runtime.
 *
 * Lower layers receive it as a PLC_DRV_INIT_SETTINGS. The first member is a
 * complete settings record overlaid on `old_init_settings` (a common initial
 * sequence), so `timeout2` is a field of its own on every pointer width rather
 * than a word that doubles as a null `com_device` where pointers are 32 bits
 * wide; kplc_init sets it to 0. */
typedef struct PLC_DRV_INIT_SETTINGS_NEW {
    union {
        PLC_DRV_INIT_SETTINGS1 old_init_settings;
        PLC_DRV_INIT_SETTINGS settings;
    } view;
    PLC_TCP_INIT_PARAMETERS old_serial_settings;
    ex_login_t *ex_login;
    uint8_t ex_count;
} PLC_DRV_INIT_SETTINGS_NEW;

KPLC_END_DECLS

#endif
