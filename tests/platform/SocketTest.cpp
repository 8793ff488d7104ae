#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Platform/Thread.h"
#include "StreamPair.h"

namespace Qelvar::Platform {

using Test::inheritable;
using Test::StreamPair;

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

}  // namespace Qelvar::Platform
