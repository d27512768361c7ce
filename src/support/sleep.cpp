// Sleeps and the seeding of the standard pseudo-random generator.
#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>

#include "kplc/support.h"

namespace {

// A microsecond sleep that finishes its time even when a signal interrupts
// it, and that takes a second or more (which usleep need not accept).
void sleep_us(unsigned long us) noexcept {
    timespec left{static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// A wait before a write never holds the caller for more than a second.
constexpr unsigned kMaxSleepMs = 1000;

}  // namespace

extern "C" {

KPLC_API void zel_sleep_ms(unsigned int ms) {
    if (ms == 0) return;
    if (ms > kMaxSleepMs) ms = kMaxSleepMs;
    sleep_us(static_cast<unsigned long>(ms) * 1000);
}

KPLC_API void zel_sleep(unsigned int times) { sleep_us(times); }

KPLC_API void zel_srand(void) {
    timeval now{};
    gettimeofday(&now, nullptr);
    std::srand(static_cast<unsigned>(now.tv_sec + now.tv_usec));
}

}  // extern "C"
