// Which requests a read pass covers, and how many elements each one asks for.
#include "protocol/read_plan.hpp"

#include <algorithm>
#include <cstring>

#include "kplc/driver.h"
#include "protocol/names.hpp"

namespace kplc::proto::read {

namespace {

// Room for a tag name (at most 255 bytes) and the longest suffix,
// "[#i,#j,#k][#c]" with four 11-character numbers.
constexpr std::size_t kNameBufferSize = 256 + 64;

bool is_array(var_attr shape) noexcept { return shape == ARRAY || shape == ARRAY2 || shape == ARRAY3; }

// A string tag without array bounds is named as one string; its names carry
// no element index, so such a request can only cover characters of that one string.
bool is_single_string(const kplc_tag_str &tag) noexcept {
    return format::string_dimensions(tag) == 0;
}

// regAddr is a byte offset for 16/32/64-bit tags; the element index is that
// offset divided by the element width.
uint32_t first_element(uint8_t bits, uint32_t address) noexcept {
    return format::element_of_offset(bits, address);
}

Refusal shape_string(const kplc_tag_str &tag, const Reg &reg, const DrvRWBuf &buf, RequestPlan &out) noexcept {
    if (tag.bits != 0) return Refusal::UnsupportedWidth;
    // byte_len includes the terminator: one byte, two for a wide string. A
    // length that leaves no character cannot be divided into elements.
    const uint32_t size = format::string_element_size(tag);
    if (size == 0) return Refusal::EmptyStringElement;
    const uint32_t wanted = reg.regNums;

    // regAddr is a byte position in the string elements laid end to end
    // without their terminators. The number of elements is taken from the
    // length alone, as the PLC's names expect one element per started
    // element_size bytes.
    out.element_size = size;
    out.first = reg.regAddr / size;
    out.offset = reg.regAddr % size;
    out.count = wanted <= size ? 1 : wanted / size + (wanted % size != 0 ? 1 : 0);
    if (is_single_string(tag) && (out.count != 1 || out.first != 0)) return Refusal::NotOneElement;

    // Chunks after the first are whole elements, the widest the request asks for.
    const uint32_t widest = format::string_chunk_words(out.count > 1 ? size : size - out.offset);
    if (widest > kMaxWordCount) return Refusal::ChunkTooWide;

    // The runtime sized its buffer for the bytes it asked for (and says so in
    // `size` when it fills it in); whole chunks may be longer, so copies stop there.
    out.limit = wanted;
    if (buf.size > 0) out.limit = std::min(out.limit, static_cast<uint32_t>(buf.size));
    return Refusal::None;
}

// shape_request, inlined into plan_pass.
inline Refusal shape(const kplc_tag_str &tag, const Reg &reg, const DrvRWBuf &buf, RequestPlan &out) noexcept {
    out.tag = &tag;
    if (buf.buff == nullptr) return Refusal::NoBuffer;
    if (tag.attr == STRING) return shape_string(tag, reg, buf, out);
    if (!format::decoded_width(tag.bits)) return Refusal::UnsupportedWidth;
    out.first = first_element(tag.bits, reg.regAddr);
    out.count = elements_in_stretch<uint32_t>(tag.bits, reg.regNums);
    // A scalar or structure member is sent as its bare name, which resolves to
    // exactly one item.
    if (!is_array(tag.attr) && out.count != 1) return Refusal::NotOneElement;
    return Refusal::None;
}

void refuse_scope(PassPlan &plan) noexcept {
    for (std::size_t i = 0; i < plan.size; ++i) {
        if (!plan.requests[i].reads()) continue;
        plan.requests[i].refusal = Refusal::ScopeTooLarge;
        ++plan.refused;
    }
    plan.reading = 0;
    plan.elements = 0;
    plan.symbol_bytes = 0;
}

// Symbol entries are written into the plan's symbol area while they fit
// `room`; `total` counts their bytes all the same, so that a scope that does
// not fit is known and refused once every request has been sized.
class SymbolArea {
public:
    SymbolArea(PassPlan &plan, std::size_t room) noexcept : plan_(plan), room_(room) {}

    [[nodiscard]] uint64_t total() const noexcept { return total_; }
    // Forgets the entries after `total` bytes (a request with a name that cannot be formed).
    void rewind(uint64_t total) noexcept { total_ = total; }

    // Entry of a name made of `wide` (code units already high byte first)
    // and the ASCII `suffix` (zero-terminated).
    void add_plain(std::span<const uint8_t> wide, const char *suffix, std::size_t suffix_len) noexcept {
        const std::size_t units = wide.size() / 2 + suffix_len;
        uint8_t *out = reserve(2 + 2 * units);
        if (out == nullptr) return;
        out[0] = static_cast<uint8_t>(units >> 8);
        out[1] = static_cast<uint8_t>(units);
        // Eight bytes at a time: `wide` has room for the rounding, and so has
        // the area, whose room ends at least 18 bytes (a resolve request's
        // head) before its array does; the suffix and later entries overwrite
        // the excess.
        for (std::size_t k = 0; k < wide.size(); k += 8) std::memcpy(out + 2 + k, wide.data() + k, 8);
        out += 2 + wide.size();
        for (; *suffix != 0; ++suffix) {
            *out++ = 0;
            *out++ = static_cast<uint8_t>(*suffix);
        }
    }

    void add_units(std::span<const uint16_t> units) noexcept {
        uint8_t *out = reserve(2 + 2 * units.size());
        if (out == nullptr) return;
        *out++ = static_cast<uint8_t>(units.size() >> 8);
        *out++ = static_cast<uint8_t>(units.size());
        for (uint16_t unit : units) {
            *out++ = static_cast<uint8_t>(unit >> 8);
            *out++ = static_cast<uint8_t>(unit);
        }
    }

private:
    // Where `bytes` more bytes go, or null once the area is full.
    uint8_t *reserve(std::size_t bytes) noexcept {
        const uint64_t at = total_;
        total_ += bytes;
        if (total_ > room_) return nullptr;
        return plan_.symbols.data() + at;
    }

    PassPlan &plan_;
    std::size_t room_;
    uint64_t total_ = 0;

public:
    // Working space for forming names, kept here rather than on the stack of
    // each request's call: a hardened build guards every frame that holds an
    // array, which at one call per request is more than the rest of its work.
    struct Scratch {
        std::array<uint8_t, 2 * sizeof(kplc_tag_str::name)> wide;  // a tag name as code units
        // Room for the longest suffix, "[#i,#j,#k][#c]" with four 11-character numbers.
        std::array<char, 64> suffix;
        std::array<char, kNameBufferSize> name;
        std::array<uint16_t, kMaxNameUnits + 1> units;
    } scratch;
};

// Forms the names of a request's elements into the symbol area. false when a
// name cannot be formed (the area is then as it was before the request).
bool add_symbols(SymbolArea &area, const RequestPlan &request) noexcept {
    const kplc_tag_str &tag = *request.tag;
    // The tag name's length, and whether all its bytes are below 0xC0: such
    // text converts to one code unit per byte of the same value, so that part
    // of every name is widened once here instead of converted per name.
    auto &wide = area.scratch.wide;
    std::size_t name_len = 0;
    bool plain = true;
    for (; name_len < sizeof tag.name; ++name_len) {
        const auto c = static_cast<unsigned char>(tag.name[name_len]);
        if (c == 0) break;
        plain = plain && c < 0xC0;
        wide[2 * name_len] = 0;
        wide[2 * name_len + 1] = c;
    }
    if (name_len >= sizeof tag.name) return false;  // no terminator in the name field
    const uint64_t start = area.total();

    if (plain) {
        auto &suffix = area.scratch.suffix;
        for (uint32_t m = 0; m < request.count; ++m) {
            // A scalar or structure member is named by the tag name alone.
            std::optional<std::size_t> len = 0;
            suffix[0] = '\0';
            if (request.is_string())
                len = string_element_suffix(suffix, tag, request.first + m, m == 0 ? request.offset : 0);
            else if (is_array(tag.attr))
                len = element_suffix(suffix, tag, tag.attr, request.first + m);
            if (!len || name_len + *len > kMaxNameUnits) {
                area.rewind(start);
                return false;
            }
            area.add_plain(std::span<const uint8_t>(wide.data(), 2 * name_len), suffix.data(), *len);
        }
        return true;
    }

    auto &name = area.scratch.name;
    auto &units = area.scratch.units;
    for (uint32_t m = 0; m < request.count; ++m) {
        const auto count = element_utf8_name(name, request, m) ? name_units(name.data(), units) : std::nullopt;
        if (!count) {
            area.rewind(start);
            return false;
        }
        area.add_units(std::span<const uint16_t>(units.data(), *count));
    }
    return true;
}

}  // namespace

const char *describe(Refusal refusal) noexcept {
    switch (refusal) {
        case Refusal::None: return "none";
        case Refusal::UnknownTag: return "tag id not in the tag table";
        case Refusal::NoBuffer: return "no value buffer";
        case Refusal::UnsupportedWidth: return "type has no known read";
        case Refusal::NotOneElement: return "stretch is not the tag's one element";
        case Refusal::EmptyStringElement: return "string elements hold no character";
        case Refusal::ChunkTooWide: return "string element wider than one location entry can read";
        case Refusal::BadName: return "name cannot be formed within 255 code units";
        case Refusal::ScopeTooLarge: return "scope does not fit one request";
    }
    return "unknown";
}

void map_program(kplc_tag_str &tag, std::span<const Local_MSG> catalogue) noexcept {
    if (tag.mode_type < 0) return;
    const char *program = reinterpret_cast<const char *>(tag.local_name);
    for (const Local_MSG &entry : catalogue)
        if (std::strncmp(entry.name, program, sizeof entry.name) == 0) tag.mode_type = static_cast<int32_t>(entry.local_id);
}

Refusal shape_request(const kplc_tag_str &tag, const Reg &reg, const DrvRWBuf &buf, RequestPlan &out) noexcept {
    return shape(tag, reg, buf, out);
}

std::optional<std::size_t> element_utf8_name(std::span<char> out, const RequestPlan &request, uint32_t m) noexcept {
    const kplc_tag_str &tag = *request.tag;
    // The last bracket of a string name is the character where reading starts;
    // only the first element starts inside.
    if (request.is_string()) return string_element_name(out, tag, request.first + m, m == 0 ? request.offset : 0);
    return element_name(out, tag, tag.attr, request.first + m);
}

void plan_pass(PassPlan &plan, std::span<kplc_tag_str> table, std::span<const Reg> regs,
               std::span<DrvRWBuf *const> bufs, int32_t scope, std::span<const Local_MSG> catalogue) noexcept {
    plan.scope = scope;
    plan.size = std::min({regs.size(), bufs.size(), plan.requests.size()});
    plan.reading = 0;
    plan.elements = 0;
    plan.symbol_bytes = 0;
    plan.refused = 0;
    plan.scopes = 0;

    uint64_t elements = 0;
    for (std::size_t i = 0; i < plan.size; ++i) {
        RequestPlan &request = plan.requests[i];
        request = RequestPlan{};
        const Reg &reg = regs[i];
        if (reg.regId == 0 || reg.regId > table.size()) {
            request.in_scope = scope == kGlobalScope;
            request.refusal = Refusal::UnknownTag;
            if (request.in_scope) ++plan.refused;
            plan.scopes |= scope_bit(kGlobalScope);
            continue;
        }
        kplc_tag_str &tag = table[reg.regId - 1];
        if (tag.mode_type >= 0) map_program(tag, catalogue);  // global tags have no program
        plan.scopes |= scope_bit(tag.mode_type);
        if (tag.mode_type != scope) continue;
        request.in_scope = true;
        request.refusal = shape(tag, reg, *bufs[i], request);
        if (request.reads()) elements += request.count;
        else ++plan.refused;
    }

    // Every element costs a location entry; more than kMaxElements cannot be
    // read in one request. Checked before forming names, so that a stretch of
    // millions of elements is not walked.
    if (elements > kMaxElements) {
        refuse_scope(plan);
        return;
    }

    // Header, 00 01, the scope block and the symbol count precede the entries.
    const std::size_t resolve_head = kHeaderSize + 2 + (scope == kGlobalScope ? 2 : 8) + 2;
    SymbolArea symbols(plan, kFrameSize - resolve_head);
    uint64_t value_bytes = kResponseDataOffset;
    for (std::size_t i = 0; i < plan.size; ++i) {
        RequestPlan &request = plan.requests[i];
        if (!request.reads()) continue;
        if (!add_symbols(symbols, request)) {
            request.refusal = Refusal::BadName;
            ++plan.refused;
            continue;
        }
        if (request.is_string()) {
            for (uint32_t m = 0; m < request.count; ++m) value_bytes += 2 * element_words(request, m);
        } else {
            value_bytes += 2 * static_cast<uint64_t>(element_words(request, 0)) * request.count;
        }
        request.first_entry = static_cast<uint16_t>(plan.elements);
        plan.elements += request.count;
        ++plan.reading;
    }
    // Each resolve item takes at least 24 bytes of the answer and the last one
    // is read up to its location (byte 25), so names beyond what one 4096-byte
    // answer can carry could never be read: 171 names or more.
    const uint64_t resolve_answer = plan.elements == 0 ? 0 : wire::kItemStride * (plan.elements - 1) + wire::kItemUsable;
    // All names of a scope travel in one request and all values come back in
    // one response; a scope that needs more than that is refused rather than split.
    plan.symbol_bytes = static_cast<std::size_t>(std::min<uint64_t>(symbols.total(), kFrameSize));
    if (resolve_head + symbols.total() > kFrameSize || value_bytes > kFrameSize || resolve_answer > kFrameSize)
        refuse_scope(plan);
}

}  // namespace kplc::proto::read

extern "C" {

KPLC_API int xplc_getnum(int bits, int size) {
    // A string request is one element here; see the read pass.
    return kplc::format::elements_in_stretch<int>(bits, size);
}

KPLC_API int xplc_gettype(int bits, int num) {
    if (bits == 0) return num;  // a string chunk's own word count
    return static_cast<int>(kplc::format::words_per_element(bits));
}

}  // extern "C"
