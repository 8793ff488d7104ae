#include <gtest/gtest.h>

#include <string>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>

#include "FakeResolver.h"
#include "TestSupport.h"

namespace Qelvar::Corvane {

using Test::FakeResolver;
using Test::LogCapture;

namespace {

template <class Addr>
std::string text_of(const Addr& addr)
{
    char buf[128];
    return addr.GetIpStr(buf, sizeof buf) ? buf : "";
}

template <class Raw>
Raw raw_of(const CSockAddr& addr)
{
    Raw raw{};
    EXPECT_NE(addr.GetAddr(reinterpret_cast<sockaddr*>(&raw)), nullptr);
    return raw;
}

}  // namespace

TEST(SockAddr, ReservedPortsAreAnIpv4RuleOnThePortAlone)
{
    const struct {
        unsigned short port;
        bool reserved;
    } cases[] = {{0, true},      {1024, true},  {1025, false}, {1899, false}, {1900, true},   {3800, true},
                 {5000, true},   {5050, true},  {9999, true},  {39999, true}, {37776, true},  {37778, true},
                 {37779, false}, {37780, true}, {37880, true}, {37881, false}, {8089, false}, {8090, true},
                 {8121, true},   {8122, false}, {65535, false}};
    for (const auto& c : cases) EXPECT_EQ(CSockAddrIPv4("192.0.2.1", c.port).IsReserved(), c.reserved) << c.port;
    EXPECT_FALSE(CSockAddrIPv6("::1", 80).IsReserved());
    EXPECT_FALSE(CSockAddrStorage("10.1.2.3", 80).IsReserved());
}

TEST(SockAddr, ValidityDiffersPerFamilyAndSaysWhy)
{
    LogCapture log;
    EXPECT_TRUE(CSockAddrIPv4("0.0.0.0", 0).IsValid());
    EXPECT_TRUE(CSockAddrIPv4("255.255.255.255", 1).IsValid());
    EXPECT_FALSE(log.Contains("Invalid addr"));
    EXPECT_FALSE(CSockAddrIPv4("255.255.255.255", 0).IsValid());
    EXPECT_TRUE(log.Contains(":Invalid addr, m_addrin.sin_port:0 \n"));
    EXPECT_FALSE(CSockAddrIPv6("::", 80).IsValid());
    EXPECT_TRUE(log.Contains(":Invalid addr: m_addr.sin6_port:80 \n"));
    EXPECT_FALSE(CSockAddrIPv6("::1", 0).IsValid());
    EXPECT_TRUE(CSockAddrIPv6("::1", 80).IsValid());
    EXPECT_FALSE(CSockAddrStorage().IsValid());
    EXPECT_TRUE(CSockAddrStorage("10.1.2.3", 0).IsValid());
}

TEST(SockAddr, TextsNetworkOrderAndBuffersThatMustFit)
{
    LogCapture log;
    CSockAddrIPv4 v4;
    EXPECT_EQ(v4.SetIp("::ffff:10.0.0.1"), 0);
    EXPECT_EQ(v4.GetIp(), 0x0A000001u);
    EXPECT_EQ(v4.SetIp("::1"), -1);
    EXPECT_EQ(v4.GetIp(), 0x0A000001u);
    EXPECT_EQ(v4.SetIp(static_cast<const char*>(nullptr)), 0);
    EXPECT_EQ(v4.GetIp(), 0u);
    ASSERT_EQ(v4.SetAddr(0xC0000201u, 8080), 0);
    const auto raw = raw_of<sockaddr_in>(v4);
    EXPECT_EQ(raw.sin_port, htons(8080));
    EXPECT_EQ(raw.sin_addr.s_addr, htonl(0xC0000201u));
    EXPECT_EQ(v4.GetAddr(nullptr), nullptr);
    EXPECT_TRUE(log.Contains("CSockAddrIPv4::GetAddr : GetAddr failed! Invalid parameter, addr:"));

    char buf[64];
    ASSERT_EQ(v4.SetIp("10.0.0.1"), 0);
    EXPECT_EQ(v4.GetIpStr(buf, 6), nullptr);
    EXPECT_FALSE(log.Contains("inet_ntop_b"));  // refused before formatting
    EXPECT_EQ(v4.GetIpStr(buf, 9), buf);        // the text and its terminator
    EXPECT_EQ(v4.GetIpStr(buf, 8), nullptr);
    EXPECT_TRUE(log.Contains("inet_ntop_b error:"));
    const CSockAddrIPv6 v6("2001:db8::1", 1);
    EXPECT_EQ(v6.GetIpStr(buf, 6), nullptr);
    EXPECT_EQ(v6.GetIpStr(buf, 12), buf);
    EXPECT_EQ(v6.GetIpStr(buf, 11), nullptr);
    // The storage address hands back its own text, as given.
    CSockAddrStorage storage;
    EXPECT_EQ(storage.GetIpStr(buf, sizeof buf), nullptr);
    ASSERT_EQ(storage.SetIp("::FFFF:10.1.2.3"), 0);
    EXPECT_EQ(storage.GetIpStr(buf, 15), nullptr);
    ASSERT_EQ(storage.GetIpStr(buf, 16), buf);
    EXPECT_STREQ(buf, "::FFFF:10.1.2.3");
}

TEST(SockAddrStorage, TypesFollowTheTextAndRealSockAddrNeedsTheRealFamily)
{
    LogCapture log;
    const struct {
        const char* text;
        unsigned int real, input, len;
    } cases[] = {{"10.1.2.3", SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV4, 16},
                 {"fe80::1", SOCKADDR_TYPE_IPV6, SOCKADDR_TYPE_IPV6, 28},
                 {"::ffff:10.1.2.3", SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV6, 28}};
    for (const auto& c : cases) {
        CSockAddrStorage addr;
        ASSERT_EQ(addr.SetIp(c.text), 0) << c.text;
        EXPECT_EQ(addr.GetRealType(), c.real) << c.text;
        EXPECT_EQ(addr.GetInputType(), c.input) << c.text;
        EXPECT_EQ(addr.GetAddrLen(), c.len) << c.text;
    }
    const CSockAddrStorage v6("2001:db8::9", 443);
    CSockAddrIPv4 wrong;
    EXPECT_FALSE(v6.GetRealSockAddr(&wrong));
    EXPECT_FALSE(v6.GetRealSockAddr(nullptr));
    CSockAddrIPv6 right;
    ASSERT_TRUE(v6.GetRealSockAddr(&right));
    EXPECT_TRUE(right == CSockAddrIPv6("2001:db8::9", 443));
    EXPECT_FALSE(CSockAddrStorage().GetRealSockAddr(&right));
    EXPECT_TRUE(log.Contains("GetRealSockAddr failed, m_real_type is error :0!"));
}

TEST(SockAddrStorage, PortGoesWhereTheRealTypeSaysWhileGetAddrFollowsTheInputType)
{
    // IPv4-mapped: the port lands in the IPv4 structure, while the IPv6 one is handed out
    // with the port held when the text was set.
    CSockAddrStorage mapped;
    ASSERT_EQ(mapped.SetAddr("::ffff:10.1.2.3", 80), 0);
    EXPECT_EQ(raw_of<sockaddr_in6>(mapped).sin6_family, AF_INET6);
    EXPECT_EQ(raw_of<sockaddr_in6>(mapped).sin6_port, 0);
    EXPECT_EQ(mapped.GetPort(), 80);
    CSockAddrIPv4 real;
    ASSERT_TRUE(mapped.GetRealSockAddr(&real));
    EXPECT_TRUE(real == CSockAddrIPv4("10.1.2.3", 80));

    CSockAddrStorage v6("2001:db8::7", 443);
    ASSERT_EQ(v6.SetPort(444), 0);
    EXPECT_EQ(raw_of<sockaddr_in6>(v6).sin6_port, htons(444));
    CSockAddrStorage v4("10.1.2.3", 80);
    ASSERT_EQ(v4.SetPort(81), 0);
    EXPECT_EQ(raw_of<sockaddr_in>(v4).sin_port, htons(81));

    // From a system structure the address is taken whole, port and scope included.
    sockaddr_in6 sys = raw_of<sockaddr_in6>(CSockAddrIPv6("fe80::5", 9000, 3));
    ASSERT_EQ(v4.SetAddr(reinterpret_cast<const sockaddr_in*>(&sys)), 0);
    EXPECT_EQ(text_of(v4), "fe80::5");
    EXPECT_EQ(raw_of<sockaddr_in6>(v4).sin6_scope_id, 3u);
    EXPECT_EQ(raw_of<sockaddr_in6>(v4).sin6_port, htons(9000));
    const auto sys4 = raw_of<sockaddr_in>(CSockAddrIPv4("192.0.2.9", 53));
    ASSERT_EQ(v4.SetAddr(&sys4), 0);
    EXPECT_TRUE(v4 == CSockAddrStorage("192.0.2.9", 53));
    LogCapture log;
    EXPECT_EQ(v4.SetAddr(static_cast<const sockaddr_in*>(nullptr)), -1);
}

TEST(SockAddr, CopiesAreDeepAndEqualityComparesWhatEachFamilyKeeps)
{
    CSockAddrIPv4 v4("10.0.0.1", 1);
    CSockAddrIPv4 v4_copy(v4);
    v4_copy.SetAddr("10.0.0.2", 2);
    EXPECT_TRUE(v4 == CSockAddrIPv4(0x0A000001u, 1));
    v4 = v4_copy;
    v4_copy.SetPort(3);
    EXPECT_EQ(v4.GetPort(), 2);
    CSockAddrIPv6 v6("2001:db8::1", 1, 4);
    CSockAddrIPv6 v6_copy(v6);
    v6_copy.SetAddr("2001:db8::2", 2, 5);
    EXPECT_EQ(text_of(v6), "2001:db8::1");
    EXPECT_EQ(v6.GetScopeID(), 4u);
    CSockAddrStorage storage("fe80::1", 1);
    CSockAddrStorage storage_copy(storage);
    storage_copy.SetAddr("10.9.9.9", 2);
    EXPECT_EQ(text_of(storage), "fe80::1");
    storage = storage_copy;
    storage_copy.SetAddr("10.8.8.8", 3);
    EXPECT_TRUE(storage == CSockAddrStorage("10.9.9.9", 2));

    LogCapture log;
    EXPECT_FALSE(CSockAddrIPv4("10.0.0.1", 80) == CSockAddrIPv4("10.0.0.1", 81));
    EXPECT_FALSE(CSockAddrIPv4("255.255.255.255", 0) == CSockAddrIPv4("255.255.255.255", 0));
    EXPECT_TRUE(CSockAddrIPv6("2001:db8::1", 80, 1) == CSockAddrIPv6("2001:db8:0::1", 80, 2));  // scope ignored
    EXPECT_FALSE(CSockAddrIPv6("2001:db8::1", 80) == CSockAddrIPv6("2001:db8::2", 80));
    EXPECT_FALSE(CSockAddrIPv6("::1", 0) == CSockAddrIPv6("::1", 0));
    // Storage compares texts: one address spelt two ways is two addresses.
    EXPECT_FALSE(CSockAddrStorage("::ffff:10.1.2.3", 80) == CSockAddrStorage("::FFFF:10.1.2.3", 80));
    EXPECT_FALSE(CSockAddrStorage() == CSockAddrStorage());
    // A shorter text set over a longer one must not keep the longer one's tail.
    CSockAddrStorage reused("2001:db8::123", 80);
    reused.SetIp("2001:db8::1");
    EXPECT_TRUE(reused == CSockAddrStorage("2001:db8::1", 80));
}

TEST(SockAddrIPv6, LinkLocalScopeComesFromTheInterface)
{
    LogCapture log;
    CSockAddrIPv6 addr("fe80::1", 80, 7);
    EXPECT_EQ(addr.SetScopeName("corvane-none0"), -1);
    EXPECT_EQ(addr.GetScopeID(), 7u);
    const bool named = !log.Contains("SetScopeName is not support in windows \n");
    if (named) {
        EXPECT_TRUE(log.Contains("SetScopeName failed! No interface is named corvane-none0"));
    }
    if (named && Platform::if_index_of("lo") > 0) {
        EXPECT_EQ(addr.SetScopeName("lo"), 0);
        EXPECT_EQ(addr.GetScopeID(), static_cast<unsigned int>(Platform::if_index_of("lo")));
    }

    Platform::SInterfaceAddr list[128];
    const int count = Platform::if_addresses(list, 128);
    for (int i = 0; i < count; ++i) {
        const unsigned char* b = list[i].address;
        if (list[i].family != AF_INET6 || b[0] != 0xFE || (b[1] & 0xC0) != 0x80) continue;
        char text[64];
        ASSERT_NE(Platform::addr_to_text(AF_INET6, b, text, sizeof text), nullptr);
        ASSERT_EQ(addr.SetIp(text), 0);
        EXPECT_EQ(addr.GetScopeID(), list[i].index) << text;
        ASSERT_EQ(addr.SetIp("2001:db8::1"), 0);
        EXPECT_EQ(addr.GetScopeID(), 0u);  // a global address has none
        return;
    }
    GTEST_SKIP() << "no interface of this machine has an IPv6 link-local address";
}

TEST(SockAddr, DomainNamesChooseByPriorityWhenTheCheckCannot)
{
    FakeResolver fake({{"dual.test", {"2001:db8::1", "10.0.0.1", "10.0.0.2"}},
                       {"v6only.test", {"2001:db8::5", "2001:db8::6"}},
                       {"v4only.test", {"10.0.0.7", "10.0.0.8"}},
                       {"one.test", {"2001:db8::9"}}});
    LogCapture log;
    const struct {
        const char* name;
        int socktype, priority;
        const char* chosen;
        const char* line;  // null: the check chose, no rule was needed
    } cases[] = {
        {"dual.test", 0, CVN_DEFAULT_PRIORITY, "2001:db8::1", "FilterIP failed! Will set an IP by default"},
        {"dual.test", 0, CVN_IPV4_PRIORITY, "10.0.0.1", "FilterIP failed! Will set an IP by CVN_IPV4_PRIORITY"},
        {"dual.test", 0, CVN_IPV6_PRIORITY, "2001:db8::1", "FilterIP failed! Will set an IP by CVN_IPV6_PRIORITY"},
        {"v6only.test", 0, CVN_IPV4_PRIORITY, "2001:db8::5", "Failed to set IPv4 address, IPv6 address will be set"},
        {"v4only.test", 0, CVN_IPV6_PRIORITY, "10.0.0.7", "Failed to set IPv6 address, IPv4 address will be set"},
        {"one.test", 0, CVN_IPV4_PRIORITY, "2001:db8::9", nullptr},
        {"v4only.test", 1, CVN_IPV6_PRIORITY, "10.0.0.7", nullptr},
    };
    for (const auto& c : cases) {
        log.Clear();
        CSockAddrStorage addr;
        ASSERT_EQ(addr.SetDomainName(c.name, 8000, c.socktype, 2000, c.priority), 0) << c.name << c.priority;
        EXPECT_EQ(text_of(addr), c.chosen);
        EXPECT_EQ(addr.GetPort(), 8000);
        const std::string line = c.line ? std::string("CSockAddrStorage::SetDomainName : ") + c.line : "FilterIP failed!";
        EXPECT_EQ(log.Contains(line), c.line != nullptr) << line;
    }
    // Each family's own class takes that family only; a literal is taken without a lookup.
    CSockAddrIPv4 v4;
    ASSERT_EQ(v4.SetDomainName("dual.test", 2, 0, 2000), 0);
    EXPECT_TRUE(v4 == CSockAddrIPv4("10.0.0.1", 2));
    EXPECT_EQ(v4.SetDomainName("v6only.test", 2, 0, 2000), -1);
    CSockAddrIPv6 v6;
    ASSERT_EQ(v6.SetDomainName("dual.test", 3, 1, 2000), 0);
    EXPECT_TRUE(v6 == CSockAddrIPv6("2001:db8::1", 3));
    const int lookups = fake.Locked([](auto& s) { return s.started; });
    ASSERT_EQ(v4.SetDomainName("192.0.2.4", 4, 0, 2000), 0);
    EXPECT_EQ(fake.Locked([](auto& s) { return s.started; }), lookups);
}

TEST(SockAddr, NamesResolveToTheClassFamilyAndRefusalsAreLogged)
{
    FakeResolver fake({{"dual.test", {"2001:db8::1", "10.0.0.1"}},
                       {"v4only.test", {"10.0.0.7"}},
                       {"v6only.test", {"2001:db8::5"}}});
    LogCapture log;
    CSockAddrIPv4 v4;
    EXPECT_EQ(v4.SetIp("v4only.test"), 0);
    EXPECT_EQ(v4.GetIp(), 0x0A000007u);
    EXPECT_EQ(v4.SetIp("v6only.test"), -1);
    CSockAddrIPv6 v6("::1", 99);  // takes an IPv4-only name IPv4-mapped, and keeps its port
    ASSERT_EQ(v6.SetIp("v4only.test"), 0);
    EXPECT_TRUE(v6 == CSockAddrIPv6("::ffff:10.0.0.7", 99));
    CSockAddrStorage storage;
    ASSERT_EQ(storage.SetIp("v6only.test"), 0);
    EXPECT_EQ(storage.GetRealType(), SOCKADDR_TYPE_IPV6);
    EXPECT_EQ(storage.GetInputType(), SOCKADDR_TYPE_IPV6);
    EXPECT_EQ(text_of(storage), "v6only.test");

    EXPECT_EQ(storage.SetDomainName("dual.test", 1, 0, 2000, 3), -1);
    EXPECT_TRUE(log.Contains("CSockAddrStorage::SetDomainName : SetDomainName failed! Invalid setPriority :3"));
    EXPECT_EQ(storage.SetDomainName("dual.test", 1, 3, 2000), -1);
    EXPECT_TRUE(log.Contains("CSockAddrStorage::SetDomainName : SetDomainName failed! Invalid socktype :3"));
    EXPECT_EQ(storage.SetDomainName(nullptr, 1, 0, 2000), -1);
    EXPECT_TRUE(log.Contains("SetDomainName failed! Invalid parameter, ipstr :(null)"));
    EXPECT_EQ(storage.SetDomainName("unknown.test", 1, 0, 2000), -1);
    EXPECT_EQ(storage.SetIp("unknown:test"), -1);
    EXPECT_EQ(storage.GetRealType(), SOCKADDR_TYPE_NONE);
    EXPECT_EQ(v4.SetDomainName(nullptr, 1, 0, 2000), -1);
    EXPECT_TRUE(log.Contains("CSockAddrIPv4::SetDomainName : SetDomainName failed! Invalid ipstr :"));
    EXPECT_EQ(v6.SetIp(nullptr), -1);
    EXPECT_TRUE(log.Contains("SetIp failed! Invalid parameter, ipstr :(null)"));
    // -1 is outside the resolver's codes: a stream lookup, with the resolver's warning.
    log.Clear();
    ASSERT_EQ(storage.SetDomainName("dual.test", 1, -1, 2000), 0);
    EXPECT_EQ(fake.Locked([](auto& s) { return s.last_socktype; }), SOCK_STREAM);
    EXPECT_TRUE(log.Contains("The Socktype is not specified, the default setting is SOCK_STREAM!"));
}

}  // namespace Qelvar::Corvane
