// The sizes of the driver's buffers for frames, and the one-byte counts that
// bound a request. Header-only, so that the simulator and the command-line
// tool (which loads the driver with dlopen and links none of it) plan with
// the same numbers as the driver.
#pragma once

#include <cstddef>

#include "format/wire_frame.hpp"

namespace kplc::proto {

using wire::kHeaderSize;
using wire::kUncountedBytes;
inline constexpr std::size_t kResponseDataOffset = wire::kReplyDataOffset;
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

}  // namespace kplc::proto
