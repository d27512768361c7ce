// The sizes of the wire format: where a frame's parts sit and how large the
// driver's buffers for them are. Header-only, so that the simulator and the
// command-line tool (which loads the driver with dlopen and links none of it)
// plan with the same numbers as the driver.
#pragma once

#include <cstddef>

namespace kplc::proto {

// A request header: data_len, its complement, sequence number, command.
inline constexpr std::size_t kHeaderSize = 12;
// Bytes of a frame that data_len does not count: itself, its complement, the sequence number.
inline constexpr std::size_t kUncountedBytes = 10;
// Response data (values, catalogue entries) starts here.
inline constexpr std::size_t kResponseDataOffset = 14;
// The receive area of one exchange: one read of the socket takes at most this
// many bytes, so no response is longer. A read request is built in an area of
// the same size.
inline constexpr std::size_t kReceiveArea = 4096;
// The request area of the write path and of the catalogue requests.
inline constexpr std::size_t kRequestSize = 1024;
// A name travels as at most 255 UTF-16 code units (a 256-unit conversion buffer).
inline constexpr std::size_t kMaxNameUnits = 255;
// The symbol count of a resolve and the word count of a word write travel in one byte each.
inline constexpr std::size_t kMaxNamesPerResolve = 255;
inline constexpr std::size_t kMaxWordsPerWrite = 255;
// Read by location: 18 bytes of header and counts, then 8 bytes per element.
inline constexpr std::size_t kLocationHeaderSize = 18;
inline constexpr std::size_t kLocationEntrySize = 8;
// A resolve request's fixed part with a program scope block: header, 00 01,
// the scope block (8), the symbol count (2).
inline constexpr std::size_t kProgramResolveOverhead = kHeaderSize + 2 + 8 + 2;

}  // namespace kplc::proto
