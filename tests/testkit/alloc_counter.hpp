// Counts heap allocations made by the current thread while a scope object
// lives, to check that a code path allocates nothing.
//
// The test program's malloc, calloc, realloc, free and operator new/delete are
// replaced by versions that forward to the C library and count. Other threads
// (a fake PLC serving the test, say) are not counted. Under AddressSanitizer,
// which owns the allocator, nothing is replaced and available() is false.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define KPLC_ALLOC_COUNTER 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KPLC_ALLOC_COUNTER 0
#endif
#endif
#ifndef KPLC_ALLOC_COUNTER
#define KPLC_ALLOC_COUNTER 1
#endif

namespace kplc::testkit {

class AllocCounter {
public:
    AllocCounter() noexcept;
    ~AllocCounter();
    AllocCounter(const AllocCounter &) = delete;
    AllocCounter &operator=(const AllocCounter &) = delete;

    // Allocations (malloc, calloc, realloc, operator new) since construction.
    [[nodiscard]] std::size_t allocations() const noexcept;

    // False when the counting allocator is compiled out (sanitizer builds).
    static constexpr bool available() noexcept { return KPLC_ALLOC_COUNTER != 0; }

private:
    std::size_t start_;
    bool outer_;
};

}  // namespace kplc::testkit
