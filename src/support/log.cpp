// Appending a formatted message to a log file.
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "support/utilities.hpp"

namespace {

// One message: 255 characters and the terminator. A longer message is cut to
// its first 255 characters (vsnprintf stops there), never written past the buffer.
constexpr std::size_t kLogMessageSize = 256;

}  // namespace

namespace kplc::support {

void append_log(const char *szFileName, const char *format, va_list args) noexcept {
    if (szFileName == nullptr || format == nullptr) return;
    std::FILE *file = std::fopen(szFileName, "a");
    if (file == nullptr) return;
    std::array<char, kLogMessageSize> text{};
    std::vsnprintf(text.data(), text.size(), format, args);
    // The text goes out as formatted: no line end is added.
    std::fwrite(text.data(), 1, std::strlen(text.data()), file);
    std::fclose(file);
}

}  // namespace kplc::support
