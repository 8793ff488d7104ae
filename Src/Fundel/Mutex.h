// Recursive mutex of the base library: several paths lock a record and then call code
// that locks it again.
#pragma once

#include <mutex>

namespace Qelvar::Fundel {

class CMutex {
public:
    CMutex() = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void Enter() { m_mutex.lock(); }
    void Leave() { m_mutex.unlock(); }
    /// Locks without waiting; true when the lock was taken.
    bool TryEnter() { return m_mutex.try_lock(); }

    // BasicLockable, for std::lock_guard and std::unique_lock.
    void lock() { m_mutex.lock(); }
    void unlock() { m_mutex.unlock(); }
    bool try_lock() { return m_mutex.try_lock(); }

private:
    std::recursive_mutex m_mutex;
};

}  // namespace Qelvar::Fundel
