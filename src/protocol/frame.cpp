#include "protocol/frame.hpp"

#include <algorithm>
#include <cstring>

#include "kplc/support.h"

namespace kplc::proto {

bool FrameWriter::reserve(std::size_t count) noexcept {
    if (!ok_ || buf_.size() - pos_ < count) {
        ok_ = false;
        return false;
    }
    return true;
}

bool FrameWriter::begin(Command command, uint16_t sequence) noexcept {
    pos_ = 0;
    ok_ = true;
    begun_ = true;
    // data_len and its complement are filled in by finish().
    static_assert(wire::kCommandOffset == wire::kSequenceOffset + 2 && wire::kHeaderSize == wire::kCommandOffset + 2);
    return zeros(wire::kSequenceOffset) && u16(sequence) && u16(static_cast<uint16_t>(command));
}

bool FrameWriter::u8(uint8_t value) noexcept {
    if (!reserve(1)) return false;
    buf_[pos_++] = value;
    return true;
}

bool FrameWriter::u16(uint16_t value) noexcept {
    if (!reserve(2)) return false;
    buf_[pos_++] = static_cast<uint8_t>(value >> 8);
    buf_[pos_++] = static_cast<uint8_t>(value);
    return true;
}

bool FrameWriter::u32(uint32_t value) noexcept {
    if (!reserve(4)) return false;
    for (int shift = 24; shift >= 0; shift -= 8) buf_[pos_++] = static_cast<uint8_t>(value >> shift);
    return true;
}

bool FrameWriter::bytes(std::span<const uint8_t> data) noexcept {
    if (!reserve(data.size())) return false;
    if (!data.empty()) std::memcpy(buf_.data() + pos_, data.data(), data.size());
    pos_ += data.size();
    return true;
}

bool FrameWriter::zeros(std::size_t count) noexcept {
    if (!reserve(count)) return false;
    std::fill_n(buf_.data() + pos_, count, uint8_t{0});
    pos_ += count;
    return true;
}

bool FrameWriter::scope(int32_t mode) noexcept {
    if (mode == kGlobalScope) return zeros(wire::kGlobalScopeBlock);
    static_assert(wire::kScopeProgramByte == 3 && wire::kProgramScopeBlock == 8);
    static constexpr std::array<uint8_t, wire::kScopeProgramByte> kLocalPrefix{wire::kProgramScopeKind,
                                                                               wire::kProgramScopeKind, 0x00};
    return bytes(kLocalPrefix) && u8(static_cast<uint8_t>(mode)) &&
           zeros(wire::kProgramScopeBlock - wire::kScopeProgramByte - 1);
}

bool FrameWriter::symbol(std::span<const uint16_t> units) noexcept {
    if (units.size() > 0xFFFF || !reserve(2 + 2 * units.size())) {
        ok_ = false;
        return false;
    }
    (void)u16(static_cast<uint16_t>(units.size()));
    for (uint16_t unit : units) (void)u16(unit);
    return true;
}

bool FrameWriter::patch_u16(std::size_t offset, uint16_t value) noexcept {
    if (!ok_ || offset > pos_ || pos_ - offset < 2) {
        ok_ = false;
        return false;
    }
    buf_[offset] = static_cast<uint8_t>(value >> 8);
    buf_[offset + 1] = static_cast<uint8_t>(value);
    return true;
}

std::size_t FrameWriter::finish() noexcept {
    if (!ok_ || !begun_ || pos_ < kHeaderSize) return 0;
    wire::put_length(buf_, pos_);
    return pos_;
}

bool FrameReader::u8(uint8_t &out) noexcept {
    if (!has(1)) return false;
    out = data_[pos_++];
    return true;
}

bool FrameReader::u16(uint16_t &out) noexcept {
    if (!has(2)) return false;
    out = static_cast<uint16_t>(data_[pos_] << 8 | data_[pos_ + 1]);
    pos_ += 2;
    return true;
}

bool FrameReader::skip(std::size_t count) noexcept {
    if (!has(count)) return false;
    pos_ += count;
    return true;
}

std::optional<std::size_t> name_units(const char *utf8, std::array<uint16_t, kMaxNameUnits + 1> &units) noexcept {
    if (utf8 == nullptr) return std::nullopt;
    // Bytes below 0xC0 are one unit each, of their own value; names are
    // mostly such text, converted here without the general decoder. At the
    // first lead byte of a longer form the whole name goes the general way.
    const auto *in = reinterpret_cast<const unsigned char *>(utf8);
    std::size_t n = 0;
    while (n <= kMaxNameUnits && in[n] != 0 && in[n] < 0xC0) {
        units[n] = in[n];
        ++n;
    }
    if (n > kMaxNameUnits) return std::nullopt;  // 256 units: the text did not fit
    if (in[n] == 0) {
        units[n] = 0;
        return n;
    }
    const int count = utf8ToUnicode(reinterpret_cast<unsigned char *>(const_cast<char *>(utf8)), units.data(),
                                    static_cast<int>(units.size()));
    // A count equal to the capacity means the text did not fit and was cut.
    if (count < 0 || static_cast<std::size_t>(count) > kMaxNameUnits) return std::nullopt;
    return static_cast<std::size_t>(count);
}

std::size_t build_catalogue_request(std::span<uint8_t> out, Command command, uint16_t sequence) noexcept {
    FrameWriter w(out);
    if (!w.begin(command, sequence) || !w.zeros(wire::kCatalogueRequestBody)) return 0;
    return w.finish();
}

}  // namespace kplc::proto
