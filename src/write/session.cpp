#include "write/session.hpp"

#include <algorithm>
#include <cstdio>

#include "protocol/link.hpp"

namespace kplc::write {

std::span<uint8_t> Session::request() noexcept { return request_; }

uint16_t Session::sequence() const noexcept { return link::sequence(link::Side::Write); }

Sent Session::send(std::size_t length) noexcept {
    received_ = 0;
    if (length == 0 || length > request_.size()) return Sent::Refused;
    // After a failed exchange the socket is closed but its descriptor number
    // is still in the settings; nothing may be sent on it until a new connect.
    if (!link::up()) return Sent::LinkLost;
    (void)link::take_sequence(link::Side::Write);
    const auto got = link::exchange(std::span<const uint8_t>(request_).first(length), response_, settings_);
    if (!got) return Sent::LinkLost;
    received_ = got->size();
    return Sent::Answered;
}

const kplc_tag_str *tag_at(const kplc_plc_tag *table, int regid) noexcept {
    if (table == nullptr || table->tag_table == nullptr || regid < 0 ||
        static_cast<uint32_t>(regid) >= table->id_max)
        return nullptr;
    return &table->tag_table[regid];
}

const kplc_tag_str *writer_tag(const kplc_plc_tag *table, int regid) noexcept {
    const kplc_tag_str *tag = tag_at(table, regid);
    if (tag == nullptr) std::printf("[PLC] tag index %d is not in the tag table at line %d\r\n", regid, __LINE__);
    return tag;
}

bool has_value(const PLC_DRV_BUFF *buff) noexcept {
    if (buff != nullptr && buff->buff != nullptr) return true;
    std::printf("[PLC] write without value bytes at line %d\r\n", __LINE__);
    return false;
}

unsigned write_words(Session &session, const proto::ResolveItem &target, uint8_t words,
                     std::span<const uint8_t> value, ValueOrder order, std::size_t min_reply) noexcept {
    const std::size_t length = build_word_write(session.request(), session.sequence(), target, words, value, order);
    switch (session.send(length)) {
        case Sent::Refused:
            std::printf("[PLC] word write of %u words does not fit at line %d\r\n", unsigned{words}, __LINE__);
            return ER_INVALID;
        case Sent::LinkLost: return ER_INVALID;
        case Sent::Answered: break;
    }
    return session.response().size() >= min_reply ? ER_OK : ER_INVALID;
}

Resolution send_resolve(Session &session, std::size_t length, const char *name) noexcept {
    switch (session.send(length)) {
        case Sent::Refused:
            std::printf("[PLC] resolve request for %.255s does not fit at line %d\r\n", name, __LINE__);
            return {Resolution::Failed, {}};
        case Sent::LinkLost: return {Resolution::Failed, {}};
        case Sent::Answered: break;
    }
    const auto response = session.response();
    if (response.empty()) return {Resolution::NoItem, {}};
    // The PLC answered, but not with a whole item: its location was not
    // received, and bytes that were not received are never used.
    const auto item = proto::ResolveCursor(response).item();
    if (!item) {
        std::printf("[PLC] resolve response for %.255s too short (%zu bytes) at line %d\r\n", name,
                    response.size(), __LINE__);
        return {Resolution::NoItem, {}};
    }
    return {Resolution::Item, *item};
}

Resolution resolve_name(Session &session, const char *name, int32_t mode) noexcept {
    std::array<uint16_t, proto::kMaxNameUnits + 1> units{};
    const auto count = proto::name_units(name, units);
    if (!count) {
        std::printf("[PLC] name %.255s is longer than 255 code units, not written at line %d\r\n", name, __LINE__);
        return {Resolution::Failed, {}};
    }
    const std::span<const uint16_t> symbol(units.data(), *count);
    return send_resolve(session, build_resolve(session.request(), session.sequence(), mode, symbol), name);
}

}  // namespace kplc::write
