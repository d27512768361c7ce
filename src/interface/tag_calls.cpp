// The exported routines of the tag database: line parser, registry, file
// names and loading.
#include "kplc/tags.h"
#include "tags/file_names.hpp"
#include "tags/line_parser.hpp"
#include "tags/loader.hpp"
#include "tags/registry.hpp"
#include "tags/tag_name.hpp"

namespace tg = kplc::tags;

extern "C" {

KPLC_API int kplc_pase_str(char *str, kplc_tag_str *tag) { return tg::parse_definition(str, tag); }

KPLC_API int varParse(unsigned char *varInfo) {
    if (varInfo == nullptr) return 1;  // no text: no '.'
    return kplc::name_class(reinterpret_cast<const char *>(varInfo));
}

KPLC_API void insert(char *str, char *pch, int pos) { kplc::insert_char(str, pch, pos); }

KPLC_API void kplc_init_tag(kplc_plc_tag *plc_tags) { tg::init_registry(plc_tags); }

KPLC_API kplc_plc_tag *kplc_get_tagtable(kplc_plc_tag *plc_tags, char *name) {
    return tg::find_table(plc_tags, name);
}

KPLC_API int kplc_add_tagtable(kplc_plc_tag *plc_tags, char *name, kplc_tag_str *tag_table, u32 max_id) {
    return tg::add_table(plc_tags, name, tag_table, max_id);
}

KPLC_API void __list_add(struct list_head *entry, struct list_head *prev, struct list_head *next) {
    tg::link_between(entry, prev, next);
}

KPLC_API void list_add(struct list_head *entry, struct list_head *head) { tg::link_first(entry, head); }

KPLC_API void kplc_get_csv_name(CommunicationProperty *setting, Reg *reg, char *csv_name) {
    tg::port_file_name(setting, reg, csv_name);
}

KPLC_API void kplc_get_csv_name1(PLC_SERIAL_INIT_PARAMETERS *serial_settings, PLC_DRV_REG_ADDR *reg_addr,
                                 char *csv_name, int devIndex) {
    (void)reg_addr;
    tg::endpoint_file_name(serial_settings, csv_name, devIndex);
}

KPLC_API u32 kplc_build_tagtable(kplc_tag_str **g_tag_table, char *csv_name) {
    return tg::load_table(g_tag_table, csv_name);
}

}  // extern "C"
