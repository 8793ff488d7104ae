// A connected pair from sock_stream_pair(), with the socket library started for as
// long as the pair lives, and calls made on another thread while a test goes on.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

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

inline long long elapsed_us(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - since).count();
}

/// Runs `call` on another thread, for waits that something the test does next is to
/// end; returns once that thread is about to make it.
template <class F>
auto start_call(F call) -> std::future<decltype(call())>
{
    std::promise<void> started;
    std::future<void> running = started.get_future();
    auto result = std::async(std::launch::async, [started = std::move(started), call]() mutable {
        started.set_value();
        return call();
    });
    running.wait();
    // Most likely blocked inside the call by now; the tests hold either way.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return result;
}

}  // namespace Qelvar::Test
