// The limits the driver applies to what it reads and writes, and the facts of
// where it finds a tag file. The tool plans its requests from these, so a
// batch the tool accepts is one the driver sends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "format/frame_limits.hpp"
#include "format/wire_items.hpp"

namespace kplc::format {

// ---- Reads ---------------------------------------------------------------------

// Requests of one read batch.
inline constexpr std::size_t kMaxReadRequests = 256;
// Requests per batch the driver announces to the runtime.
inline constexpr std::size_t kAnnouncedReadRequests = 8;
// The most elements one read by location request carries in its 4096 bytes.
inline constexpr std::size_t kMaxReadElements =
    (proto::kReceiveArea - wire::kLocationHeaderSize) / wire::kLocationEntrySize;
// Names of one scope: every resolve item takes kItemStride bytes of the
// 4096-byte answer, and the last is read up to its location.
inline constexpr std::size_t kMaxReadNames = (proto::kReceiveArea - wire::kItemUsable) / wire::kItemStride + 1;
// The word count of a location entry is one byte.
inline constexpr uint32_t kMaxEntryWords = 0xFF;
// Shortest replies a read pass goes on with: a resolve reply of more than 24
// bytes (the first item's location is then checked byte by byte as the read
// by location request is built), a value reply that reaches its data offset.
inline constexpr std::size_t kMinResolveReply = 25;
inline constexpr std::size_t kMinValueReply = wire::kReplyDataOffset;

// ---- Writes --------------------------------------------------------------------

// A multi-bit write carries one value byte per bit and is taken through a
// 256-byte copy; longer ones are refused rather than cut.
inline constexpr uint32_t kMaxBoolRun = 256;
// The text write carries data_len in a single byte: 12 header-and-address
// bytes plus the text must stay within 255, so at most 242 text bytes (an
// even number, after the fill byte).
inline constexpr uint32_t kMaxTextBytes = 242;

// ---- Tags and files ------------------------------------------------------------

// Elements of one array the tool and the simulator address; it keeps every
// runtime byte offset of a request within 32 bits.
inline constexpr uint64_t kMaxArrayElements = uint64_t{1} << 20;
// The runtime's control command for a multi-read, answered with the driver's
// batch properties.
inline constexpr int kIoctlMultiRead = 1000;
// The runtime hands the driver 50 bytes for a tag file name; the longest
// (a negative 32-bit device index) takes 37.
inline constexpr std::size_t kTagFileNameSize = 50;

// The tag file of a PLC, "./driver/PLC<address as 8 hex digits>_<device
// index>.csv", written into `out` (kTagFileNameSize bytes), zero-terminated.
inline void form_tag_file_name(char *out, uint32_t address, int device_index) noexcept {
    std::snprintf(out, kTagFileNameSize, "./driver/PLC%08X_%d.csv", address, device_index);
}

}  // namespace kplc::format
