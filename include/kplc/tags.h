/* Tag database: the tag record, the loaded-table registry and the file loader. */
#ifndef KPLC_TAGS_H
#define KPLC_TAGS_H

#include <stdint.h>

#include "kplc/api.h"
#include "kplc/records.h"

KPLC_BEGIN_DECLS

/* Shape of a tag. */
typedef enum var_attr {
    NORMAL = 0,
    ARRAY = 1,
    STRUCT = 2, /* declared; the loader never assigns it */
    STRING = 3,
    ARRAY2 = 4,
    ARRAY3 = 5
} var_attr;

/* One row of the elementary type table. */
typedef struct var_type {
    const char *name;
    uint8_t bits;
    uint16_t id;
} var_type;

/* One tag definition, parsed from one line of a tag file. */
typedef struct kplc_tag_str {
    uint16_t id;
    char name[256];
    uint16_t type;
    uint8_t bits;
    uint32_t ar_min;
    uint32_t ar_max;
    uint32_t ar1_min;
    uint32_t ar1_max;
    uint32_t ar2_min;
    uint32_t ar2_max;
    uint32_t byte_len;
    uint32_t addr;   /* reserved */
    uint16_t offset; /* reserved */
    var_attr attr;
    uint8_t var_type; /* name class: 1 no '.', 2 '.' without ']', 3 both */
    uint8_t address;  /* device class */
    int32_t mode_type; /* -1 global, else the owning program's id */
    unsigned char local_name[256];
} kplc_tag_str;

/* Two-pointer ring link. */
struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

/* One loaded tag table in a registry ring. */
typedef struct kplc_plc_tag {
    char *name;
    kplc_tag_str *tag_table;
    uint32_t id_max;
    struct list_head list;
} kplc_plc_tag;

/* Line parser and its helpers. */
KPLC_API int kplc_pase_str(char *str, kplc_tag_str *tag);
KPLC_API int varParse(unsigned char *varInfo);
KPLC_API void insert(char *str, char *pch, int pos);

/* Registry. */
KPLC_API void kplc_init_tag(kplc_plc_tag *plc_tags);
KPLC_API kplc_plc_tag *kplc_get_tagtable(kplc_plc_tag *plc_tags, char *name);
KPLC_API int kplc_add_tagtable(kplc_plc_tag *plc_tags, char *name, kplc_tag_str *tag_table, u32 max_id);
KPLC_API void __list_add(struct list_head *entry, struct list_head *prev, struct list_head *next);
KPLC_API void list_add(struct list_head *entry, struct list_head *head);

/* File naming and loading. */
KPLC_API void kplc_get_csv_name(CommunicationProperty *setting, Reg *reg, char *csv_name);
KPLC_API void kplc_get_csv_name1(PLC_SERIAL_INIT_PARAMETERS *serial_settings, PLC_DRV_REG_ADDR *reg_addr,
                                 char *csv_name, int devIndex);
KPLC_API u32 kplc_build_tagtable(kplc_tag_str **g_tag_table, char *csv_name);

KPLC_END_DECLS

#endif
