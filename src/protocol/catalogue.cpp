// The PLC's program catalogue.
//
// The catalogue lists the PLC's programs by id and name. The read path needs it
// to address a program-local tag: the tag file names the program, the PLC
// expects its id. It is asked for with two fixed requests: a first catalogue
// request whose answer only has to be non-empty, then the program catalogue
// itself:
//   offset 14: entry count
//   from 15, per entry at s: 2 bytes, L at s+2 (name bytes + 2), 1 byte,
//   program id at s+4, the name as UTF-16BE (L - 2 bytes) at s+5, 1 byte;
//   the next entry starts at s + L + 4 (s + 6 when L < 2).
#include "protocol/catalogue.hpp"

#include "protocol/frame.hpp"
#include "support/text_encoding.hpp"

namespace kplc::proto {
namespace {

// Shortest program catalogue: the header and the count.
constexpr std::size_t kCatalogueMinimum = wire::kCatalogueEntriesOffset;
using wire::kCatalogueEntryGap;
using wire::kCatalogueEntryLead;
using wire::kCatalogueLengthBias;

static_assert(kCatalogueCapacity > 255, "a one-byte entry count always fits the catalogue table");

}  // namespace

// Entries are read only within the received bytes. A catalogue that ends
// inside an entry keeps the entries that arrived whole (id and all name bytes;
// the unused byte after the name need not be there) and counts only those:
// each of them is exactly what the PLC sent, and a partial table still lets
// the read path address the programs it holds, where refusing would keep the
// link down against a PLC that always answers the same way.
std::optional<uint32_t> parse_catalogue(std::span<const uint8_t> response,
                                        std::span<CatalogueEntry, kCatalogueCapacity> table) noexcept {
    if (response.size() < kCatalogueMinimum) return std::nullopt;
    FrameReader in(response, wire::kCatalogueCountOffset);
    uint8_t count = 0;
    (void)in.u8(count);  // received: checked above

    uint32_t loaded = 0;
    for (; loaded < count; ++loaded) {
        uint8_t length = 0;
        uint8_t id = 0;
        if (!in.skip(kCatalogueEntryLead) || !in.u8(length) || !in.skip(kCatalogueEntryGap) || !in.u8(id)) break;
        const std::size_t name_bytes = length > kCatalogueLengthBias ? length - kCatalogueLengthBias : 0;
        const auto name = in.take(name_bytes);
        if (!name) break;
        (void)in.skip(wire::kCatalogueEntryTail);

        CatalogueEntry &entry = table[loaded];
        entry.local_id = id;
        // Up to 126 units can take 378 bytes of UTF-8; the name is cut at a
        // character boundary to fit the 256-byte field with its terminator.
        utf16be_to_utf8(*name, std::span<char>(entry.name));
    }
    return loaded;
}

}  // namespace kplc::proto
