// The registry of loaded tag tables: a ring of entries hanging off a head,
// newest first, looked up by the tag file's name. Entries are never removed.
#include "tags/registry.hpp"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>


namespace {

kplc_plc_tag *entry_of(list_head *link) noexcept {
    // The link is a member of the entry; step back to the entry's start.
    return reinterpret_cast<kplc_plc_tag *>(reinterpret_cast<char *>(link) - offsetof(kplc_plc_tag, list));
}

}  // namespace

namespace kplc::tags {

void init_registry(kplc_plc_tag *plc_tags) noexcept {
    plc_tags->list.next = &plc_tags->list;
    plc_tags->list.prev = &plc_tags->list;
}

void link_between(list_head *entry, list_head *prev, list_head *next) noexcept {
    next->prev = entry;
    entry->next = next;
    entry->prev = prev;
    prev->next = entry;
}

void link_first(list_head *entry, list_head *head) noexcept { link_between(entry, head, head->next); }

kplc_plc_tag *find_table(kplc_plc_tag *plc_tags, const char *name) noexcept {
    list_head *head = &plc_tags->list;
    // A head that was never initialised (zero at load) is an empty registry.
    if (head->next == nullptr || name == nullptr) return nullptr;
    for (list_head *link = head->next; link != head; link = link->next) {
        kplc_plc_tag *entry = entry_of(link);
        if (entry->name != nullptr && std::strcmp(entry->name, name) == 0) return entry;
    }
    return nullptr;
}

int add_table(kplc_plc_tag *plc_tags, const char *name, kplc_tag_str *tag_table, u32 max_id) noexcept {
    auto *entry = static_cast<kplc_plc_tag *>(std::calloc(1, sizeof(kplc_plc_tag)));
    if (entry == nullptr) {
        std::printf("[PLC] malloc plc_tag failed at line %d\r\n", __LINE__);
        return -1;
    }
    const std::size_t size = std::strlen(name) + 1;
    entry->name = static_cast<char *>(std::malloc(size));
    if (entry->name == nullptr) {
        std::printf("[PLC] malloc name failed at line %d\r\n", __LINE__);
        std::free(entry);
        return -2;
    }
    std::memcpy(entry->name, name, size);
    entry->id_max = max_id;
    entry->tag_table = tag_table;
    if (plc_tags->list.next == nullptr) init_registry(plc_tags);
    link_first(&entry->list, &plc_tags->list);
    return 1;
}

}  // namespace kplc::tags
