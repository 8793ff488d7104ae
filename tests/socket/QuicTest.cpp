// The QUIC classes only hold the interface's place in this build.
#include <gtest/gtest.h>

#include <Corvane/QuicAcceptor.h>
#include <Corvane/QuicStream.h>
#include <Corvane/SockAddrIPv4.h>

#include "TestSupport.h"

namespace Qelvar::Corvane {

using Qelvar::Test::LogCapture;
using Qelvar::Test::CapturedLog;

TEST(Quic, EveryOperationSaysQuicIsNotSupportedAndFails)
{
    LogCapture log;
    CQuicStream stream;
    CQuicAcceptor acceptor;
    EXPECT_EQ(stream.GetType(), SOCK_TYPE_QUIC);
    EXPECT_EQ(acceptor.GetType(), SOCK_TYPE_ACCEPTOR);
    const CSockAddrIPv4 addr("127.0.0.1", 9);
    char buf[4] = {};
    EXPECT_EQ(stream.Connect(addr, nullptr, nullptr), -1);
    EXPECT_EQ(stream.SetSockRecvBuf(1024), -1);
    EXPECT_EQ(stream.GetSockRecvBuf(), -1);
    EXPECT_EQ(stream.SetSockSendBuf(1024), -1);
    EXPECT_EQ(stream.GetSockSendBuf(), -1);
    EXPECT_EQ(stream.Send(buf, sizeof buf, 0), -1);
    EXPECT_EQ(stream.Recv(buf, sizeof buf, 0), -1);
    EXPECT_EQ(acceptor.Open(addr, nullptr), -1);
    EXPECT_EQ(acceptor.Accept(nullptr), nullptr);
    EXPECT_EQ(acceptor.Accept(stream, nullptr), -1);
    // Two constructors and ten operations, each at Warn.
    EXPECT_EQ(log.Count("The Corvane version is not support Quic!"), 12);
    for (const CapturedLog& r : log.Records()) {
        EXPECT_EQ(r.level, 3) << r.message;
    }
    EXPECT_FALSE(stream.IsValid());
}

}  // namespace Qelvar::Corvane
