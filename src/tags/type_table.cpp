#include "tags/type_table.hpp"

namespace kplc {

const var_type *find_type(std::string_view name) noexcept {
    if (name.empty()) return nullptr;
    for (const var_type &row : type_list) {
        if (row.id == 65535) break;
        if (name == row.name) return &row;
    }
    return nullptr;
}

}  // namespace kplc
