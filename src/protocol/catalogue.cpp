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

#include <array>

#include "kplc/driver.h"
#include "protocol/frame.hpp"
#include "state/process_state.hpp"
#include "support/text_encoding.hpp"
#include "transport/exchange.hpp"

namespace kplc::proto {
namespace {

// Shortest program catalogue: the header and the count.
constexpr std::size_t kCatalogueMinimum = wire::kCatalogueEntriesOffset;
using wire::kCatalogueEntryGap;
using wire::kCatalogueEntryLead;
using wire::kCatalogueLengthBias;

static_assert(kCatalogueCapacity > 255, "a one-byte entry count always fits the catalogue table");

// One catalogue request and its answer; nullopt when the exchange failed.
std::optional<std::span<const uint8_t>> ask(Command command, uint16_t sequence, transport::ReceiveArea &response,
                                            PLC_DRV_INIT_SETTINGS *settings) noexcept {
    std::array<uint8_t, kRequestSize> request{};
    const std::size_t len = build_catalogue_request(request, command, sequence);
    // 16 bytes always fit the request area.
    return transport::exchange(std::span<const uint8_t>(request).first(len), response, settings);
}

// Parses the program catalogue into the process-wide table. Entries are read
// only within the received bytes. A catalogue that ends inside an entry keeps
// the entries that arrived whole (id and all name bytes; the unused byte
// after the name need not be there) and counts only those: each of them is
// exactly what the PLC sent, and a partial table still lets the read path
// address the programs it holds, where refusing would keep the link down
// against a PLC that always answers the same way.
void parse_catalogue(std::span<const uint8_t> response) noexcept {
    auto &st = state();
    FrameReader in(response, wire::kCatalogueCountOffset);
    uint8_t count = 0;
    (void)in.u8(count);  // the caller made sure the count was received

    uint32_t loaded = 0;
    for (; loaded < count; ++loaded) {
        uint8_t length = 0;
        uint8_t id = 0;
        if (!in.skip(kCatalogueEntryLead) || !in.u8(length) || !in.skip(kCatalogueEntryGap) || !in.u8(id)) break;
        const std::size_t name_bytes = length > kCatalogueLengthBias ? length - kCatalogueLengthBias : 0;
        const auto name = in.take(name_bytes);
        if (!name) break;
        (void)in.skip(wire::kCatalogueEntryTail);

        Local_MSG &entry = st.LocalInfo[loaded];
        entry.local_id = id;
        // Up to 126 units can take 378 bytes of UTF-8; the name is cut at a
        // character boundary to fit the 256-byte field with its terminator.
        utf16be_to_utf8(*name, std::span<char>(entry.name));
    }
    st.localNum = loaded;
}

}  // namespace

Catalogue load_catalogue(PLC_DRV_INIT_SETTINGS *settings) noexcept {
    transport::ReceiveArea response{};
    const auto first = ask(Command::FirstCatalogue, wire::kFirstCatalogueSequence, response, settings);
    if (!first) return Catalogue::ExchangeFailed;
    if (first->empty()) return Catalogue::Refused;

    const auto programs = ask(Command::ProgramCatalogue, wire::kProgramCatalogueSequence, response, settings);
    if (!programs) return Catalogue::ExchangeFailed;
    if (programs->size() < kCatalogueMinimum) return Catalogue::Refused;
    parse_catalogue(*programs);
    return Catalogue::Loaded;
}

}  // namespace kplc::proto

extern "C" {

KPLC_API int xplc_getlocalMSG(PLC_DRV_INIT_SETTINGS *settings) {
    return kplc::proto::load_catalogue(settings) == kplc::proto::Catalogue::Loaded ? ER_OK : ER_INVALID;
}

}  // extern "C"
