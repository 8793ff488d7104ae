#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>

#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Platform/Thread.h"
#include "StreamPair.h"

namespace Qelvar::Platform {

using Test::elapsed_us;
using Test::inheritable;
using Test::start_call;
using Test::StreamPair;
using Clock = std::chrono::steady_clock;

TEST(Socket, PairIsNotInheritedCarriesBytesAndEmptyNonBlockingRecvWouldBlock)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Ok());
    EXPECT_FALSE(inheritable(pair[0]));
    EXPECT_FALSE(inheritable(pair[1]));
    const int fd = sock_open(AF_INET, SOCK_STREAM, 0);
    ASSERT_NE(fd, -1);
    EXPECT_FALSE(inheritable(fd));
    EXPECT_EQ(sock_close(fd), 0);

    char buf[16] = {};
    ASSERT_EQ(sock_send(pair[1], "hello", 5), 5);
    ASSERT_EQ(sock_recv(pair[0], buf, sizeof buf), 5);
    EXPECT_EQ(std::string(buf, 5), "hello");

    ASSERT_EQ(sock_set_nonblocking(pair[0], true), 0);
    EXPECT_EQ(sock_recv(pair[0], buf, sizeof buf), -1);
    const int err = last_error();
    EXPECT_TRUE(is_would_block(err)) << err;
    EXPECT_FALSE(is_interrupted(err));
    EXPECT_FALSE(is_connection_reset(err));
}

TEST(Socket, SendToAClosedPeerFailsAsResetWithoutSignal)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Ok());
    pair.Close(0);
    // The first sends may still be taken before the peer's reset comes back (TCP).
    const char block[1024] = {};
    long sent = 0;
    for (int i = 0; i < 200 && sent >= 0; ++i) {
        sent = sock_send(pair[1], block, sizeof block);
        if (sent >= 0) sleep_ms(5);
    }
    ASSERT_EQ(sent, -1);
    const int err = last_error();
    EXPECT_TRUE(is_connection_reset(err)) << err;
    EXPECT_FALSE(is_would_block(err));

    // The system's text, without the line end Windows puts after it.
    char text[256];
    const std::string message = error_text(err, text, sizeof text);
    EXPECT_FALSE(message.empty());
    EXPECT_EQ(message.find_first_of("\r\n"), std::string::npos) << message;
    char tiny[4];
    EXPECT_LT(std::strlen(error_text(err, tiny, sizeof tiny)), sizeof tiny);
}

// Waiting on one socket: sock_wait and the receive time-out of a blocking socket.
TEST(SockWait, HonoursTheTimeReportsReadinessAndTakesAHangUpForReadable)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Ok());
    unsigned int ready = 0;
    Clock::time_point begun = Clock::now();
    EXPECT_EQ(sock_wait(pair[0], SOCK_READABLE, 50000, &ready), 0);
    EXPECT_GE(elapsed_us(begun), 49000);
    EXPECT_LT(elapsed_us(begun), 1000000);
    // Below a millisecond: still a wait, not a look.
    begun = Clock::now();
    EXPECT_EQ(sock_wait(pair[0], SOCK_READABLE, 300, &ready), 0);
    EXPECT_GE(elapsed_us(begun), 300);

    ASSERT_EQ(sock_wait(pair[0], SOCK_READABLE | SOCK_WRITABLE, 2000000, &ready), 1);
    EXPECT_EQ(ready, SOCK_WRITABLE);

    // Without a limit: ended by data that comes while it waits.
    std::future<int> waited = start_call([&pair] {
        unsigned int bits = 0;
        return sock_wait(pair[0], SOCK_READABLE, -1, &bits) == 1 ? static_cast<int>(bits) : -1;
    });
    ASSERT_EQ(sock_send(pair[1], "x", 1), 1);
    ASSERT_EQ(waited.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    EXPECT_EQ(waited.get(), SOCK_READABLE);

    // A peer that wrote and closed: readable, not exceptional, and the data is still there.
    ASSERT_EQ(sock_send(pair[1], "y", 1), 1);
    pair.Close(1);
    ASSERT_EQ(sock_wait(pair[0], SOCK_READABLE, 2000000, &ready), 1);
    EXPECT_EQ(ready, SOCK_READABLE);
    char buf[4];
    EXPECT_EQ(sock_recv(pair[0], buf, sizeof buf), 2);
    EXPECT_EQ(sock_recv(pair[0], buf, sizeof buf), 0);
}

TEST(SockWait, BlockingReceiveGivesUpAfterItsTimeOut)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Ok());
    EXPECT_EQ(sock_set_io_timeout(pair[0], true, -1), -1);
    ASSERT_EQ(sock_set_io_timeout(pair[0], true, 100), 0);
    std::future<long long> took = start_call([&pair] {
        const Clock::time_point begun = Clock::now();
        char c;
        return sock_recv(pair[0], &c, 1) == -1 ? elapsed_us(begun) : -1;
    });
    const bool ended = took.wait_for(std::chrono::seconds(3)) == std::future_status::ready;
    if (!ended) sock_send(pair[1], "x", 1);  // lets the receive go
    ASSERT_TRUE(ended);
    const long long us = took.get();
    EXPECT_GE(us, 90000);
    EXPECT_LT(us, 2000000);
}

}  // namespace Qelvar::Platform
