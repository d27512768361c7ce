// The registry of loaded tag tables: a ring of entries hanging off a head,
// newest first, looked up by the tag file's name. Entries are never removed.
#pragma once

#include "kplc/tags.h"

namespace kplc::tags {

// Makes the head an empty ring (tables registered before are forgotten, not freed).
void init_registry(kplc_plc_tag *registry) noexcept;

// Links `entry` into a ring between two neighbours, or as the first after `head`.
void link_between(list_head *entry, list_head *prev, list_head *next) noexcept;
void link_first(list_head *entry, list_head *head) noexcept;

// The table registered under `name`, or null (also for a head never initialised).
kplc_plc_tag *find_table(kplc_plc_tag *registry, const char *name) noexcept;

// Registers `table` of `count` records under a copy of `name`, in front:
// 1, or -1 / -2 (with a "[PLC]" line) when the entry or the name copy cannot be allocated.
int add_table(kplc_plc_tag *registry, const char *name, kplc_tag_str *table, u32 count) noexcept;

}  // namespace kplc::tags
