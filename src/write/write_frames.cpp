#include "write/write_frames.hpp"

#include <array>

namespace kplc::write {

using proto::Command;
using proto::FrameWriter;
using proto::ResolveItem;

using wire::kResolveMarker;

ResolveRequest::ResolveRequest(std::span<uint8_t> out, uint16_t sequence, int32_t mode) noexcept : w_(out) {
    if (w_.begin(Command::SymbolResolve, sequence) && w_.u16(kResolveMarker) && w_.scope(mode)) {
        count_offset_ = w_.size();
        (void)w_.u16(0);  // symbol count, patched by finish()
    }
}

bool ResolveRequest::add(std::span<const uint16_t> units) noexcept {
    if (names_ >= kMaxNamesPerResolve || !w_.symbol(units)) {
        refused_ = true;
        return false;
    }
    ++names_;
    return true;
}

std::size_t ResolveRequest::finish() noexcept {
    if (refused_ || !w_.patch_u16(count_offset_, static_cast<uint16_t>(names_))) return 0;
    return w_.finish();
}

std::size_t build_resolve(std::span<uint8_t> out, uint16_t sequence, int32_t mode,
                          std::span<const uint16_t> units) noexcept {
    ResolveRequest request(out, sequence, mode);
    if (!request.add(units)) return 0;
    return request.finish();
}

std::size_t build_word_write(std::span<uint8_t> out, uint16_t sequence, const ResolveItem &target, uint8_t words,
                             std::span<const uint8_t> value, ValueOrder order) noexcept {
    if (value.size() != 2 * std::size_t{words}) return 0;
    FrameWriter w(out);
    if (!w.begin(Command::WordWrite, sequence) || !w.u8(0) || !w.u8(target.area) || !w.u32(words) ||
        !w.bytes(target.location))
        return 0;
    if (order == ValueOrder::Wire) {
        if (!w.bytes(value)) return 0;
    } else {
        for (std::size_t i = 0; i < value.size(); i += 2)
            if (!w.u8(value[i + 1]) || !w.u8(value[i])) return 0;
    }
    return w.finish();
}

std::size_t build_bit_write(std::span<uint8_t> out, uint16_t sequence, const ResolveItem &target, bool value,
                            uint8_t bit) noexcept {
    // Beyond bit 15 the mask would hold no bit of the word at all.
    if (bit > kMaxBitNumber) return 0;
    const auto one = static_cast<uint16_t>(1u << bit);
    const uint16_t mask = value ? one : static_cast<uint16_t>(~one);
    FrameWriter w(out);
    if (!w.begin(Command::WordAreaBitWrite, sequence) || !w.u16(wire::kBitWriteMarker) || !w.u8(target.area) ||
        !w.bytes(target.location) || !w.u8(value ? 1 : 0) || !w.u16(mask))
        return 0;
    return w.finish();
}

std::size_t build_set_reset(std::span<uint8_t> out, uint16_t sequence, const ResolveItem &target,
                            uint8_t device_class, bool value) noexcept {
    FrameWriter w(out);
    if (!w.begin(value ? Command::SetBit : Command::ResetBit, sequence) || !w.u8(wire::kSetResetMarker) || !w.u8(device_class) ||
        !w.u8(target.location[2]) || !w.u8(target.location[3]))
        return 0;
    return w.finish();
}

std::size_t build_read_word(std::span<uint8_t> out, uint16_t sequence, const ResolveItem &target) noexcept {
    FrameWriter w(out);
    // One location entry asking for one word.
    if (!w.begin(Command::ReadByLocation, sequence) || !w.u8(0) || !w.u16(1) || !w.zeros(3) || !w.u8(0) ||
        !w.u8(target.area) || !w.u8(0) || !w.u8(1) || !w.bytes(target.location))
        return 0;
    return w.finish();
}

}  // namespace kplc::write
