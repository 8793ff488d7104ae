// Clocks of the base library. Both are monotonic: they never jump with the wall clock.
#pragma once

#include <chrono>
#include <cstdint>

namespace Qelvar::Fundel {

class CTime {
public:
    /// Milliseconds of the monotonic clock.
    static std::int64_t getCurrentMilliSecond()
    {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    /// Microseconds of the monotonic clock.
    static std::int64_t getCurrentMicroSecond()
    {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }
};

}  // namespace Qelvar::Fundel
