// Link start-up and the PLC's program catalogue.
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
#include "interface/link.hpp"

#include <array>
#include <cstdio>

#include "interface/state.hpp"
#include "kplc/driver.h"
#include "kplc/transport.h"
#include "protocol/frame.hpp"
#include "support/text_encoding.hpp"

namespace kplc {
namespace {

using proto::Command;

// Buffers as the driver's framework sizes them: the request area, and one
// receive area of the exchange.
constexpr std::size_t kRequestArea = 1028;
constexpr std::size_t kReceiveArea = 4096;
// Shortest program catalogue: the header and the count.
constexpr std::size_t kCatalogueMinimum = proto::kResponseDataOffset + 1;
// Bytes of an entry before its length byte, and between the length and the id.
constexpr std::size_t kEntryLead = 2;
constexpr std::size_t kEntryGap = 1;
// L counts the name bytes plus these two.
constexpr uint8_t kLengthBias = 2;

static_assert(kCatalogueCapacity > 255, "a one-byte entry count always fits the catalogue table");

enum class Catalogue { Loaded, ExchangeFailed, Refused };

Catalogue exchange(std::span<uint8_t> request, Command command, uint16_t sequence,
                   std::array<uint8_t, kReceiveArea> &response, int &received, PLC_DRV_INIT_SETTINGS *settings) {
    const std::size_t len = proto::build_catalogue_request(request, command, sequence);
    if (len == 0) return Catalogue::Refused;  // cannot happen: 16 bytes in 1028
    if (TransRecvSockBuff(request.data(), static_cast<int>(len), response.data(), &received, settings) != 0)
        return Catalogue::ExchangeFailed;
    return Catalogue::Loaded;
}

// Parses the program catalogue into the process-wide table. Entries are read
// only within the received bytes. A catalogue that ends inside an entry keeps
// the entries that arrived whole (id and all name bytes; the unused byte
// after the name need not be there) and counts only those: each of them is
// exactly what the PLC sent, and a partial table still lets the read path
// address the programs it holds, where refusing would keep the link down
// against a PLC that always answers the same way.
void parse_catalogue(std::span<const uint8_t> response) {
    auto &st = state();
    proto::FrameReader in(response, proto::kResponseDataOffset);
    uint8_t count = 0;
    (void)in.u8(count);  // the caller made sure the count was received

    uint32_t loaded = 0;
    for (; loaded < count; ++loaded) {
        uint8_t length = 0;
        uint8_t id = 0;
        if (!in.skip(kEntryLead) || !in.u8(length) || !in.skip(kEntryGap) || !in.u8(id)) break;
        const std::size_t name_bytes = length > kLengthBias ? length - kLengthBias : 0;
        const auto name = in.take(name_bytes);
        if (!name) break;
        (void)in.skip(1);

        Local_MSG &entry = st.LocalInfo[loaded];
        entry.local_id = id;
        // Up to 126 units can take 378 bytes of UTF-8; the name is cut at a
        // character boundary to fit the 256-byte field with its terminator.
        utf16be_to_utf8(*name, std::span<char>(entry.name));
    }
    st.localNum = loaded;
}

Catalogue load_catalogue(PLC_DRV_INIT_SETTINGS *settings) {
    auto &st = state();
    std::array<uint8_t, kRequestArea> request{};
    std::array<uint8_t, kReceiveArea> response{};
    int received = 0;

    Catalogue step = exchange(request, Command::FirstCatalogue, 0, response, received, settings);
    if (step != Catalogue::Loaded) {
        if (step == Catalogue::ExchangeFailed) st.init = 0;
        return step;
    }
    if (received < 1) return Catalogue::Refused;

    request.fill(0);
    step = exchange(request, Command::ProgramCatalogue, 1, response, received, settings);
    if (step != Catalogue::Loaded) {
        if (step == Catalogue::ExchangeFailed) st.init = 0;
        return step;
    }
    if (received < static_cast<int>(kCatalogueMinimum)) return Catalogue::Refused;

    parse_catalogue(std::span<const uint8_t>(response).first(static_cast<std::size_t>(received)));
    return Catalogue::Loaded;
}

}  // namespace

unsigned start_link(PLC_DRV_INIT_SETTINGS *settings) noexcept {
    if (XPLC_init(settings) != 0) {
        std::puts("zel_plc_read init fail\r");
        return ER_TIMEOUT;
    }
    const Catalogue result = load_catalogue(settings);
    if (result != Catalogue::Loaded) {
        // A refused catalogue leaves the new socket open (a failed exchange has
        // closed it already). Close it here: the next start-up connects again,
        // and repeated refusals must not pile up open connections.
        if (result == Catalogue::Refused) zel_close_handel(settings->serial_handle);
        std::puts("xplc_getlocalMSG fail\r");
        return ER_TIMEOUT;
    }
    state().init = 1;
    return ER_OK;
}

}  // namespace kplc

extern "C" {

KPLC_API int XPLC_init(PLC_DRV_INIT_SETTINGS *settings) {
    return CommunicationSet(kplc::state().tcp_settings, settings);
}

KPLC_API int xplc_getlocalMSG(PLC_DRV_INIT_SETTINGS *settings) {
    return kplc::load_catalogue(settings) == kplc::Catalogue::Loaded ? ER_OK : ER_INVALID;
}

}  // extern "C"
