// The datagram socket over loopback, IPv4 and IPv6.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>
#include <Corvane/SockDgram.h>

#include "NoAddr.h"
#include "Platform/SockTypes.h"
#include "Platform/Socket.h"
#include "SocketProbes.h"
#include "TestSupport.h"

namespace Qelvar::Corvane {

using Qelvar::Test::CNoAddr;
using Qelvar::Test::iov;
using Qelvar::Test::kDatagramWaitUs;
using Qelvar::Test::LogCapture;
using Qelvar::Test::option_of;

namespace {

// Opens `s` on the loopback address of the family, port chosen by the system; the
// address it got goes to `bound` (a CSockAddrIPv4 or CSockAddrIPv6).
bool open_loopback(CSockDgram& s, CSockAddr& bound)
{
    const bool ipv6 = bound.GetType() == SOCKADDR_TYPE_IPV6;
    const CSockAddrStorage local(ipv6 ? "::1" : "127.0.0.1", 0);
    return s.Open(&local) == 0 && s.GetLocalAddr(&bound) == 0;
}

}  // namespace

// SocketEnvironment.cpp starts the socket library for the whole suite; every test reads
// the log.
class DgramTest : public ::testing::Test {
protected:
    LogCapture log;
};

TEST_F(DgramTest, UnicastCarriesDatagramsAndTellsTheSenderInEveryAddressClass)
{
    CSockDgram rx4, tx4, rx6, tx6;
    CSockAddrIPv4 at4, tx4_at, from4;
    CSockAddrIPv6 at6, tx6_at, from6;
    CSockAddrStorage any;
    ASSERT_TRUE(open_loopback(rx4, at4) && open_loopback(tx4, tx4_at));
    ASSERT_TRUE(open_loopback(rx6, at6) && open_loopback(tx6, tx6_at));
    char buf[64];
    // One datagram from `tx` to `at`, its sender read into `from`: the count received.
    auto pass = [&](CSockDgram& tx, const CSockAddr& at, CSockDgram& rx, CSockAddr* from) {
        return tx.Send("dgram", 5, &at) == 5 ? rx.Recv_r(buf, sizeof buf, from, kDatagramWaitUs) : -2;
    };

    ASSERT_EQ(pass(tx4, at4, rx4, &from4), 5);
    EXPECT_EQ(std::string(buf, 5), "dgram");
    EXPECT_TRUE(from4 == tx4_at);
    ASSERT_EQ(pass(tx4, at4, rx4, &any), 5);
    EXPECT_TRUE(any.GetInputType() == SOCKADDR_TYPE_IPV4 && any.GetPort() == tx4_at.GetPort());
    ASSERT_EQ(pass(tx4, at4, rx4, &from6), 5);  // IPv4 sender, IPv6 object: IPv4-mapped
    EXPECT_STREQ(from6.GetIpStr(buf, sizeof buf), "::ffff:127.0.0.1");
    EXPECT_EQ(from6.GetPort(), tx4_at.GetPort());

    ASSERT_EQ(pass(tx6, at6, rx6, &from6), 5);
    EXPECT_TRUE(from6 == tx6_at);
    ASSERT_EQ(pass(tx6, at6, rx6, &any), 5);
    EXPECT_TRUE(any.GetInputType() == SOCKADDR_TYPE_IPV6 && any.GetPort() == tx6_at.GetPort());
    // An IPv6 sender does not fit an IPv4 object: said, and the datagram still counts.
    const CSockAddrIPv4 untouched = from4;
    EXPECT_EQ(pass(tx6, at6, rx6, &from4), 5);
    EXPECT_TRUE(log.Contains("a ipv6 address can not put into CSockAddrIPv4!"));
    EXPECT_TRUE(from4 == untouched);
}

TEST_F(DgramTest, OpenFormsBindAsAskedAndReplaceADescriptorHeld)
{
    CSockDgram s;
    EXPECT_EQ(s.Open(nullptr, true), -1);
    EXPECT_TRUE(log.Contains("open failed!Invalid parameter: reuseaddr:1, addr:"));
    EXPECT_FALSE(s.IsValid());

    ASSERT_EQ(s.Open(nullptr), 0);
    CSockAddrIPv4 local4;
    CSockAddrIPv6 local6;
    // Unbound: port 0 where the system tells (Linux), no address at all where not (Windows).
    EXPECT_TRUE(s.GetLocalAddr(&local4) != 0 || local4.GetPort() == 0);
    const CSockAddrIPv4 somewhere("127.0.0.1", 9);
    ASSERT_EQ(s.SetRemote(&somewhere), 0) << "an IPv4 socket connects to an IPv4 address";

    // Opening again closes the old descriptor and forgets the old destination.
    const CSockAddrIPv4 reuse("127.0.0.1", 0);
    ASSERT_EQ(s.Open(&reuse, true), 0);
    EXPECT_TRUE(log.Contains("has opened, close old first"));
    EXPECT_EQ(option_of(s, SOL_SOCKET, SO_REUSEADDR), 0) << "port 0 asks for no SO_REUSEADDR";
    EXPECT_EQ(s.Send("x", 1, nullptr), -1);
    EXPECT_TRUE(log.Contains("send to failed! remote is null"));

    // The port taken cannot be bound again without SO_REUSEADDR on both.
    ASSERT_EQ(s.GetLocalAddr(&local4), 0);
    CSockDgram other;
    EXPECT_EQ(other.Open(&local4), -1);
    EXPECT_TRUE(log.Contains("bind failed! port["));

    // IPV6_V6ONLY as asked; a dual-stack socket hears IPv4 senders.
    CSockDgram only6, dual;
    const CSockAddrIPv6 any6("::", 0);
    ASSERT_EQ(only6.Open(&any6, false, true), 0);
    EXPECT_EQ(option_of(only6, IPPROTO_IPV6, IPV6_V6ONLY), 1);
    ASSERT_EQ(dual.Open(&any6, false, false), 0);
    EXPECT_EQ(option_of(dual, IPPROTO_IPV6, IPV6_V6ONLY), 0);
    ASSERT_EQ(dual.GetLocalAddr(&local6), 0);
    const CSockAddrIPv4 dual_at("127.0.0.1", local6.GetPort());
    char buf[8];
    ASSERT_EQ(s.Send("v4", 2, &dual_at), 2);
    EXPECT_EQ(dual.Recv_n(buf, sizeof buf, kDatagramWaitUs), 2);
}

TEST_F(DgramTest, SendAndRecvRefuseBadArgumentsAndDestinations)
{
    CSockDgram s, rx6;
    CSockAddrIPv4 at4;
    CSockAddrIPv6 at6;
    ASSERT_TRUE(open_loopback(s, at4) && open_loopback(rx6, at6));
    char buf[8];

    EXPECT_EQ(s.Send(nullptr, 4, &at4), -1);
    EXPECT_EQ(s.Send("x", 0, &at4), -1);
    EXPECT_EQ(log.Count("send to failed! Invalid parameter: buf:"), 2);
    const CSockAddrIPv4 invalid(0xFFFFFFFFu, 0);
    EXPECT_EQ(s.Send("x", 1, &invalid), -1);
    EXPECT_TRUE(log.Contains("send to failed! remote is invalid"));
    EXPECT_EQ(s.Send("x", 1, &at6), -1) << "an IPv6 destination from an IPv4 socket";
    EXPECT_TRUE(log.Contains("send to failed! fd["));

    EXPECT_EQ(s.Recv(nullptr, 8, nullptr), -1);
    EXPECT_EQ(s.Recv(buf, 0, nullptr), -1);
    EXPECT_EQ(log.Count("recv failed! invalid parameter: buf:"), 2);
    CNoAddr odd;
    EXPECT_EQ(s.Recv(buf, sizeof buf, &odd), -1);
    EXPECT_TRUE(log.Contains("recv failed! invalid parameter,remote type:0"));
    EXPECT_EQ(s.Recv(buf, sizeof buf, nullptr), 0) << "nothing waiting";
}

// An empty datagram reads as 0 and is taken off the queue; bounded receives keep
// their time limits.
TEST_F(DgramTest, EmptyDatagramsAreConsumedAndBoundedReceivesKeepTheirTimeLimits)
{
    using Clock = std::chrono::steady_clock;
    CSockDgram rx, tx;
    CSockAddrIPv4 at, from;
    ASSERT_TRUE(open_loopback(rx, at) && open_loopback(tx, from));
    char buf[16];
    sockaddr_in to{};
    at.GetAddr(reinterpret_cast<sockaddr*>(&to));
    ASSERT_EQ(Platform::sock_sendto(tx.GetHandle(), "", 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    ASSERT_EQ(tx.Send("after", 5, &at), 5);
    unsigned int ready = 0;
    ASSERT_EQ(Platform::sock_wait(rx.GetHandle(), Platform::SOCK_READABLE, kDatagramWaitUs, &ready), 1);
    EXPECT_EQ(rx.Recv(buf, sizeof buf, &from), 0);
    EXPECT_EQ(rx.Recv_n(buf, sizeof buf, kDatagramWaitUs), 5) << "the empty datagram was not taken off the queue";

    EXPECT_EQ(rx.Recv_r(nullptr, 8, nullptr, 1000), -1);
    EXPECT_TRUE(log.Contains("Recv_r failed! buf["));
    auto start = Clock::now();
    EXPECT_EQ(rx.Recv_n(buf, sizeof buf, 200'000), 0);
    const auto waited = Clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(190));
    EXPECT_LT(waited, std::chrono::seconds(2));

    ASSERT_EQ(tx.Send("queued", 6, &at), 6);
    start = Clock::now();
    EXPECT_EQ(rx.Recv_r(buf, sizeof buf, &from, kDatagramWaitUs), 6);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1)) << "a waiting datagram is taken at once";

#ifndef _WIN32
    // A port nobody holds answers with an ICMP refusal, reported on the connected socket
    // (Wine does not pass such refusals on to UDP sockets).
    CSockDgram gone;
    CSockAddrIPv4 gone_at;
    ASSERT_TRUE(open_loopback(gone, gone_at));
    gone.Close();
    ASSERT_EQ(tx.SetRemote(&gone_at), 0);
    ASSERT_EQ(tx.Send("lost", 4, nullptr), 4);
    EXPECT_EQ(tx.Recv_r(buf, sizeof buf, nullptr, kDatagramWaitUs), -1);
    EXPECT_TRUE(log.Contains("Recv_r error, socket exception"));
#endif
}

TEST_F(DgramTest, WriteVSendsItsElementsAsOneDatagram)
{
    CSockDgram rx, tx;
    CSockAddrIPv6 at, from;
    ASSERT_TRUE(open_loopback(rx, at) && open_loopback(tx, from));
    char a[] = "ab", b[] = "cde", c[] = "f";
    const iovec vec[4] = {iov(a, 2), iov(b, 3), iov(b, 0), iov(c, 1)};  // an empty element adds nothing

    EXPECT_EQ(tx.WriteV(vec, 4), -1) << "no destination yet";
    EXPECT_TRUE(log.Contains("WriteV failed! Invalid parameter: vector:"));
    ASSERT_EQ(tx.SetRemote(&at), 0);
    EXPECT_EQ(tx.WriteV(nullptr, 4), -1);
    ASSERT_EQ(tx.WriteV(vec, 4), 6);
    ASSERT_EQ(tx.WriteV(vec, 2), 5);
    char buf[16];
    ASSERT_EQ(rx.Recv_n(buf, sizeof buf, kDatagramWaitUs), 6);
    EXPECT_EQ(std::string(buf, 6), "abcdef");
    EXPECT_EQ(rx.Recv_n(buf, sizeof buf, kDatagramWaitUs), 5) << "each WriteV is a datagram of its own";
}

TEST_F(DgramTest, RecvMsgTellsTheAddressTheDatagramWasSentTo)
{
    CSockDgram rx, tx;
    const CSockAddrIPv4 any("0.0.0.0", 0);
    CSockAddrIPv4 bound, from, local;
    ASSERT_EQ(rx.Open(&any), 0);
    ASSERT_EQ(rx.GetLocalAddr(&bound), 0);
    char buf[16];
    CNoAddr odd;
    EXPECT_EQ(rx.RecvMsg(nullptr, 8, &from, &local), -1);
    EXPECT_EQ(rx.RecvMsg(buf, sizeof buf, &odd, &local), -1);
    EXPECT_EQ(rx.RecvMsg(buf, sizeof buf, &from, &odd), -1);
    EXPECT_TRUE(log.Contains("RecvMsg failed! invalid parameter: buf:"));
    EXPECT_TRUE(log.Contains("RecvMsg failed! invalid parameter,remote type:0"));
    EXPECT_TRUE(log.Contains("RecvMsg failed! invalid parameter,local type:0"));

    const int nothing = rx.RecvMsg(buf, sizeof buf, &from, &local);
    if (nothing == -1 && log.Contains("this interface is not support in windows system!")) {
        GTEST_SKIP() << "this system's sockets cannot tell the local address of a datagram";
    }
    ASSERT_EQ(nothing, 0);
    // 127.0.0.2 is loopback too: only the datagram itself can say which was used.
    const CSockAddrIPv4 to("127.0.0.2", bound.GetPort());
    CSockAddrIPv4 tx_at;
    ASSERT_TRUE(open_loopback(tx, tx_at));
    ASSERT_EQ(tx.Send("where", 5, &to), 5);
    unsigned int ready = 0;
    ASSERT_EQ(Platform::sock_wait(rx.GetHandle(), Platform::SOCK_READABLE, kDatagramWaitUs, &ready), 1);
    ASSERT_EQ(rx.RecvMsg(buf, sizeof buf, &from, &local), 5);
    EXPECT_TRUE(local == to);
    EXPECT_TRUE(from == tx_at);
}

TEST_F(DgramTest, SetRemoteConnectsUnicastOnlyAndSetsSoBroadcastByTheLowNibble)
{
    CSockAddrIPv4 peer;
    EXPECT_EQ(CSockDgram().SetRemote(nullptr), -1);
    EXPECT_TRUE(log.Contains("invalid remote addresst type!"));
    for (const char* ip : {"127.0.0.255", "127.0.0.15", "239.1.2.3", "127.0.0.16"}) {
        CSockDgram s;
        ASSERT_EQ(s.Open(nullptr), 0);
        const CSockAddrIPv4 remote(ip, 9);
        ASSERT_EQ(s.SetRemote(&remote), 0) << ip;
        const bool broadcast = std::strcmp(ip, "127.0.0.255") == 0 || std::strcmp(ip, "127.0.0.15") == 0;
        const bool connected = std::strcmp(ip, "127.0.0.16") == 0;
        EXPECT_EQ(option_of(s, SOL_SOCKET, SO_BROADCAST), broadcast ? 1 : 0) << ip;
        EXPECT_EQ(s.GetRemoteAddr(&peer) == 0, connected) << ip;
    }
    CSockDgram s6;
    const CSockAddrIPv6 any6("::", 0), group6("ff02::1", 9);
    CSockAddrIPv6 peer6;
    ASSERT_EQ(s6.Open(&any6), 0);
    ASSERT_EQ(s6.SetRemote(&group6), 0);
    EXPECT_NE(s6.GetRemoteAddr(&peer6), 0) << "an IPv6 group stays unconnected";
}

TEST_F(DgramTest, OptionsSayWhatTheyRefuse)
{
    CSockDgram s, unopened;
    ASSERT_EQ(s.Open(nullptr), 0);
    EXPECT_EQ(s.SetSockQos(256), -1);
    EXPECT_TRUE(log.Contains("SetSockQos failed! Invalid parameter: dscp:256"));
    const char* ips[] = {"10.0.0.1"};
    const unsigned int nums[] = {0x0A000001u};
    EXPECT_EQ(s.SetMulticastFilter(ips, 1, 0), -1);
    EXPECT_EQ(s.SetMulticastFilter(nums, 1, 0), -1);
    EXPECT_EQ(log.Count("This feature is not supported on this platform! fd["), 2);
    EXPECT_EQ(s.SetMulticastLoop(true), -1) << "IPv4 needs a joined group";
    EXPECT_TRUE(log.Contains("IP_MULTICAST_LOOP failed, multicast addr:"));
    EXPECT_EQ(s.SetMulticastIF("not an address"), -1);
    EXPECT_TRUE(log.Contains("inet_pton failed, fd["));
    EXPECT_EQ(s.SetMulticastIF(static_cast<const char*>(nullptr)), -1);
    EXPECT_EQ(unopened.SetMulticastTTL(2), -1);
    EXPECT_TRUE(log.Contains("IP_MULTICAST_TTL failed, fd[-1]"));

    ASSERT_EQ(s.SetSockRecvBuf(65536), 0);
    EXPECT_GE(s.GetSockRecvBuf(), 65536);
}

}  // namespace Qelvar::Corvane
