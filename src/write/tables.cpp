#include "write/tables.hpp"

#include <cstdio>

#include "protocol/link.hpp"
#include "state/process_state.hpp"
#include "tags/file_names.hpp"
#include "tags/loader.hpp"
#include "tags/registry.hpp"
#include "tags/table_memo.hpp"

namespace kplc::write {
namespace {

kplc_plc_tag *load(const char *csv_name) noexcept {
    kplc_plc_tag *registry = &state().write_tags;
    if (kplc_plc_tag *table = tags::find_table(registry, csv_name)) return table;
    kplc_tag_str *records = nullptr;
    const u32 count = tags::load_table(&records, csv_name);
    if (count == 0) {
        std::puts("build tag table failed!\r");
        return nullptr;
    }
    if (tags::add_table(registry, csv_name, records, count) < 0) {
        std::puts("kplc_add_tagtable failed!\r");
        return nullptr;
    }
    return tags::find_table(registry, csv_name);
}

}  // namespace

void form_file_name(int dev_index, FileName &csv_name) noexcept {
    // The endpoint is handed on under the framework's serial record type.
    tags::endpoint_file_name(reinterpret_cast<const PLC_SERIAL_INIT_PARAMETERS *>(link::endpoint()),
                             csv_name.data(), dev_index);
}

kplc_plc_tag *table_of(int dev_index, FileName &csv_name) noexcept {
    auto &st = state();
    const PLC_TCP_INIT_PARAMETERS *endpoint = link::endpoint();
    // The table of the last write, found again without forming its file name;
    // the name is formed when the table must be looked up or loaded, or reported.
    tags::TableMemo &memo = st.write_table;
    const auto address = static_cast<uint32_t>(endpoint != nullptr ? endpoint->ipaddr : 0);
    kplc_plc_tag *table = endpoint != nullptr ? memo.find(st.write_tags, address, dev_index) : nullptr;
    if (table != nullptr) return table;
    form_file_name(dev_index, csv_name);
    table = load(csv_name.data());
    if (table != nullptr && endpoint != nullptr) memo.remember(st.write_tags, address, dev_index, table);
    return table;
}

unsigned start_over(PLC_TCP_INIT_PARAMETERS *endpoint) noexcept {
    link::reset(endpoint);
    tags::init_registry(&state().write_tags);
    return 0;
}

}  // namespace kplc::write
