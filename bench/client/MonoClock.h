// The benchmark tools' clock: CLOCK_MONOTONIC in ns, the clock that the send times carried
// in payloads are taken from, and an absolute sleep on it.
#pragma once

#include <time.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

namespace EchoBench {

constexpr std::int64_t kSecond = 1000000000;
constexpr std::int64_t kMs = 1000000;

inline std::int64_t Now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * kSecond + ts.tv_nsec;
}

/// Sleeps until the monotonic time `at` (ns); with `stop`, a signal that sets it ends the
/// sleep early.
inline void SleepUntil(std::int64_t at, const volatile std::sig_atomic_t* stop = nullptr)
{
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(at / kSecond);
    ts.tv_nsec = static_cast<long>(at % kSecond);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR && !(stop && *stop)) {
    }
}

}  // namespace EchoBench
