// Loopback sockets for the platform tests: the socket library started for as long as a
// test runs, descriptors that close themselves, and socket addresses of either family.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Platform/SockTypes.h"
#include "Platform/Socket.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#endif

namespace Qelvar::Test {

class SocketTestBase : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(Platform::sock_startup(), 0); }
    void TearDown() override { Platform::sock_cleanup(); }
};

/// A descriptor closed when it goes out of scope.
class Fd {
public:
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd()
    {
        if (m_fd != -1) Platform::sock_close(m_fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    operator int() const { return m_fd; }

private:
    int m_fd;
};

/// A socket address of either family with its length.
struct Addr {
    sockaddr_storage storage{};
    int len = sizeof storage;

    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    const sockaddr_in& v4() const { return reinterpret_cast<const sockaddr_in&>(storage); }
    const sockaddr_in6& v6() const { return reinterpret_cast<const sockaddr_in6&>(storage); }
    unsigned short port() const { return ntohs(storage.ss_family == AF_INET ? v4().sin_port : v6().sin6_port); }

    /// "address%scope port", for comparisons that print well.
    std::string text() const
    {
        char buf[64] = "?";
        const bool is_v4 = storage.ss_family == AF_INET;
        Platform::addr_to_text(storage.ss_family, is_v4 ? static_cast<const void*>(&v4().sin_addr) : &v6().sin6_addr,
                               buf, sizeof buf);
        // Appended piece by piece: g++ 12 at -O3 sees overlaps in a chain of operator+.
        std::string out = buf;
        if (!is_v4 && v6().sin6_scope_id != 0) out.append("%").append(std::to_string(v6().sin6_scope_id));
        return out.append(" ").append(std::to_string(port()));
    }
};

/// 127.0.0.1 or ::1 (`any`: the wildcard address) with `port`.
inline Addr make_addr(int family, unsigned short port, bool any = false)
{
    Addr a;
    if (family == AF_INET) {
        auto& v4 = reinterpret_cast<sockaddr_in&>(a.storage);
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        v4.sin_addr.s_addr = htonl(any ? INADDR_ANY : INADDR_LOOPBACK);
        a.len = sizeof v4;
    } else {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(a.storage);
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        v6.sin6_addr = any ? in6addr_any : in6addr_loopback;
        a.len = sizeof v6;
    }
    return a;
}

inline Addr local_of(int fd)
{
    Addr a;
    EXPECT_EQ(Platform::sock_local_address(fd, a.get(), &a.len), 0);
    return a;
}

inline Addr peer_of(int fd)
{
    Addr a;
    EXPECT_EQ(Platform::sock_peer_address(fd, a.get(), &a.len), 0);
    return a;
}

/// A socket bound to the loopback (or wildcard) address of `family` with a port of the
/// system's choice; -1 when the family is not there.
inline int bound_socket(int family, int type, bool any = false)
{
    const int fd = Platform::sock_open(family, type, 0);
    const Addr a = make_addr(family, 0, any);
    if (fd != -1 && Platform::sock_bind(fd, a.get(), a.len) != 0) {
        Platform::sock_close(fd);
        return -1;
    }
    return fd;
}

inline bool readable_soon(int fd)
{
    unsigned int ready = 0;
    return Platform::sock_wait(fd, Platform::SOCK_READABLE, 2000000, &ready) == 1 &&
           (ready & Platform::SOCK_READABLE) != 0;
}

/// A child process would get the descriptor (no FD_CLOEXEC; HANDLE_FLAG_INHERIT).
inline bool inheritable(int fd)
{
#ifdef _WIN32
    DWORD flags = 0;
    EXPECT_TRUE(GetHandleInformation(reinterpret_cast<HANDLE>(static_cast<SOCKET>(fd)), &flags));
    return (flags & HANDLE_FLAG_INHERIT) != 0;
#else
    const int flags = fcntl(fd, F_GETFD);
    EXPECT_NE(flags, -1);
    return (flags & FD_CLOEXEC) == 0;
#endif
}

}  // namespace Qelvar::Test
