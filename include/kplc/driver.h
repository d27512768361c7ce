/* Entry points of the driver, link start-up, read passes and the write path. */
#ifndef KPLC_DRIVER_H
#define KPLC_DRIVER_H

#include <stdint.h>

#include "kplc/api.h"
#include "kplc/records.h"
#include "kplc/tags.h"

KPLC_BEGIN_DECLS

/* Entry points the panel runtime finds by name. */
KPLC_API void *kplc_create(void);
KPLC_API unsigned int kplc_init(void *drv, CommunicationProperty *setting);
KPLC_API unsigned int kplc_mulity_read(void *drv, CommunicationProperty *setting, Reg *reg, int nReg,
                                       DrvRWBuf **buff);
KPLC_API unsigned int kplc_write(void *drv, CommunicationProperty *setting, Reg *reg, void *buf);
KPLC_API unsigned int kplc_driver_info(void *drv, PLC_DRV_INFO *info);
KPLC_API unsigned int kplc_ioctrl(void *drv, CommunicationProperty *setting, int cmd, unsigned char *input,
                                  unsigned char *output);
KPLC_API unsigned int kplc_getmessagelength(void *drv, CommunicationProperty *setting, Reg *reg, int n);
KPLC_API unsigned int kplc_slave_main(void *drv, short plc_slave_id, int *local_bit, short *local_word, int semid,
                                      CommunicationProperty *settings);

/* Framework routines. */
KPLC_API unsigned int zel_plc_init(PLC_SERIAL_INIT_PARAMETERS *serial_settings, PLC_DRV_INIT_SETTINGS *settings);
KPLC_API unsigned int zel_plc_driver_info(PLC_DRV_INFO *info);

/* Link start-up and the PLC's program catalogue. */
KPLC_API int XPLC_init(PLC_DRV_INIT_SETTINGS *settings);
KPLC_API int xplc_getlocalMSG(PLC_DRV_INIT_SETTINGS *settings);

/* Read path. */
KPLC_API unsigned int xplc_mulity_read(void *drv, CommunicationProperty *setting, Reg *reg, int nReg,
                                       DrvRWBuf **buff, int var_mode);
KPLC_API int xplc_getnum(int bits, int size);
KPLC_API int xplc_gettype(int bits, int num);

/* Write path: the dispatch and its thirteen writers. */
KPLC_API unsigned int zel_plc_write(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings,
                                    int devIndex);

#define KPLC_WRITER_ARGS                                                                                      \
    PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff, PLC_DRV_INIT_SETTINGS *settings, kplc_plc_tag *kplc_tag_list, \
        int regid_temp

KPLC_API unsigned int zel_plc_write_words(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_dwords(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_4words(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_array_words(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_array_dwords(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_array_4words(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_bits(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_array_bits(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_array_struct_bits(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_bits_struct(PLC_DRV_REG_ADDR *reg_addr, PLC_DRV_BUFF *buff,
                                                PLC_DRV_INIT_SETTINGS *settings, unsigned char *var_buffer,
                                                kplc_plc_tag *kplc_tag_list, int regid_temp);
KPLC_API unsigned int zel_plc_write_string(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_string_struct(KPLC_WRITER_ARGS);
KPLC_API unsigned int zel_plc_write_array_struct_string(KPLC_WRITER_ARGS);

KPLC_END_DECLS

#endif
