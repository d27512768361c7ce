// Reading JSON: the requests of `serve`, one object per line.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kplc::cli {

struct JsonValue {
    enum class Kind { Null, Bool, Number, String, Array, Object };
    Kind kind = Kind::Null;
    bool boolean = false;
    std::string text;  // a string's UTF-8 contents, or a number as written
    std::vector<JsonValue> items;
    std::vector<std::pair<std::string, JsonValue>> members;  // in the order written

    // The member `key` of an object; null when absent or not an object.
    [[nodiscard]] const JsonValue *get(std::string_view key) const;
};

// One JSON value filling `text` (blanks around it allowed). Nesting deeper
// than 64 levels is refused, so that a hostile line cannot exhaust the stack.
std::optional<JsonValue> parse_json(std::string_view text, std::string &error);

}  // namespace kplc::cli
