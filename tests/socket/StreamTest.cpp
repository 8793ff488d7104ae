// The stream classes: the TCP stream and acceptor, the bandwidth simulator that writes
// through a real stream, and the QUIC classes.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <Corvane/QuicAcceptor.h>
#include <Corvane/QuicStream.h>
#include <Corvane/SimulatorStream.h>
#include <Corvane/SockAcceptor.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>
#include <Corvane/SockStream.h>

#include "Fundel/Time.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "SocketProbes.h"
#include "TestSupport.h"

#ifndef _WIN32
#include <fcntl.h>
#endif

using namespace Qelvar::Corvane;
using Qelvar::Fundel::CTime;
using namespace Qelvar::Test;

namespace {

// Fills the client's path to a peer that does not read, so further sends would block.
void fill_up(CSockStream& sender)
{
    sender.SetBlockOpt(false);
    std::vector<char> chunk(65536, 'x');
    for (int i = 0; i < 4096 && sender.Send(chunk.data(), static_cast<unsigned int>(chunk.size())) > 0; ++i) {
    }
}

// Runs `f` on another thread 50 ms from now, while the test waits.
template <class F>
std::thread in_50ms(F f)
{
    return std::thread([f] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        f();
    });
}

// Every test starts with a connected IPv4 pair, and the address it listens on.
class SockStream : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(pair.Make());
        ASSERT_EQ(pair.acceptor.GetLocalAddr(&bound), 0);
    }
    StreamPair pair;
    CSockAddrIPv4 bound;
};

}  // namespace

TEST_F(SockStream, ConnectAcceptAndExchangeOnBothFamilies)
{
    StreamPair pair6;
    ASSERT_TRUE(pair6.Make(true));
    for (StreamPair* p : {&pair, &pair6}) {
        const bool ipv6 = p == &pair6;
        EXPECT_EQ(p->client.Send("hello", 5), 5);
        char buf[16] = {};
        EXPECT_EQ(p->server.Recv(buf, sizeof buf), 5);
        EXPECT_STREQ(buf, "hello");
        EXPECT_EQ(p->client.GetConnectStatus(), 0);
        EXPECT_EQ(p->client.GetType(), SOCK_TYPE_STREAM);
        EXPECT_EQ(p->acceptor.GetType(), SOCK_TYPE_ACCEPTOR);

        // The form of Accept that makes the stream, with the peer's address.
        CSockAddrStorage listening, peer;
        ASSERT_EQ(p->acceptor.GetLocalAddr(&listening), 0);
        CSockStream second;
        second.SetBlockOpt(true);
        ASSERT_EQ(second.Connect(listening, nullptr), 0);
        std::unique_ptr<CSockStream> accepted(p->acceptor.Accept(&peer));
        ASSERT_NE(accepted, nullptr);
        EXPECT_EQ(peer.GetInputType(), ipv6 ? SOCKADDR_TYPE_IPV6 : SOCKADDR_TYPE_IPV4);
        ASSERT_NE(peer.GetIpStr(buf, sizeof buf), nullptr);
        EXPECT_STREQ(buf, ipv6 ? "::1" : "127.0.0.1");
        EXPECT_EQ(accepted->Send("x", 1), 1);
    }
}

TEST_F(SockStream, BadArgumentsAndClosedPeers)
{
    LogCapture log(6);
    char buf[8];
    EXPECT_EQ(pair.client.Send(buf, 0), -1);
    EXPECT_EQ(pair.client.Send(nullptr, 4), -1);
    EXPECT_EQ(pair.client.Recv(buf, 0), -1);
    EXPECT_EQ(pair.client.WriteV(nullptr, 1), -1);
    EXPECT_EQ(pair.client.Recv_n(nullptr, 4, 1000), -1);
    EXPECT_EQ(log.Count("send failed! buf["), 2);
    EXPECT_TRUE(log.Contains("recv failed! buf["));
    EXPECT_TRUE(log.Contains("writev failed! iovec[(nil)]") || log.Contains("writev failed! iovec[0"));

    // The peer's orderly close reads as -1 with a connection reset error.
    pair.server.Close();
    EXPECT_EQ(pair.client.Recv(buf, sizeof buf), -1);
    EXPECT_TRUE(Qelvar::Platform::is_connection_reset(Qelvar::Platform::last_error()));
}

// At most 1024 elements go in one call; into a nearly full path, what fits, and how much.
TEST_F(SockStream, WriteVSendsAtMost1024ElementsAndWhatFitsIntoAFullPath)
{
    std::vector<char> bytes(2000);
    std::vector<iovec> vec(2000);
    for (int i = 0; i < 2000; ++i) {
        bytes[i] = static_cast<char>(i % 251);
        vec[i] = iov(&bytes[i], 1);
    }
    EXPECT_EQ(pair.client.WriteV(vec.data(), 2000), 1024);
    std::vector<char> got(1 << 18);
    EXPECT_EQ(receive_at_least(pair.server, got.data(), 2000, 1024), 1024);
    EXPECT_EQ(std::memcmp(got.data(), bytes.data(), 1024), 0);

    fill_up(pair.client);
    std::vector<char> big(1 << 20, 'w');
    for (int i = 0; i < 4; ++i) vec[i] = iov(big.data(), big.size());
    EXPECT_EQ(pair.client.WriteV(vec.data(), 4), 0);  // no room at all: would block
    ASSERT_GE(receive_at_least(pair.server, got.data(), static_cast<int>(got.size()), 200000), 200000);
    const int sent = pair.client.WriteV(vec.data(), 4);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 4 << 20);
}

TEST_F(SockStream, RecvNTakesOneReceiveWithinItsTime)
{
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

    std::thread late = in_50ms([this] { pair.client.Send("z", 1); });
    EXPECT_EQ(pair.server.Recv_n(buf, sizeof buf, 2000000), 1);
    late.join();

    // A peer that resets in the middle of the wait.
    std::thread closer = in_50ms([this] { pair.client.Close(); });
    EXPECT_EQ(pair.server.Recv_n(buf, sizeof buf, 2000000), -1);
    closer.join();
}

TEST_F(SockStream, SendNStopsAtItsTimeAndOnAClosedPeer)
{
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
    std::thread closer = in_50ms([this] { pair.server.Close(); });
    EXPECT_EQ(pair.client.Send_n(data.data(), static_cast<unsigned int>(data.size()), 5000000), -1);
    closer.join();
}

TEST_F(SockStream, ReconnectOpenExAndConnectEx)
{
    LogCapture log(6);

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

TEST_F(SockStream, SynConnectKeepsTheBlockingFlagAndRefusedConnectsFail)
{
    CSockStream s;
    ASSERT_EQ(s.synConnect(bound, nullptr, 2000), 0);
    EXPECT_FALSE(s.GetBlockOpt());
    char byte;
    EXPECT_EQ(s.Recv(&byte, 1), 0);  // non-blocking again

    // A port bound once, then closed, refuses: at once for synConnect, which keeps no
    // descriptor; later for a non-blocking Connect.
    CSockAddrIPv4 refused;
    {
        CSockAcceptor probe;
        ASSERT_EQ(probe.Open(CSockAddrIPv4("127.0.0.1", 0)), 0);
        ASSERT_EQ(probe.GetLocalAddr(&refused), 0);
    }
    CSockStream sync, async;
    EXPECT_EQ(sync.synConnect(refused, nullptr, 2000), -1);
    EXPECT_FALSE(sync.IsValid());
    EXPECT_EQ(async.Connect(refused, nullptr), 0);  // under way
    unsigned int ready = 0;
    ASSERT_EQ(Qelvar::Platform::sock_wait(async.GetHandle(), Qelvar::Platform::SOCK_WRITABLE, 5000000, &ready), 1);
    EXPECT_EQ(async.GetConnectStatus(), -2);
}

TEST_F(SockStream, Options)
{
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

TEST(SimulatorStream, SendingStaysWithinTheBudgetOfTheSecond)
{
    CSimulatorStream sim;
    std::vector<char> data(200000, 'd');
    EXPECT_EQ(sim.Send(data.data(), 100), 0);  // no budget before SetBandWidth

    EXPECT_EQ(sim.SetBandWidth(1), 0);
    EXPECT_EQ(sim.Send(data.data(), static_cast<unsigned int>(data.size())), 131072);
    EXPECT_EQ(sim.Send(data.data(), 10), 0);  // used up for this second

    sim.SetBandWidth(4096);  // 4096 << 20 wraps to 0 in 32 bits
    EXPECT_EQ(sim.Send(data.data(), 10), 0);
    sim.SetBandWidth(4097);  // wraps to 1 MiB / 8
    EXPECT_EQ(sim.Send(data.data(), 10), 0);  // this second's 131072 bytes are already gone
}

// The simulator writes through the real stream it is given, and leaves it open.
TEST(SimulatorStream, WriteVCutsElementsAndSendsThroughTheRealStream)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    pair.client.SetBlockOpt(false);  // the peer does not read yet: never wait for room
    int n = 0;
    {
        CSimulatorStream sim;
        sim.SetRealSocket(&pair.client);
        EXPECT_EQ(sim.GetHandle(), pair.client.GetHandle());
        EXPECT_EQ(sim.GetType(), SOCK_TYPE_SIMULATOR);
        sim.SetBandWidth(1);

        char a[100000], b[50000];
        iovec vec[2] = {iov(a, sizeof a), iov(b, sizeof b)};
        n = sim.WriteV(vec, 2);
        EXPECT_GT(n, 0);
        EXPECT_LE(n, 131072);
        EXPECT_EQ(sim.WriteV(nullptr, 1), -1);
        EXPECT_EQ(sim.WriteV(vec, 0), 0);
    }
    std::vector<char> got(131072);
    EXPECT_EQ(receive_at_least(pair.server, got.data(), static_cast<int>(got.size()), n), n);
    EXPECT_EQ(pair.client.Send("k", 1), 1);
}

// QUIC is not built in: the classes only hold the interface's place.
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
