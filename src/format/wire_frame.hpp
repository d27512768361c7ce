// The frame header every request and reply begins with, and the reply's
// status field.
//
// Every integer on the wire is big-endian. A request is
//   0  u32  data_len: the bytes after the sequence number (frame length - 10)
//   4  4    complement: byte 4 + k is the bitwise complement of byte k
//   8  u16  sequence number
//   10 u16  command code
//   12      body
// A reply has the same first ten bytes; bytes 10-11 hold the PLC's status
// (0 done), 12-13 the command answered, and its data starts at 14. The driver
// reads a reply's data only, except the bit writer, which also wants the
// status's low byte to be 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kplc::wire {

inline constexpr std::size_t kDataLenOffset = 0;
inline constexpr std::size_t kComplementOffset = 4;
inline constexpr std::size_t kSequenceOffset = 8;
inline constexpr std::size_t kCommandOffset = 10;
inline constexpr std::size_t kHeaderSize = 12;
// Bytes of a frame that data_len does not count: itself, its complement, the sequence number.
inline constexpr std::size_t kUncountedBytes = kSequenceOffset + 2;

inline constexpr std::size_t kStatusOffset = kCommandOffset;
inline constexpr std::size_t kStatusLowOffset = kStatusOffset + 1;
inline constexpr std::size_t kAnsweredCommandOffset = kHeaderSize;
// Reply data (values, catalogue entries, resolve items) starts here.
inline constexpr std::size_t kReplyDataOffset = kAnsweredCommandOffset + 2;
inline constexpr uint16_t kStatusDone = 0;

// Byte `at` of a frame, when it was received.
constexpr std::optional<uint8_t> byte_at(std::span<const uint8_t> frame, std::size_t at) noexcept {
    if (at < frame.size()) return frame[at];
    return std::nullopt;
}

// The big-endian u16 / u32 at `at`; the caller has checked that it was received.
constexpr uint16_t be16(std::span<const uint8_t> frame, std::size_t at) noexcept {
    return static_cast<uint16_t>(frame[at] << 8 | frame[at + 1]);
}
constexpr uint32_t be32(std::span<const uint8_t> frame, std::size_t at) noexcept {
    return uint32_t{frame[at]} << 24 | uint32_t{frame[at + 1]} << 16 | uint32_t{frame[at + 2]} << 8 | frame[at + 3];
}

// The u16 at `at`, when both bytes were received.
constexpr std::optional<uint16_t> u16_at(std::span<const uint8_t> frame, std::size_t at) noexcept {
    if (at >= frame.size() || frame.size() - at < 2) return std::nullopt;
    return be16(frame, at);
}

// Fills data_len and its complement for a frame of `length` bytes (at least 8).
constexpr void put_length(std::span<uint8_t> frame, std::size_t length) noexcept {
    const auto data_len = static_cast<uint32_t>(length - kUncountedBytes);
    uint8_t *const len = frame.data() + kDataLenOffset;
    uint8_t *const complement = frame.data() + kComplementOffset;
    len[0] = static_cast<uint8_t>(data_len >> 24);
    len[1] = static_cast<uint8_t>(data_len >> 16);
    len[2] = static_cast<uint8_t>(data_len >> 8);
    len[3] = static_cast<uint8_t>(data_len);
    for (std::size_t i = 0; i < 4; ++i) complement[i] = static_cast<uint8_t>(~len[i]);
}

// Whether bytes 4-7 complement bytes 0-3; false when they were not all received.
constexpr bool complement_holds(std::span<const uint8_t> frame) noexcept {
    if (frame.size() < kSequenceOffset) return false;
    for (std::size_t i = 0; i < 4; ++i)
        if (static_cast<uint8_t>(~frame[kDataLenOffset + i]) != frame[kComplementOffset + i]) return false;
    return true;
}

// data_len as the header announces it (no complement check), when received.
constexpr std::optional<uint32_t> data_len_of(std::span<const uint8_t> frame) noexcept {
    if (frame.size() < kComplementOffset) return std::nullopt;
    return be32(frame, kDataLenOffset);
}

// The frame length a data_len announces.
constexpr uint64_t frame_length(uint32_t data_len) noexcept { return uint64_t{data_len} + kUncountedBytes; }

// Sequence number, command code of a request / status of a reply.
constexpr std::optional<uint16_t> sequence_of(std::span<const uint8_t> frame) noexcept {
    return u16_at(frame, kSequenceOffset);
}
constexpr std::optional<uint16_t> command_of(std::span<const uint8_t> request) noexcept {
    return u16_at(request, kCommandOffset);
}
constexpr std::optional<uint16_t> status_of(std::span<const uint8_t> reply) noexcept {
    return u16_at(reply, kStatusOffset);
}
constexpr std::optional<uint16_t> answered_command_of(std::span<const uint8_t> reply) noexcept {
    return u16_at(reply, kAnsweredCommandOffset);
}

}  // namespace kplc::wire
