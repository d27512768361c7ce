// The two request frames of a read pass.
#include <algorithm>
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

    // The entries were formed by plan_pass, which refuses every scope whose
    // names do not fit; a plan not made by it fails here.
    if (plan.symbol_bytes > plan.symbols.size()) return 0;
    w.bytes(std::span<const uint8_t>(plan.symbols).first(plan.symbol_bytes));
    return w.finish();
}

std::size_t build_location_request(PassPlan &plan, std::span<const uint8_t> response, std::span<uint8_t> out,
                                   uint16_t sequence) noexcept {
    FrameWriter w(out);
    w.begin(Command::ReadByLocation, sequence);
    w.u8(0);
    w.u16(static_cast<uint16_t>(plan.elements));
    w.zeros(3);
    if (plan.elements > kMaxElements) return 0;

    // The entries are formed here and written into the frame in one piece.
    std::array<uint8_t, kMaxElements * kLocationEntrySize> entries;
    uint8_t *entry = entries.data();
    // One resolve item per name, in request order. The cursor moves on only
    // when another item is needed: the last item's extension count is not used.
    ResolveCursor cursor(response);
    bool first_item = true;
    for (std::size_t i = 0; i < plan.size; ++i) {
        const RequestPlan &request = plan.requests[i];
        if (!request.reads()) continue;
        const bool is_bool = request.tag->bits == 1;
        // Every element but a string's first asks for the same number of words.
        const auto first_words = static_cast<uint8_t>(element_words(request, 0));
        const auto other_words = request.is_string() ? static_cast<uint8_t>(element_words(request, 1)) : first_words;
        for (uint32_t m = 0; m < request.count; ++m) {
            if (!first_item && !cursor.advance()) return 0;
            first_item = false;
            const auto item = cursor.item();
            if (!item) return 0;
            std::array<uint8_t, 4> location = item->location;
            if (is_bool) {
                const std::size_t index = request.first_entry + static_cast<std::size_t>(m);
                const auto bit = bool_bit(*request.tag, cursor, location);
                if (!bit || index >= plan.bit_numbers.size()) return 0;
                plan.bit_numbers[index] = *bit;
            }
            if (entry == entries.data() + entries.size()) return 0;  // more entries than the plan counted
            // Location entry: 00, area code, 00, word count, location.
            entry[0] = 0;
            entry[1] = item->area;
            entry[2] = 0;
            entry[3] = m == 0 ? first_words : other_words;
            std::copy(location.begin(), location.end(), entry + 4);
            entry += kLocationEntrySize;
        }
    }
    w.bytes(std::span<const uint8_t>(entries.data(), static_cast<std::size_t>(entry - entries.data())));
    return w.finish();
}

}  // namespace kplc::proto::read
