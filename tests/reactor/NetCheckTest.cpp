#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <Corvane/NetCheckManager.h>
#include <Corvane/SockAddrStorage.h>

#include "../socket/FakeResolver.h"
#include "Fundel/Time.h"
#include "ReactorSupport.h"
#include "TestSupport.h"

#ifndef _WIN32
#include "../socket/NetNamespace.h"
#endif

using namespace std::chrono_literals;
using namespace Qelvar::Corvane;
using Qelvar::Fundel::CTime;
using Qelvar::Test::FakeResolver;
using Qelvar::Test::LogCapture;
using Qelvar::Test::PoolScope;

namespace {

ADDR_RECORD_ALL candidates(std::initializer_list<const char*> texts)
{
    ADDR_RECORD_ALL all{};
    for (const char* t : texts) {
        ADDR_RECORD& r = all.records[all.count++];
        std::strncpy(r.addr, t, sizeof r.addr - 1);
        r.family = std::strchr(t, ':') ? AF_INET6 : AF_INET;
    }
    return all;
}

// Listens on `ip`, port chosen by the system; the port.
unsigned short listen_on(CSockAcceptor& acceptor, const char* ip, unsigned short port = 0)
{
    CSockAddrStorage local(ip, port), bound;
    if (acceptor.Open(local) != 0 || acceptor.GetLocalAddr(&bound) != 0) return 0;
    return bound.GetPort();
}

}  // namespace

TEST(NetCheck, OneCandidateOrADatagramNeedsNoProbe)
{
    CNetCheckManager& check = CNetCheckManager::Instance();
    ADDR_RECORD out{};
    EXPECT_TRUE(check.FilterIP(candidates({"10.9.9.9"}), out, 1, ADDR_SOCK_STREAM, 100));  // never connected
    EXPECT_STREQ(out.addr, "10.9.9.9");
    EXPECT_TRUE(check.FilterIP(candidates({"10.9.9.8", "10.9.9.9"}), out, 1, ADDR_SOCK_DGRAM, 100));
    EXPECT_STREQ(out.addr, "10.9.9.8");
    LogCapture log(6);
    EXPECT_FALSE(check.FilterIP(candidates({}), out, 1, ADDR_SOCK_STREAM, 100));
    EXPECT_TRUE(log.Contains("FilterIP failed! Invalid parameter, numRecords:0"));
}

// Refused candidates (closed ports on loopback) lose to the one that answers, whatever
// their order.
TEST(NetCheck, TheCandidateThatConnectsWins)
{
    PoolScope scope;
    CSockAcceptor acceptor;
    const unsigned short port = listen_on(acceptor, "127.0.0.1");
    ASSERT_NE(port, 0);
    ADDR_RECORD out{};
    EXPECT_TRUE(CNetCheckManager::Instance().FilterIP(candidates({"127.0.0.2", "::1", "127.0.0.1"}), out, port,
                                                      ADDR_SOCK_STREAM, 5000));
    EXPECT_STREQ(out.addr, "127.0.0.1");

    // Through SetDomainName: the check overrules the resolver's order.
    FakeResolver fake({{"two.test", {"127.0.0.3", "127.0.0.1"}}});
    CSockAddrStorage addr;
    ASSERT_EQ(addr.SetDomainName("two.test", port, 0, 5000), 0);
    char text[64];
    EXPECT_STREQ(addr.GetIpStr(text, sizeof text), "127.0.0.1");
}

TEST(NetCheck, NothingReachableTimesOutAndEleventhRequestFailsAtOnce)
{
    PoolScope scope;
    LogCapture log(6);
    CSockAcceptor probe;
    const unsigned short port = listen_on(probe, "127.0.0.1");
    probe.Close();  // refused from now on
    const ADDR_RECORD_ALL refused = candidates({"127.0.0.1", "127.0.0.2"});

    // Ten requests hold every slot for their second.
    std::vector<std::thread> holders;
    std::atomic<int> failed{0};
    for (int i = 0; i < CNetCheckManager::kSlots; ++i) {
        holders.emplace_back([&] {
            ADDR_RECORD out{};
            if (!CNetCheckManager::Instance().FilterIP(refused, out, port, ADDR_SOCK_STREAM, 1000)) ++failed;
        });
    }
    std::this_thread::sleep_for(200ms);
    ADDR_RECORD out{};
    const auto start = CTime::getCurrentMilliSecond();
    EXPECT_FALSE(CNetCheckManager::Instance().FilterIP(refused, out, port, ADDR_SOCK_STREAM, 1000));
    EXPECT_LT(CTime::getCurrentMilliSecond() - start, 500);
    EXPECT_TRUE(log.Contains("FilterIP failed, there is no more resouce to deal the request!"));
    for (auto& t : holders) t.join();
    EXPECT_EQ(failed.load(), CNetCheckManager::kSlots);
    EXPECT_EQ(log.Count("FilterIP failed, request timeout!"), CNetCheckManager::kSlots);
}

#ifndef _WIN32
// A candidate whose connection never completes (its packets vanish) must not hold the
// request: the reachable one wins, and the pending connection is stopped.
TEST(NetCheck, ABlackholedCandidateDoesNotHoldTheRequest)
{
    const std::string why = Qelvar::Test::VethPair::Unavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    const std::string ns = "cvn" + std::to_string(::getpid()) + "h";
    ASSERT_TRUE(Qelvar::Test::VethPair::sh("ip netns add " + ns));
    ASSERT_TRUE(Qelvar::Test::VethPair::sh("ip -n " + ns + " link set lo up"));
    // Packets for 10.99.0.0/16 go to loopback, where nobody owns them: a pending connect.
    ASSERT_TRUE(Qelvar::Test::VethPair::sh("ip -n " + ns + " route add 10.99.0.0/16 dev lo"));
    {
        PoolScope scope;
        Qelvar::Test::NetnsThread inside(ns);
        bool ok = false;
        std::string chosen;
        long long elapsed = 0;
        ASSERT_TRUE(inside.Run([&] {
            CSockAcceptor acceptor;
            const unsigned short port = listen_on(acceptor, "127.0.0.1");
            ADDR_RECORD out{};
            const auto start = CTime::getCurrentMilliSecond();
            ok = CNetCheckManager::Instance().FilterIP(candidates({"10.99.0.1", "127.0.0.1"}), out, port,
                                                       ADDR_SOCK_STREAM, 3000);
            elapsed = CTime::getCurrentMilliSecond() - start;
            chosen = out.addr;
        }));
        EXPECT_TRUE(ok);
        EXPECT_EQ(chosen, "127.0.0.1");
        EXPECT_LT(elapsed, 1000);
    }
    Qelvar::Test::VethPair::sh("ip netns del " + ns);
}
#endif
