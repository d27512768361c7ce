#include "protocol/link.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "kplc/records.h"
#include "protocol/catalogue.hpp"
#include "protocol/frame.hpp"
#include "transport/connect.hpp"

namespace kplc::link {
namespace {

LinkState &self() noexcept { return state().link; }

// One catalogue request (16 bytes, fixed sequence number) and its answer.
std::optional<std::span<const uint8_t>> ask(proto::Command command, uint16_t sequence,
                                            transport::ReceiveArea &response,
                                            PLC_DRV_INIT_SETTINGS *settings) noexcept {
    std::array<uint8_t, proto::kRequestSize> request{};
    const std::size_t len = proto::build_catalogue_request(request, command, sequence);
    return exchange(std::span<const uint8_t>(request).first(len), response, settings);
}

}  // namespace

int connect(PLC_DRV_INIT_SETTINGS *settings) noexcept { return transport::connect(self().endpoint, settings); }

Catalogue load_catalogue(PLC_DRV_INIT_SETTINGS *settings) noexcept {
    transport::ReceiveArea response{};
    const auto first = ask(proto::Command::FirstCatalogue, wire::kFirstCatalogueSequence, response, settings);
    if (!first) return Catalogue::ExchangeFailed;
    if (first->empty()) return Catalogue::Refused;

    const auto programs = ask(proto::Command::ProgramCatalogue, wire::kProgramCatalogueSequence, response, settings);
    if (!programs) return Catalogue::ExchangeFailed;
    const auto count = proto::parse_catalogue(*programs, self().catalogue);
    if (!count) return Catalogue::Refused;
    self().catalogue_size = *count;
    return Catalogue::Loaded;
}

unsigned start(PLC_DRV_INIT_SETTINGS *settings) noexcept {
    if (connect(settings) != 0) {
        std::puts("zel_plc_read init fail\r");
        return ER_TIMEOUT;
    }
    const Catalogue result = load_catalogue(settings);
    if (result != Catalogue::Loaded) {
        // A refused catalogue leaves the new socket open (a failed exchange has
        // closed it already). Close it here: the next start-up connects again,
        // and repeated refusals must not pile up open connections.
        if (result == Catalogue::Refused) ::close(settings->serial_handle);
        std::puts("xplc_getlocalMSG fail\r");
        return ER_TIMEOUT;
    }
    self().up = true;
    return ER_OK;
}

unsigned ensure_connected(PLC_DRV_INIT_SETTINGS *settings) noexcept {
    if (self().up) return ER_OK;
    if (connect(settings) != 0) {
        std::puts("zel_plc_read init fail\r");
        return ER_TIMEOUT;
    }
    self().up = true;
    return ER_OK;
}

std::optional<std::span<const uint8_t>> exchange(std::span<const uint8_t> request,
                                                 transport::ReceiveArea &response,
                                                 PLC_DRV_INIT_SETTINGS *settings) noexcept {
    auto got = transport::exchange(request, response, settings, self().drain_area);
    if (!got) self().up = false;
    return got;
}

void reset(PLC_TCP_INIT_PARAMETERS *endpoint) noexcept {
    self().write_sid = 0;
    self().up = false;
    self().endpoint = endpoint;
}

}  // namespace kplc::link
