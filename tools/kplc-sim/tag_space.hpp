// The simulated PLC's variables: the tags of a tag file, their place in
// memory, the programs that own local tags, and the resolution of the symbolic
// names the driver sends.
//
// The tag file is read with the driver's own line parser, so every name here
// is spelt exactly as the driver spells it on the wire (index brackets
// rewritten to "[#", program prefixes split off). Names are compared as the
// UTF-16 code units the driver produces from them.
//
// Names the PLC resolves, for a tag named N:
//   N                      the tag itself (its first element, first character)
//   N[#i] N[#i,#j] N[#i,#j,#k]
//                          an element of a one-, two- or three-dimensional array
//   N[#c]                  character c of a single string
//   N[#i][#c] N[#i,#j][#c] N[#i,#j,#k][#c]
//                          character c of an element of an array of strings
// Indices are the declared ones (from the array's lower bound, possibly
// negative). Character positions count bytes of the element's text: one per
// character of a STRING, two per character of a WSTRING.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kplc/tags.h"
#include "memory.hpp"

namespace kplc::sim {

// Scope of a name: kGlobal, or a program id 0 to 255.
inline constexpr int kGlobal = -1;

struct Dimension {
    int32_t min;
    int32_t max;
    [[nodiscard]] uint32_t size() const { return static_cast<uint32_t>(int64_t{max} - min + 1); }
};

struct Tag {
    kplc_tag_str rec;             // the record as the driver's parser made it
    std::u16string units;         // its name as code units
    int scope;                    // kGlobal or the owning program's id
    std::vector<Dimension> dims;  // array dimensions, outermost first (none for a scalar)
    uint32_t elements;            // product of the dimension sizes (1 for a scalar)
    bool is_string;               // STRING / WSTRING (attr STRING)
    bool is_bool;                 // one bit per element
    uint8_t area;                 // memory area (device class, or the text area)
    uint32_t first;               // location of element 0
    uint32_t stride;              // location step from one element to the next
    uint32_t text_bytes;          // bytes of text in one string element
};

// A PLC program, as the program catalogue lists it.
struct Program {
    std::string name;
    std::u16string units;
    uint8_t id;
};

// Where a resolved name points.
struct Resolved {
    const Tag *tag;
    uint8_t area;
    uint32_t location;
    // The subscripts of the name as written (element indices, then the
    // character position); the resolve item echoes them.
    std::array<int32_t, 4> subscripts{};
    uint8_t subscript_count = 0;
};

class TagSpace {
public:
    // Loads tag definitions and places them in `memory`. The text is split into
    // lines as the driver's loader splits a file (chunks of at most 255
    // characters; only chunks ending in a line feed are definitions, and the
    // k-th of them is tag id k). Tags that cannot be simulated (a name too long
    // to send, an empty or inverted range, more storage than an area holds, a
    // name already used in its scope) are left out with a line in `warnings`.
    TagSpace(std::string_view text, Memory &memory, std::vector<std::string> &warnings);

    [[nodiscard]] std::optional<Resolved> resolve(int scope, std::u16string_view name) const;
    // The same for a UTF-8 name (tests, tools).
    [[nodiscard]] std::optional<Resolved> resolve(int scope, std::string_view utf8_name) const;

    [[nodiscard]] std::span<const Tag> tags() const { return tags_; }
    [[nodiscard]] std::span<const Program> programs() const { return programs_; }
    // Definitions read from the text, simulated or not.
    [[nodiscard]] std::size_t definitions() const { return definitions_; }

private:
    void add(const kplc_tag_str &rec, std::size_t id, Memory &memory, std::vector<std::string> &warnings);
    std::optional<Resolved> element(const Tag &tag, std::span<const std::u16string_view> groups) const;

    std::vector<Tag> tags_;
    std::vector<Program> programs_;
    std::map<int, std::unordered_map<std::u16string, std::size_t>> scopes_;
    std::size_t definitions_ = 0;
};

// A UTF-8 name as the code units the driver sends (the driver's own
// conversion); nullopt for a name of more than 255 units.
std::optional<std::u16string> name_to_units(std::string_view utf8);

}  // namespace kplc::sim
