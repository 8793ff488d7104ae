// Counting semaphore of the base library.
#pragma once

#include <condition_variable>
#include <mutex>

namespace Qelvar::Fundel {

class CSemaphore {
public:
    explicit CSemaphore(unsigned int initial = 0) : m_count(initial) {}
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    /// Adds `n` to the count and wakes up to `n` waiters.
    void Post(unsigned int n = 1);
    /// Waits until the count is above 0, then takes one.
    void Wait();
    /// As Wait, for at most `ms` milliseconds; false on time-out.
    bool TimedWait(unsigned int ms);
    /// Takes one without waiting; false when the count is 0.
    bool TryWait();

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    unsigned long long m_count;
};

}  // namespace Qelvar::Fundel
