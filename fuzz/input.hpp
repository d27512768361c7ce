// Reading a fuzz input as a small record: fixed fields first, then the PLC's
// replies. Every read is bounded; past the end the input reads as zeros, so
// every byte string is a valid input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kplc::fuzz {

class Input {
public:
    explicit Input(std::span<const uint8_t> data) : data_(data) {}

    uint8_t u8() { return pos_ < data_.size() ? data_[pos_++] : 0; }
    uint16_t u16() {
        const unsigned hi = u8();
        return static_cast<uint16_t>(hi << 8 | u8());
    }
    // Up to `n` bytes (fewer at the end of the input).
    std::span<const uint8_t> bytes(std::size_t n) {
        const std::size_t take = n < remaining() ? n : remaining();
        const auto out = data_.subspan(pos_, take);
        pos_ += take;
        return out;
    }
    [[nodiscard]] std::size_t remaining() const { return data_.size() - pos_; }

    // The rest as replies, each a 16-bit big-endian length and that many bytes.
    std::vector<std::span<const uint8_t>> replies() {
        std::vector<std::span<const uint8_t>> out;
        while (remaining() >= 2) out.push_back(bytes(u16()));
        return out;
    }

private:
    std::span<const uint8_t> data_;
    std::size_t pos_ = 0;
};

}  // namespace kplc::fuzz
