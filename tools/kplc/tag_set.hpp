// The tags of one tag file as the driver sees them.
//
// The tool never interprets a tag file line itself: every line goes through
// the driver's own parser (found in the loaded library), and the lines are cut
// exactly as the driver's loader cuts them, so tag k here is the record the
// driver addresses with regId k.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kplc/tags.h"
#include "tag_types.hpp"

namespace kplc::cli {

// The driver's line parser (kplc_pase_str).
using ParseLine = int (*)(char *line, kplc_tag_str *tag);

// The definition lines of a tag file, cut as the driver's loader cuts them:
// chunks of at most 255 characters that end early at a line feed; only chunks
// that end in a line feed are definitions (so a last line without one is not).
std::vector<std::string> definition_lines(std::string_view contents);

// Array bounds as the runtime addresses elements: row-major offsets, the last
// index varying fastest.
struct Shape {
    unsigned dims = 0;  // 0: a single element
    std::array<int32_t, 3> lo{};
    std::array<int32_t, 3> hi{};
    std::array<uint32_t, 3> size{};
    uint32_t elements = 1;
};

struct Tag {
    kplc_tag_str rec{};             // as the driver's parser filled it
    uint16_t id = 0;                // 1-based position in the file: the regId
    std::string label;              // program-qualified name as the tool shows it
    const TypeInfo *type = nullptr; // null when the type column named no known type
    std::optional<Shape> shape;     // null when the bounds describe no usable array
    uint32_t element_bytes = 0;     // bytes of one element in the runtime buffer; 0: unusable

    [[nodiscard]] bool is_text() const noexcept { return type != nullptr && type->bits == 0; }
    [[nodiscard]] bool is_string_shape() const noexcept { return rec.attr == STRING; }
    [[nodiscard]] bool is_local() const noexcept { return rec.mode_type != -1; }
};

// A stretch of one tag named on the command line.
struct Selection {
    std::size_t tag = 0;      // index into TagSet::tags()
    uint32_t first = 0;       // first element (row-major offset)
    uint32_t count = 1;       // elements
    bool whole = true;        // the whole tag was named (arrays print as nested lists)
    std::string label;        // how results are labelled
};

struct Lookup {
    std::optional<Selection> selection;
    std::string error;  // set when selection is empty
};

class TagSet {
public:
    // Parses every definition line of `contents` with the driver's parser.
    static TagSet parse(std::string_view contents, ParseLine parser);

    [[nodiscard]] const std::vector<Tag> &tags() const noexcept { return tags_; }

    // Resolves a command-line name: a tag id ("3"), a tag name as `list` shows
    // it or as the tag file spells it ("Main.Step", "Axis[2,3]",
    // "Cell[1][2].Val"), optionally followed by the index of one array element
    // ("Speed[3]", "Grid[1,2]" or "Grid[1][2]", "Title[0]").
    [[nodiscard]] Lookup find(std::string_view query) const;

private:
    std::optional<std::size_t> find_base(std::string_view query) const;
    std::vector<Tag> tags_;
};

// Element label: "Speed[3]", "Grid[1,2]" for element `e` of `tag`.
std::string element_label(const Tag &tag, uint32_t e);

// Shape column of `list`: "[0..9]", "[1..3, 0..4]", "-" for a single element.
std::string shape_text(const Tag &tag);

// Type column of `list`: "DINT", "STRING(20)", "?" for an unknown type.
std::string type_text(const Tag &tag);

// Bytes the driver puts on the wire for the name of element `e` in a read
// (symbol entry: count + UTF-16 units), an upper bound taken from the UTF-8
// length of the name.
uint32_t read_name_cost(const Tag &tag, uint32_t e);

}  // namespace kplc::cli
