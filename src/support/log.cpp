// Appending a formatted message to a log file, and the disabled debug print.
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kplc/support.h"

namespace {

// One message: 255 characters and the terminator. A longer message is cut to
// its first 255 characters (vsnprintf stops there), never written past the buffer.
constexpr std::size_t kLogMessageSize = 256;

}  // namespace

extern "C" {

KPLC_API void zel_log(char *szFileName, const char *format, ...) {
    if (szFileName == nullptr || format == nullptr) return;
    std::FILE *file = std::fopen(szFileName, "a");
    if (file == nullptr) return;
    std::array<char, kLogMessageSize> text{};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    // The text goes out as formatted: no line end is added.
    std::fwrite(text.data(), 1, std::strlen(text.data()), file);
    std::fclose(file);
}

KPLC_API int printf_log(const char *fmt, ...) {
    (void)fmt;
    return 0;
}

}  // extern "C"
