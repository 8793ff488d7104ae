// Helpers of the reliable-UDP suite: loopback addresses, facade sockets set up for a
// test (live mode, bounded waits) and a plain UDP socket.
#pragma once

#include <Corvane/Config.h>

#if CORVANE_HAVE_SRT

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <srt/srt.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "Mirt/Mirt.h"

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

// A live-mode facade socket whose blocking calls give up after `timeout_ms`.
inline int make_socket(const char* phrase = nullptr, int timeout_ms = 2000)
{
    const int fd = Mirt::socket();
    if (fd < 0 || Mirt::settranstype(fd, Mirt::MIRT_TRANSTYPE_LIVE) != 0 || Mirt::setlatency(fd, 40) != 0 ||
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
    explicit CUdpSocket(unsigned short port = 0) : m_fd(::socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in addr = loopback(port);
        socklen_t len = sizeof addr;
        if (::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
            ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
            m_port = ntohs(addr.sin_port);
        }
    }
    ~CUdpSocket() { ::close(m_fd); }
    CUdpSocket(const CUdpSocket&) = delete;
    CUdpSocket& operator=(const CUdpSocket&) = delete;

    unsigned short Port() const { return m_port; }
    void SendTo(unsigned short port, const std::string& data) const
    {
        const sockaddr_in addr = loopback(port);
        ::sendto(m_fd, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    }
    // One datagram, or "" after `timeout_ms`.
    std::string Recv(int timeout_ms) const
    {
        pollfd p{m_fd, POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) != 1) return "";
        char buf[2048];
        const ssize_t n = ::recv(m_fd, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "";
    }

private:
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
