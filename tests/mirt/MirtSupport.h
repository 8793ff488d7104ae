// Helpers of the reliable-UDP suite: loopback addresses, facade sockets set up for a
// test (live mode, bounded waits) and a plain UDP socket.
#pragma once

#include <Corvane/Config.h>

#if CORVANE_HAVE_SRT

#include <gtest/gtest.h>

// Before srt.h: the system's socket headers, on Windows without the rest of windows.h.
#include "Platform/SockTypes.h"

#include <srt/srt.h>

#include <string>

#include "Mirt/Mirt.h"
#include "Platform/Socket.h"

namespace MirtTest {

namespace Mirt = Qelvar::Mirt;

// Every test runs between a startup() and its cleanup().
class MirtFixture : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(Mirt::startup(), 0) << Mirt::getlasterror_desc(); }
    void TearDown() override { EXPECT_EQ(Mirt::cleanup(), 0); }
};

inline sockaddr_in loopback(unsigned short port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

#ifdef _WIN32
// Under Wine a burst of 300 messages saw 2 of them later than 40 ms, and the receiver
// drops late live messages.
constexpr int kLatencyMs = 250;
#else
constexpr int kLatencyMs = 40;
#endif

// A live-mode facade socket whose blocking calls give up after `timeout_ms`.
inline int make_socket(const char* phrase = nullptr, int timeout_ms = 2000)
{
    const int fd = Mirt::socket();
    if (fd < 0 || Mirt::settranstype(fd, Mirt::MIRT_TRANSTYPE_LIVE) != 0 || Mirt::setlatency(fd, kLatencyMs) != 0 ||
        (phrase && Mirt::setpassphrase(fd, phrase) != 0) ||
        Mirt::setsockopt(fd, SRTO_RCVTIMEO, &timeout_ms, sizeof timeout_ms) != 0 ||
        Mirt::setsockopt(fd, SRTO_CONNTIMEO, &timeout_ms, sizeof timeout_ms) != 0) {
        return -1;
    }
    return fd;
}

// A facade listener on 127.0.0.1 and the port the system chose.
inline int make_listener(unsigned short* port, const char* phrase = nullptr)
{
    const int fd = make_socket(phrase);
    sockaddr_in addr = loopback(0);
    int len = sizeof addr;
    if (fd < 0 || Mirt::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || Mirt::listen(fd, 4) != 0 ||
        Mirt::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return -1;
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

// A facade caller connected to 127.0.0.1:port, or -1 (closed) when refused.
inline int connect_to(unsigned short port, const char* phrase = nullptr, int timeout_ms = 2000)
{
    const int fd = make_socket(phrase, timeout_ms);
    const sockaddr_in addr = loopback(port);
    if (fd >= 0 && Mirt::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return fd;
    if (fd >= 0) Mirt::close(fd);
    return -1;
}

inline std::string recv_message(int fd)
{
    char buf[1500];
    const int n = Mirt::recv(fd, buf, sizeof buf);
    return n < 0 ? std::string("<recv failed: ") + Mirt::getlasterror_desc() + ">" : std::string(buf, n);
}

// A UDP socket bound to 127.0.0.1 (port 0: the system's choice).
class CUdpSocket {
public:
    explicit CUdpSocket(unsigned short port = 0)
        : m_started(Qelvar::Platform::sock_startup() == 0), m_fd(Qelvar::Platform::sock_open(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in addr = loopback(port);
        int len = sizeof addr;
        if (Qelvar::Platform::sock_bind(m_fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
            Qelvar::Platform::sock_local_address(m_fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
            m_port = ntohs(addr.sin_port);
        }
    }
    ~CUdpSocket()
    {
        if (m_fd >= 0) Qelvar::Platform::sock_close(m_fd);
        if (m_started) Qelvar::Platform::sock_cleanup();
    }
    CUdpSocket(const CUdpSocket&) = delete;
    CUdpSocket& operator=(const CUdpSocket&) = delete;

    unsigned short Port() const { return m_port; }
    void SendTo(unsigned short port, const std::string& data) const
    {
        const sockaddr_in addr = loopback(port);
        Qelvar::Platform::sock_sendto(m_fd, data.data(), data.size(), reinterpret_cast<const sockaddr*>(&addr),
                                      sizeof addr);
    }
    // One datagram, or "" after `timeout_ms`.
    std::string Recv(int timeout_ms) const
    {
        unsigned int ready = 0;
        if (Qelvar::Platform::sock_wait(m_fd, Qelvar::Platform::SOCK_READABLE, timeout_ms * 1000LL, &ready) != 1 ||
            !(ready & Qelvar::Platform::SOCK_READABLE)) {
            return "";
        }
        char buf[2048];
        const long n = Qelvar::Platform::sock_recvfrom(m_fd, buf, sizeof buf, nullptr, nullptr);
        return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "";
    }

private:
    bool m_started;
    int m_fd;
    unsigned short m_port = 0;
};

// A port that was free a moment ago (the peer binds it itself).
inline unsigned short free_udp_port()
{
    return CUdpSocket().Port();
}

}  // namespace MirtTest

#endif
