// The status of a listening descriptor: its port and family, and the accept-latency
// counters that the reactor keeps for it.
#pragma once

#include <atomic>

namespace Qelvar::Corvane {

class CListenSocketStatus {
public:
    CListenSocketStatus(int fd, unsigned short port, unsigned int family)
        : m_fd(fd), m_port(port), m_family(family)
    {
    }
    CListenSocketStatus(const CListenSocketStatus&) = delete;
    CListenSocketStatus& operator=(const CListenSocketStatus&) = delete;

    int GetFd() const { return m_fd; }
    unsigned short GetPort() const { return m_port; }
    /// 1 IPv4, 2 IPv6.
    unsigned int GetFamily() const { return m_family; }

    // Accept-latency counters, in field order A, B and C, and the reported flag.
    std::atomic<int> m_a{0};
    std::atomic<int> m_b{0};
    std::atomic<int> m_c{0};
    std::atomic<bool> m_reported{false};

private:
    int m_fd;
    unsigned short m_port;
    unsigned int m_family;
};

}  // namespace Qelvar::Corvane
