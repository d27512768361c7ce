#include "testkit/alloc_counter.hpp"

#include <cstdlib>
#include <new>

namespace {

// Per thread, initial-exec TLS: reading it from inside malloc allocates nothing.
__attribute__((tls_model("initial-exec"))) thread_local bool t_counting = false;
__attribute__((tls_model("initial-exec"))) thread_local std::size_t t_count = 0;

inline void note() noexcept { if (t_counting) ++t_count; }

}  // namespace

namespace kplc::testkit {

AllocCounter::AllocCounter() noexcept : start_(t_count), outer_(!t_counting) { t_counting = true; }

AllocCounter::~AllocCounter() { if (outer_) t_counting = false; }

std::size_t AllocCounter::allocations() const noexcept { return t_count - start_; }

}  // namespace kplc::testkit

#if KPLC_ALLOC_COUNTER

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *ptr, std::size_t size);
void __libc_free(void *ptr);

void *malloc(std::size_t size) { return note(), __libc_malloc(size); }

void *calloc(std::size_t count, std::size_t size) { return note(), __libc_calloc(count, size); }

void *realloc(void *ptr, std::size_t size) { return note(), __libc_realloc(ptr, size); }

void free(void *ptr) { __libc_free(ptr); }
}

void *operator new(std::size_t size) {
    if (void *p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void *operator new[](std::size_t size) { return operator new(size); }
void *operator new(std::size_t size, const std::nothrow_t &) noexcept { return std::malloc(size == 0 ? 1 : size); }
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept { return std::malloc(size == 0 ? 1 : size); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }

#endif
