// Multicast and broadcast for real: across a veth pair between two network namespaces
// that the suite makes for itself (loopback carries neither).
#include <gtest/gtest.h>

#ifdef _WIN32

TEST(DgramAcrossVeth, NeedsLinuxNetworkNamespaces)
{
    GTEST_SKIP() << "network namespaces and veth pairs exist on Linux only (this is the Windows build)";
}

#else

#include <cstring>
#include <memory>
#include <string>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockDgram.h>

#include "NetNamespace.h"
#include "Platform/SockTypes.h"
#include "Platform/Socket.h"
#include "SocketProbes.h"
#include "TestSupport.h"

namespace Qelvar::Corvane {

using Qelvar::Test::kDatagramWaitUs;
using Qelvar::Test::LogCapture;
using Qelvar::Test::option_of;
using Qelvar::Test::NetnsThread;
using Qelvar::Test::VethPair;

namespace {

// The next datagram's text, waiting up to kDatagramWaitUs; "" when none came.
std::string next(CSockDgram& s, CSockAddr* from = nullptr)
{
    char buf[64];
    const int n = s.Recv_r(buf, sizeof buf, from, kDatagramWaitUs);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

int send_text(CSockDgram& s, const char* text, const CSockAddr* to = nullptr)
{
    return s.Send(text, static_cast<unsigned int>(std::strlen(text)), to);
}

// Sends "ttl0" with TTL (hop limit) 0, which keeps a multicast datagram on the host when
// the host has a member on the outgoing link, then "ttl1"; returns what `rx` hears first.
std::string first_heard_after_ttl_0_and_1(CSockDgram& tx, CSockDgram& rx, CSockAddr* sender)
{
    if (tx.SetMulticastTTL(0) != 0 || send_text(tx, "ttl0") != 4) return "ttl 0 not sent";
    if (tx.SetMulticastTTL(1) != 0 || send_text(tx, "ttl1") != 4) return "ttl 1 not sent";
    return next(rx, sender);
}

}  // namespace

class DgramAcrossVeth : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        sm_reason = VethPair::Unavailable();
        if (!sm_reason.empty()) return;
        sm_pair = std::make_unique<VethPair>();
        if (!sm_pair->Create()) {
            sm_reason = "could not create network namespaces with a veth pair (no CAP_SYS_ADMIN here?)";
            return;
        }
        sm_a = std::make_unique<NetnsThread>(sm_pair->a);
        sm_b = std::make_unique<NetnsThread>(sm_pair->b);
    }
    static void TearDownTestSuite()
    {
        sm_a.reset();
        sm_b.reset();
        sm_pair.reset();
    }
    void SetUp() override
    {
        if (!sm_reason.empty()) GTEST_SKIP() << sm_reason;
    }

    // Runs `job` in namespace a (or b) and fails the test when it cannot.
    static void in_a(const std::function<void()>& job) { ASSERT_TRUE(sm_a->Run(job)) << "cannot enter " << sm_pair->a; }
    static void in_b(const std::function<void()>& job) { ASSERT_TRUE(sm_b->Run(job)) << "cannot enter " << sm_pair->b; }

    static inline std::string sm_reason;
    static inline std::unique_ptr<VethPair> sm_pair;
    static inline std::unique_ptr<NetnsThread> sm_a;
    static inline std::unique_ptr<NetnsThread> sm_b;
};

TEST_F(DgramAcrossVeth, Ipv4GroupJoinedAtOpenIsReachedThroughTheInterfaceAndTtlSet)
{
    const CSockAddrIPv4 group("239.1.2.3", 40001), member_group("239.1.2.3", 40009);
    CSockDgram rx, member, tx;
    in_b([&] { EXPECT_EQ(rx.Open(&group, true), 0); });
    in_a([&] {
        EXPECT_EQ(member.Open(&member_group), 0);  // joined where a's route leads
        EXPECT_EQ(tx.Open(nullptr), 0);            // unbound: no source address picks the link
    });
    EXPECT_EQ(option_of(rx, SOL_SOCKET, SO_REUSEADDR), 1);
    CSockAddrIPv4 sender, bound;
    ASSERT_EQ(rx.GetLocalAddr(&bound), 0);
    EXPECT_EQ(bound.GetIp(), 0u) << "a group is bound as the wildcard address";
    EXPECT_EQ(bound.GetPort(), 40001);

    ASSERT_EQ(tx.SetRemote(&group), 0);
    EXPECT_NE(tx.GetRemoteAddr(&sender), 0) << "a multicast destination must stay unconnected";
    ASSERT_EQ(send_text(tx, "by route"), 8);  // leaves by a's route, away from b
    ASSERT_EQ(tx.SetMulticastIF("10.77.0.1"), 0);
    // The member leaves the group where it was and joins it on the link.
    ASSERT_EQ(member.SetMulticastIF(0x0A4D0001u), 0);
    EXPECT_EQ(first_heard_after_ttl_0_and_1(tx, rx, &sender), "ttl1");
    CSockAddrIPv4 tx_local;
    ASSERT_EQ(tx.GetLocalAddr(&tx_local), 0);
    EXPECT_EQ(sender.GetIp(), 0x0A4D0001u);
    EXPECT_EQ(sender.GetPort(), tx_local.GetPort());

    ASSERT_EQ(rx.SetMulticastIF(0x0A4D0002u), 0);
    ASSERT_EQ(send_text(tx, "rejoined"), 8);
    EXPECT_EQ(next(rx), "rejoined");
}

TEST_F(DgramAcrossVeth, Ipv4LoopOffKeepsTheSendersOwnHostFromHearingIt)
{
    const CSockAddrIPv4 group("239.1.2.4", 40002), own_group("239.1.2.4", 40003);
    CSockDgram listener, sender;
    in_b([&] {
        EXPECT_EQ(listener.Open(&group, true), 0);
        EXPECT_EQ(sender.Open(&own_group, true), 0);
    });
    ASSERT_EQ(sender.SetMulticastLoop(false), 0);
    ASSERT_EQ(option_of(sender, IPPROTO_IP, IP_MULTICAST_LOOP), 0);
    ASSERT_EQ(send_text(sender, "loop off", &group), 8);
    ASSERT_EQ(sender.SetMulticastLoop(true), 0);
    ASSERT_EQ(send_text(sender, "loop on", &group), 7);
    EXPECT_EQ(next(listener), "loop on");
}

TEST_F(DgramAcrossVeth, Ipv6LinkLocalGroupIsReachedThroughTheInterfaceAndHopsSet)
{
    CSockDgram rx, member, tx;
    int index_a = 0;
    in_b([&] {
        const int index_b = Platform::if_index_of(sm_pair->if_b.c_str());
        const CSockAddrIPv6 group("ff02::1:7", 40004, static_cast<unsigned int>(index_b));
        EXPECT_EQ(rx.Open(&group, true), 0);
    });
    in_a([&] {
        index_a = Platform::if_index_of(sm_pair->if_a.c_str());
        const CSockAddrIPv6 group("ff02::1:7", 40010, static_cast<unsigned int>(index_a)), local("fd77::1", 0);
        EXPECT_EQ(member.Open(&group), 0);
        EXPECT_EQ(tx.Open(&local), 0);
        EXPECT_EQ(tx.SetMulticastIF(sm_pair->if_a.c_str()), 0);  // by name: resolved in a
    });
    ASSERT_GT(index_a, 0);
    EXPECT_EQ(option_of(tx, IPPROTO_IPV6, IPV6_MULTICAST_IF), index_a);

    const CSockAddrIPv6 group("ff02::1:7", 40004);
    ASSERT_EQ(tx.SetRemote(&group), 0);
    CSockAddrIPv6 sender, tx_local;
    EXPECT_NE(tx.GetRemoteAddr(&sender), 0) << "a multicast destination must stay unconnected";
    EXPECT_EQ(first_heard_after_ttl_0_and_1(tx, rx, &sender), "ttl1");
    ASSERT_EQ(tx.GetLocalAddr(&tx_local), 0);
    EXPECT_EQ(sender.GetPort(), tx_local.GetPort());
    ASSERT_EQ(tx.SetMulticastLoop(false), 0) << "IPv6 needs no joined group for this";
    EXPECT_EQ(option_of(tx, IPPROTO_IPV6, IPV6_MULTICAST_LOOP), 0);
}

TEST_F(DgramAcrossVeth, BroadcastToTheSubnetReachesAWildcardSocketOnlyWithSoBroadcast)
{
    const CSockAddrIPv4 any("0.0.0.0", 40005), broadcast("10.77.0.255", 40005);
    CSockDgram rx, tx;
    in_b([&] { EXPECT_EQ(rx.Open(&any), 0); });
    in_a([&] {
        const CSockAddrIPv4 local("10.77.0.1", 0);
        EXPECT_EQ(tx.Open(&local), 0);
    });
    {
        // The system refuses a broadcast from a socket that did not ask for it.
        LogCapture log;
        EXPECT_EQ(send_text(tx, "refused", &broadcast), -1);
        EXPECT_TRUE(log.Contains("send to failed! fd["));
    }
    ASSERT_EQ(tx.SetRemote(&broadcast), 0);
    EXPECT_EQ(option_of(tx, SOL_SOCKET, SO_BROADCAST), 1);
    ASSERT_EQ(send_text(tx, "to all"), 6);
    CSockAddrIPv4 sender;
    EXPECT_EQ(next(rx, &sender), "to all");
    EXPECT_EQ(sender.GetIp(), 0x0A4D0001u);
}

}  // namespace Qelvar::Corvane

#endif
