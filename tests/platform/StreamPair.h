// A connected pair from sock_stream_pair(), with the socket library started for as
// long as the pair lives.
#pragma once

#include <gtest/gtest.h>

#include "Platform/Socket.h"
#include "Platform/SockTypes.h"

#ifndef _WIN32
#include <fcntl.h>
#endif

namespace Qelvar::Test {

class StreamPair {
public:
    StreamPair() : m_started(Platform::sock_startup() == 0)
    {
        if (m_started && Platform::sock_stream_pair(m_fds) != 0) m_fds[0] = m_fds[1] = -1;
    }
    ~StreamPair()
    {
        Close(0);
        Close(1);
        if (m_started) Platform::sock_cleanup();
    }
    StreamPair(const StreamPair&) = delete;
    StreamPair& operator=(const StreamPair&) = delete;

    bool Ok() const { return m_fds[0] != -1; }
    int operator[](int end) const { return m_fds[end]; }
    void Close(int end)
    {
        if (m_fds[end] != -1) Platform::sock_close(m_fds[end]);
        m_fds[end] = -1;
    }

private:
    bool m_started;
    int m_fds[2] = {-1, -1};
};

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
