// Place numbers that some diagnostics print after "at line": fixed numbers
// that panel logs have always carried for these failures, kept so that logs
// stay comparable (the other diagnostics print their source line).
#pragma once

namespace kplc::place {

// Loading the read side's tag table for kplc_mulity_read: build, registration.
inline constexpr int kReadEntryBuild = 857;
inline constexpr int kReadEntryAdd = 861;
// The same for a single pass through xplc_mulity_read.
inline constexpr int kReadPassBuild = 320;
inline constexpr int kReadPassAdd = 324;
// A write to a tag id beyond the write-side table.
inline constexpr int kUnknownWriteTag = 2514;

}  // namespace kplc::place
