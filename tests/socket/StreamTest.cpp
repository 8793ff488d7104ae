#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <Corvane/SockAcceptor.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>
#include <Corvane/SockStream.h>

#include "Fundel/Time.h"
#include "Loopback.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "TestSupport.h"

#ifndef _WIN32
#include <fcntl.h>
#endif

using namespace Qelvar::Corvane;
using Qelvar::Fundel::CTime;
using namespace Qelvar::Test;

namespace {

// A loopback port that refuses connections: bound once, then closed.
CSockAddrIPv4 closed_port()
{
    CSockAcceptor probe;
    CSockAddrIPv4 local("127.0.0.1", 0), bound;
    probe.Open(local);
    probe.GetLocalAddr(&bound);
    return bound;
}

// Fills the client's path to a peer that does not read, so further sends would block.
void fill_up(CSockStream& sender)
{
    sender.SetBlockOpt(false);
    std::vector<char> chunk(65536, 'x');
    for (int i = 0; i < 4096 && sender.Send(chunk.data(), static_cast<unsigned int>(chunk.size())) > 0; ++i) {
    }
}

}  // namespace

TEST(SockStream, ConnectAcceptAndExchangeOnBothFamilies)
{
    for (bool ipv6 : {false, true}) {
        StreamPair pair;
        ASSERT_TRUE(pair.Make(ipv6)) << ipv6;
        EXPECT_EQ(pair.client.Send("hello", 5), 5);
        char buf[16] = {};
        EXPECT_EQ(pair.server.Recv(buf, sizeof buf), 5);
        EXPECT_STREQ(buf, "hello");
        EXPECT_EQ(pair.client.GetConnectStatus(), 0);
        EXPECT_EQ(pair.client.GetType(), SOCK_TYPE_STREAM);
        EXPECT_EQ(pair.acceptor.GetType(), SOCK_TYPE_ACCEPTOR);

        // The form of Accept that makes the stream, with the peer's address.
        CSockAddrStorage bound, peer;
        ASSERT_EQ(pair.acceptor.GetLocalAddr(&bound), 0);
        CSockStream second;
        second.SetBlockOpt(true);
        ASSERT_EQ(second.Connect(bound, nullptr), 0);
        std::unique_ptr<CSockStream> accepted(pair.acceptor.Accept(&peer));
        ASSERT_NE(accepted, nullptr);
        EXPECT_EQ(peer.GetInputType(), ipv6 ? SOCKADDR_TYPE_IPV6 : SOCKADDR_TYPE_IPV4);
        ASSERT_NE(peer.GetIpStr(buf, sizeof buf), nullptr);
        EXPECT_STREQ(buf, ipv6 ? "::1" : "127.0.0.1");
        EXPECT_EQ(accepted->Send("x", 1), 1);
    }
}

TEST(SockStream, BadArgumentsAndClosedPeers)
{
    LogCapture log(6);
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    char buf[8];
    EXPECT_EQ(pair.client.Send(buf, 0), -1);
    EXPECT_EQ(pair.client.Send(nullptr, 4), -1);
    EXPECT_EQ(pair.client.Recv(buf, 0), -1);
    EXPECT_EQ(pair.client.WriteV(nullptr, 1), -1);
    EXPECT_EQ(pair.client.Recv_n(nullptr, 4, 1000), -1);
    EXPECT_EQ(log.Count("send failed! buf["), 2);
    EXPECT_TRUE(log.Contains("recv failed! buf["));
    EXPECT_TRUE(log.Contains("writev failed! iovec[(nil)]") || log.Contains("writev failed! iovec[0"));
    EXPECT_EQ(pair.client.SetSockQos(256), -1);

    // The peer's orderly close reads as -1 with a connection reset error.
    pair.server.Close();
    EXPECT_EQ(pair.client.Recv(buf, sizeof buf), -1);
    EXPECT_TRUE(Qelvar::Platform::is_connection_reset(Qelvar::Platform::last_error()));
}

TEST(SockStream, NonBlockingConnectToARefusedPortFailsLater)
{
    const CSockAddrIPv4 refused = closed_port();
    CSockStream s;
    EXPECT_EQ(s.Connect(refused, nullptr), 0);  // under way
    unsigned int ready = 0;
    ASSERT_EQ(Qelvar::Platform::sock_wait(s.GetHandle(), Qelvar::Platform::SOCK_WRITABLE, 5000000, &ready), 1);
    EXPECT_EQ(s.GetConnectStatus(), -2);
}

TEST(SockStream, WriteVSendsAtMost1024Elements)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    std::vector<char> bytes(2000);
    std::vector<iovec> vec(2000);
    for (int i = 0; i < 2000; ++i) {
        bytes[i] = static_cast<char>(i % 251);
        vec[i].iov_base = &bytes[i];
        vec[i].iov_len = 1;
    }
    EXPECT_EQ(pair.client.WriteV(vec.data(), 2000), 1024);
    std::vector<char> got(2000);
    int total = 0;
    while (total < 1024) {
        const int n = pair.server.Recv_n(got.data() + total, 2000 - total, 1000000);
        ASSERT_GT(n, 0);
        total += n;
    }
    EXPECT_EQ(total, 1024);
    EXPECT_EQ(std::memcmp(got.data(), bytes.data(), 1024), 0);
}

// A gathered send into a nearly full path takes what fits and says how much.
TEST(SockStream, WriteVIntoAFullPathIsPartial)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    fill_up(pair.client);
    std::vector<char> big(1 << 20, 'w');
    iovec vec[4];
    for (iovec& v : vec) {
        v.iov_base = big.data();
        v.iov_len = big.size();
    }
    EXPECT_EQ(pair.client.WriteV(vec, 4), 0);  // no room at all: would block

    std::vector<char> sink(65536);
    for (int drained = 0; drained < 200000;) {
        const int n = pair.server.Recv_n(sink.data(), static_cast<unsigned int>(sink.size()), 1000000);
        ASSERT_GT(n, 0);
        drained += n;
    }
    const int sent = pair.client.WriteV(vec, 4);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 4 << 20);
}

TEST(SockStream, RecvNTakesOneReceiveWithinItsTime)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    char buf[64];
    EXPECT_EQ(pair.server.Recv_n(buf, sizeof buf, 0), 0);  // no wait at all

    auto start = CTime::getCurrentMilliSecond();
    EXPECT_EQ(pair.server.Recv_n(buf, sizeof buf, 100000), 0);
    auto elapsed = CTime::getCurrentMilliSecond() - start;
    EXPECT_GE(elapsed, 99);
    EXPECT_LT(elapsed, 1000);

    // Fewer bytes than asked are returned as they came.
    ASSERT_EQ(pair.client.Send("abc", 3), 3);
    EXPECT_EQ(pair.server.Recv_n(buf, sizeof buf, 1000000), 3);

    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        pair.client.Send("z", 1);
    });
    EXPECT_EQ(pair.server.Recv_n(buf, sizeof buf, 2000000), 1);
    late.join();

    // A peer that resets in the middle of the wait.
    std::thread closer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        pair.client.Close();
    });
    EXPECT_EQ(pair.server.Recv_n(buf, sizeof buf, 2000000), -1);
    closer.join();
}

TEST(SockStream, SendNStopsAtItsTimeAndOnAClosedPeer)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    fill_up(pair.client);
    std::vector<char> data(1 << 20, 'y');
    auto start = CTime::getCurrentMilliSecond();
    const int sent = pair.client.Send_n(data.data(), static_cast<unsigned int>(data.size()), 100000);
    auto elapsed = CTime::getCurrentMilliSecond() - start;
    EXPECT_GE(sent, 0);
    EXPECT_LT(sent, static_cast<int>(data.size()));
    EXPECT_GE(elapsed, 99);
    EXPECT_LT(elapsed, 2000);

    // The peer goes away while Send_n waits: -1, never a hang or a signal.
    std::thread closer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        pair.server.Close();
    });
    EXPECT_EQ(pair.client.Send_n(data.data(), static_cast<unsigned int>(data.size()), 5000000), -1);
    closer.join();
}

TEST(SockStream, ReconnectOpenExAndConnectEx)
{
    LogCapture log(6);
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    CSockAddrIPv4 bound;
    ASSERT_EQ(pair.acceptor.GetLocalAddr(&bound), 0);

    // Connect on an object that holds a descriptor replaces it.
    const int old_fd = pair.client.GetHandle();
    EXPECT_EQ(pair.client.Connect(bound, nullptr), 0);
    EXPECT_TRUE(log.Contains("socket fd[" + std::to_string(old_fd) + "] has opened, close old first"));
    EXPECT_TRUE(pair.client.IsValid());

    CSockAddrIPv4 any("127.0.0.1", 0);
    EXPECT_EQ(pair.client.OpenEx(&any), -1);  // refuses instead
    EXPECT_EQ(pair.client.OpenEx(nullptr), -1);

    CSockStream late;
    EXPECT_EQ(late.ConnectEx(bound), -1);
    EXPECT_TRUE(log.Contains("socket is invalid  please Open  first fd[-1]"));
    late.SetBlockOpt(true);
    ASSERT_EQ(late.OpenEx(&any), 0);
    EXPECT_EQ(late.ConnectEx(bound), 0);
    CSockStream accepted;
    accepted.SetBlockOpt(true);
    EXPECT_EQ(pair.acceptor.Accept(accepted, nullptr), 0);
    EXPECT_EQ(late.Send("q", 1), 1);

    // A family mismatch between local and remote.
    CSockAddrIPv6 v6("::1", 0);
    CSockStream mismatch;
    EXPECT_EQ(mismatch.Connect(bound, &v6), -1);
    EXPECT_TRUE(log.Contains("SockAddr local type[2] error"));
}

TEST(SockStream, SynConnectKeepsTheBlockingFlag)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    CSockAddrIPv4 bound;
    ASSERT_EQ(pair.acceptor.GetLocalAddr(&bound), 0);
    CSockStream s;
    ASSERT_EQ(s.synConnect(bound, nullptr, 2000), 0);
    EXPECT_FALSE(s.GetBlockOpt());
    char byte;
    EXPECT_EQ(s.Recv(&byte, 1), 0);  // non-blocking again

    CSockStream refused;
    EXPECT_EQ(refused.synConnect(closed_port(), nullptr, 2000), -1);
    EXPECT_FALSE(refused.IsValid());
}

TEST(SockStream, Options)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    EXPECT_EQ(pair.client.SetSockRecvBuf(65536), 0);
    EXPECT_GE(pair.client.GetSockRecvBuf(), 65536);
    EXPECT_EQ(pair.client.SetSockSendBuf(32768), 0);
    EXPECT_GE(pair.client.GetSockSendBuf(), 32768);
    EXPECT_EQ(pair.client.SetSockKeepAlive(true), 0);
    EXPECT_EQ(pair.client.SetSockNoDelay(true), 0);
    EXPECT_EQ(pair.client.SetSockQos(0x28), 0);
#if defined(_WIN32)
    EXPECT_EQ(pair.client.SetSockPriority(3), -1);
    EXPECT_EQ(pair.client.SetSockCLOEXEC(false), -1);
#else
    EXPECT_EQ(pair.client.SetSockPriority(3), 0);
    // Every descriptor the library makes is close-on-exec, accepted ones included.
    EXPECT_TRUE(fcntl(pair.server.GetHandle(), F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(pair.acceptor.GetHandle(), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(pair.client.SetSockCLOEXEC(false), 0);
    EXPECT_FALSE(fcntl(pair.client.GetHandle(), F_GETFD) & FD_CLOEXEC);
#endif
}

TEST(SockAcceptor, ReopenPendingAndFamilies)
{
    LogCapture log(6);
    CSockAcceptor acceptor;
    CSockAddrIPv4 local("127.0.0.1", 0);
    ASSERT_EQ(acceptor.Open(local), 0);
    const int first = acceptor.GetHandle();
    ASSERT_EQ(acceptor.Open(local), 0);
    EXPECT_TRUE(log.Contains("socket fd[" + std::to_string(first) + "] has opened, close old first"));

    log.Clear();
    CSockStream stream;
    EXPECT_EQ(acceptor.Accept(stream, nullptr), -1);  // nothing pending: -1, silently
    EXPECT_EQ(acceptor.Accept(static_cast<CSockAddr*>(nullptr)), nullptr);
    EXPECT_EQ(log.Count("accept failed"), 0);

    // IPv6-only by default; the dual-stack form takes IPv4 clients too.
    for (bool ipv6_only : {true, false}) {
        CSockAcceptor v6;
        v6.SetBlockOpt(true);
        CSockAddrIPv6 any("::", 0), bound;
        ASSERT_EQ(v6.Open(any, ipv6_only), 0);
        ASSERT_EQ(v6.GetLocalAddr(&bound), 0);
        CSockAddrIPv4 target("127.0.0.1", bound.GetPort());
        CSockStream client;
        client.SetBlockOpt(true);
        const int connected = client.Connect(target, nullptr);
        if (ipv6_only) {
            EXPECT_EQ(connected, -1);
            continue;
        }
        ASSERT_EQ(connected, 0);
        CSockAddrIPv4 peer4;
        CSockStream accepted;
        EXPECT_EQ(v6.Accept(accepted, &peer4), 0);  // a mapped peer does not fit: logged, accepted
        EXPECT_TRUE(log.Contains("a ipv6 address can't be put into CSockAddrIPv4!"));
        EXPECT_TRUE(accepted.IsValid());
    }
}
