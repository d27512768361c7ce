// The two request frames of a read pass.
#include <algorithm>
#include <array>
#include <cstring>

#include "format/device_class.hpp"
#include "protocol/frame.hpp"
#include "protocol/read_plan.hpp"

namespace kplc::proto::read {

namespace {

using format::bit_number_in_item;

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
    // when another item is needed, so the last item's extension count is not
    // used. Only bytes that were received are read: a response cut short
    // before a byte that is needed fails the request.
    ResolveCursor items(response);
    bool first_item = true;
    for (std::size_t i = 0; i < plan.size; ++i) {
        const RequestPlan &request = plan.requests[i];
        if (!request.reads()) continue;
        const bool is_bool = request.tag->bits == 1;
        const bool bit_in_item = is_bool && bit_number_in_item(request.tag->address);
        // Every element but a string's first asks for the same number of words.
        const auto first_words = static_cast<uint8_t>(element_words(request, 0));
        const auto other_words = request.is_string() ? static_cast<uint8_t>(element_words(request, 1)) : first_words;
        for (uint32_t m = 0; m < request.count; ++m) {
            if (!first_item && !items.advance()) return 0;
            first_item = false;
            if (!items.holds(wire::kItemUsable)) return 0;
            const uint8_t *item = items.bytes();
            if (entry == entries.data() + entries.size()) return 0;  // more entries than the plan counted
            // Location entry: 00, area code, 00, word count, location.
            entry[0] = 0;
            entry[wire::kEntryArea] = item[wire::kItemArea];
            entry[2] = 0;
            entry[wire::kEntryWords] = m == 0 ? first_words : other_words;
            std::memcpy(entry + wire::kEntryLocation, item + wire::kItemLocation, wire::kItemLocationSize);
            if (is_bool) {
                // The bit number of a BOOL element inside the word the entry
                // reads: item byte 30 for the device classes that carry it
                // there, the location addressing the bit's word as it stands.
                // Elsewhere the location's last low nibble is the bit number,
                // and the entry must address the word, so that nibble is cleared.
                const std::size_t index = request.first_entry + static_cast<std::size_t>(m);
                if (index >= plan.bit_numbers.size()) return 0;
                if (bit_in_item) {
                    if (!items.holds(wire::kItemBitNumber + 1)) return 0;
                    plan.bit_numbers[index] = static_cast<uint8_t>(item[wire::kItemBitNumber] & 0x0F);
                } else {
                    uint8_t &last = entry[wire::kEntryLocationLast];
                    plan.bit_numbers[index] = static_cast<uint8_t>(last & 0x0F);
                    last = static_cast<uint8_t>(last & 0xF0);
                }
            }
            entry += kLocationEntrySize;
        }
    }
    w.bytes(std::span<const uint8_t>(entries.data(), static_cast<std::size_t>(entry - entries.data())));
    return w.finish();
}

}  // namespace kplc::proto::read
