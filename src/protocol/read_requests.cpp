// The two request frames of a read pass.
#include <array>

#include "format/device_class.hpp"
#include "protocol/frame.hpp"
#include "protocol/read_plan.hpp"

namespace kplc::proto::read {

namespace {

using format::bit_number_in_item;

// For a BOOL element: the bit number inside the word that the entry reads,
// and the location adjusted to address that word. Elsewhere the location's
// last low nibble is the bit number, and the entry must address the word, so
// that nibble is cleared. nullopt when byte 30 of the item was not received.
std::optional<uint8_t> bool_bit(const kplc_tag_str &tag, const ResolveCursor &cursor,
                                std::array<uint8_t, 4> &location) noexcept {
    if (bit_number_in_item(tag.address)) {
        const auto byte = cursor.at(30);
        if (!byte) return std::nullopt;
        return static_cast<uint8_t>(*byte & 0x0F);
    }
    const auto bit = static_cast<uint8_t>(location[3] & 0x0F);
    location[3] = static_cast<uint8_t>(location[3] & 0xF0);
    return bit;
}

}  // namespace

std::size_t build_resolve_request(const PassPlan &plan, std::span<uint8_t> out, uint16_t sequence) noexcept {
    FrameWriter w(out);
    // 00 01 precedes the scope block in every resolve request.
    w.begin(Command::SymbolResolve, sequence);
    w.u16(0x0001);
    w.scope(plan.scope);
    w.u16(static_cast<uint16_t>(plan.elements));

    std::array<char, 256 + 64> name{};
    std::array<uint16_t, kMaxNameUnits + 1> units{};
    for (std::size_t i = 0; i < plan.size; ++i) {
        const RequestPlan &request = plan.requests[i];
        if (!request.reads()) continue;
        for (uint32_t m = 0; m < request.count; ++m) {
            // plan_pass has formed every name once already; a failure here
            // would only mean a plan not made by it.
            if (!element_utf8_name(name, request, m)) return 0;
            const auto count = name_units(name.data(), units);
            if (!count) return 0;
            w.symbol(std::span<const uint16_t>(units).first(*count));
        }
    }
    return w.finish();
}

std::size_t build_location_request(PassPlan &plan, std::span<const uint8_t> response, std::span<uint8_t> out,
                                   uint16_t sequence) noexcept {
    FrameWriter w(out);
    w.begin(Command::ReadByLocation, sequence);
    w.u8(0);
    w.u16(static_cast<uint16_t>(plan.elements));
    w.zeros(3);

    // One resolve item per name, in request order. The cursor moves on only
    // when another item is needed: the last item's extension count is not used.
    ResolveCursor cursor(response);
    bool first_item = true;
    for (std::size_t i = 0; i < plan.size; ++i) {
        const RequestPlan &request = plan.requests[i];
        if (!request.reads()) continue;
        for (uint32_t m = 0; m < request.count; ++m) {
            if (!first_item && !cursor.advance()) return 0;
            first_item = false;
            const auto item = cursor.item();
            if (!item) return 0;
            std::array<uint8_t, 4> location = item->location;
            if (request.tag->bits == 1) {
                const std::size_t entry = request.first_entry + static_cast<std::size_t>(m);
                const auto bit = bool_bit(*request.tag, cursor, location);
                if (!bit || entry >= plan.bit_numbers.size()) return 0;
                plan.bit_numbers[entry] = *bit;
            }
            // Location entry: 00, area code, 00, word count, location.
            w.u8(0);
            w.u8(item->area);
            w.u8(0);
            w.u8(static_cast<uint8_t>(element_words(request, m)));
            w.bytes(location);
        }
    }
    return w.finish();
}

}  // namespace kplc::proto::read
