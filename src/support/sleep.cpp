// Sleeps and the seeding of the standard pseudo-random generator.
#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>

#include "support/utilities.hpp"

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

namespace kplc::support {

void sleep_ms(unsigned int ms) noexcept {
    if (ms == 0) return;
    if (ms > kMaxSleepMs) ms = kMaxSleepMs;
    sleep_us(static_cast<unsigned long>(ms) * 1000);
}

void sleep_micro(unsigned int times) noexcept { sleep_us(times); }

void seed_random() noexcept {
    timeval now{};
    gettimeofday(&now, nullptr);
    std::srand(static_cast<unsigned>(now.tv_sec + now.tv_usec));
}

}  // namespace kplc::support
