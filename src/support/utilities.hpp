// General utilities: sleeps, the log-file append, hex dumps, raw file access
// and the MD5 digest of a file.
#pragma once

#include <cstdarg>

namespace kplc::support {

// Sleeps `ms` milliseconds, at most a second; 0 returns at once.
void sleep_ms(unsigned int ms) noexcept;
// Sleeps `times` microseconds, also when a signal interrupts.
void sleep_micro(unsigned int times) noexcept;
// Seeds the standard generator from the time of day.
void seed_random() noexcept;

// Appends the formatted message (at most 255 characters, no line end added)
// to the file; nothing when the file cannot be opened.
void append_log(const char *file_name, const char *format, va_list args) noexcept;

// Hex dumps on standard output, ten bytes to a line: headed "[dump_b] len=N",
// or "[prefix]\tlen=N".
void dump_named(const unsigned char *buf, int len) noexcept;
void dump_prefixed(const char *prefix, const unsigned char *buf, int len) noexcept;

// Reads or writes `nWords` bytes at byte `addr` of a file, creating it
// (owner only) when missing: the bytes transferred, or -1.
int read_file_range(const char *file_addr, char *buf, int addr, int nWords) noexcept;
int write_file_range(const char *file_addr, const char *buf, int addr, int nWords) noexcept;

// The MD5 digest of a whole file as 32 lower-case hex characters and a
// terminator in `md5_sum`: 1, or 0 when the file cannot be read.
int file_md5(const char *filename, char *md5_sum) noexcept;

}  // namespace kplc::support
