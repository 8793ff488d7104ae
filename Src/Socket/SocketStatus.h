// The status of one descriptor, shared by every socket object that holds it.
#pragma once

#include <atomic>

namespace Qelvar::Corvane {

class CSocketStatus {
public:
    explicit CSocketStatus(int fd) : m_fd(fd), m_valid(true) {}
    ~CSocketStatus()
    {
        m_fd = -1;
        m_valid = false;
    }
    CSocketStatus(const CSocketStatus&) = delete;
    CSocketStatus& operator=(const CSocketStatus&) = delete;

    int GetFd() const { return m_fd; }
    /// False once the descriptor was closed through any of its holders.
    bool IsValid() const { return m_valid.load(std::memory_order_acquire); }
    void Invalidate() { m_valid.store(false, std::memory_order_release); }

private:
    int m_fd;
    std::atomic<bool> m_valid;
};

}  // namespace Qelvar::Corvane
