// Read-write mutex of the base library: many readers or one writer.
#pragma once

#include <shared_mutex>

namespace Qelvar::Fundel {

class CReadWriteMutex {
public:
    CReadWriteMutex() = default;
    CReadWriteMutex(const CReadWriteMutex&) = delete;
    CReadWriteMutex& operator=(const CReadWriteMutex&) = delete;

    void ReadLock() { m_mutex.lock_shared(); }
    void ReadUnlock() { m_mutex.unlock_shared(); }
    void WriteLock() { m_mutex.lock(); }
    void WriteUnlock() { m_mutex.unlock(); }

    // Lockable and SharedLockable, for std::unique_lock and std::shared_lock.
    void lock() { m_mutex.lock(); }
    void unlock() { m_mutex.unlock(); }
    bool try_lock() { return m_mutex.try_lock(); }
    void lock_shared() { m_mutex.lock_shared(); }
    bool try_lock_shared() { return m_mutex.try_lock_shared(); }
    void unlock_shared() { m_mutex.unlock_shared(); }

private:
    std::shared_mutex m_mutex;
};

}  // namespace Qelvar::Fundel
