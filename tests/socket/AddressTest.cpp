#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>

#include "FakeResolver.h"
#include "Platform/SockTypes.h"
#include "Platform/Socket.h"
#include "TestSupport.h"

namespace Qelvar::Corvane {

using Test::FakeResolver;
using Test::LogCapture;

namespace {

std::string ip_text(const CSockAddrStorage& addr)
{
    char buf[128];
    return addr.GetIpStr(buf, sizeof buf) ? buf : "";
}

std::string ip_text(const CSockAddrIPv6& addr)
{
    char buf[64];
    return addr.GetIpStr(buf, sizeof buf) ? buf : "";
}

sockaddr_in6 raw_ipv6(const CSockAddr& addr)
{
    sockaddr_in6 raw{};
    EXPECT_EQ(addr.GetAddr(reinterpret_cast<sockaddr*>(&raw)), reinterpret_cast<sockaddr*>(&raw));
    return raw;
}

sockaddr_in raw_ipv4(const CSockAddr& addr)
{
    sockaddr_in raw{};
    EXPECT_EQ(addr.GetAddr(reinterpret_cast<sockaddr*>(&raw)), reinterpret_cast<sockaddr*>(&raw));
    return raw;
}

}  // namespace

TEST(SockAddr, ReservedPortsAreAnIpv4RuleOnThePortAlone)
{
    const struct {
        unsigned short port;
        bool reserved;
    } cases[] = {{0, true},      {1024, true},  {1025, false}, {1899, false}, {1900, true},  {1901, false},
                 {3800, true},   {5000, true},  {5050, true},  {9999, true},  {39999, true}, {37776, true},
                 {37778, true},  {37779, false}, {37780, true}, {37880, true}, {37881, false}, {8089, false},
                 {8090, true},   {8121, true},  {8122, false}, {65535, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(CSockAddrIPv4("192.0.2.1", c.port).IsReserved(), c.reserved) << c.port;
    }
    EXPECT_FALSE(CSockAddrIPv6("::1", 80).IsReserved());
    EXPECT_FALSE(CSockAddrStorage("10.1.2.3", 80).IsReserved());
}

TEST(SockAddr, ValidityDiffersPerFamilyAndSaysWhy)
{
    LogCapture log;
    EXPECT_TRUE(CSockAddrIPv4("0.0.0.0", 0).IsValid());
    EXPECT_TRUE(CSockAddrIPv4("255.255.255.255", 1).IsValid());
    EXPECT_EQ(log.Count("Invalid addr"), 0);
    EXPECT_FALSE(CSockAddrIPv4("255.255.255.255", 0).IsValid());
    EXPECT_TRUE(log.Contains(":Invalid addr, m_addrin.sin_port:0 \n"));

    EXPECT_FALSE(CSockAddrIPv6("::", 80).IsValid());
    EXPECT_TRUE(log.Contains(":Invalid addr: m_addr.sin6_port:80 \n"));
    EXPECT_FALSE(CSockAddrIPv6("::1", 0).IsValid());
    EXPECT_TRUE(log.Contains(":Invalid addr: m_addr.sin6_port:0 \n"));
    EXPECT_TRUE(CSockAddrIPv6("::1", 80).IsValid());

    // A storage address is valid by the structure it hands out.
    CSockAddrStorage storage;
    EXPECT_FALSE(storage.IsValid());
    EXPECT_EQ(storage.GetPort(), 0);
    EXPECT_EQ(storage.SetAddr("10.1.2.3", 0), 0);
    EXPECT_TRUE(storage.IsValid());
}

TEST(SockAddrIPv4, TextsNumbersAndNetworkOrder)
{
    CSockAddrIPv4 addr;
    EXPECT_EQ(addr.SetIp("::ffff:10.0.0.1"), 0);
    EXPECT_EQ(addr.GetIp(), 0x0A000001u);
    EXPECT_EQ(addr.SetIp("::1"), -1);
    EXPECT_EQ(addr.SetIp("2001:db8::1"), -1);
    EXPECT_EQ(addr.GetIp(), 0x0A000001u);  // a failed set leaves the address
    EXPECT_EQ(addr.SetIp(static_cast<const char*>(nullptr)), 0);
    EXPECT_EQ(addr.GetIp(), 0u);
    EXPECT_EQ(addr.SetAddr(0xC0000201u, 8080), 0);
    const sockaddr_in raw = raw_ipv4(addr);
    EXPECT_EQ(raw.sin_family, AF_INET);
    EXPECT_EQ(raw.sin_port, htons(8080));
    EXPECT_EQ(raw.sin_addr.s_addr, htonl(0xC0000201u));
    EXPECT_EQ(CSockAddrIPv4(raw).GetPort(), 8080);
    EXPECT_EQ(addr.GetAddrLen(), sizeof(sockaddr_in));
    EXPECT_EQ(CSockAddrIPv6().GetAddrLen(), sizeof(sockaddr_in6));

    LogCapture log;
    EXPECT_EQ(addr.GetAddr(nullptr), nullptr);
    EXPECT_TRUE(log.Contains("CSockAddrIPv4::GetAddr : GetAddr failed! Invalid parameter, addr:"));
}

TEST(SockAddr, GetIpStrNeedsRoomForTheWholeText)
{
    LogCapture log;
    char buf[64];
    const CSockAddrIPv4 v4("10.0.0.1", 1);
    EXPECT_EQ(v4.GetIpStr(buf, 6), nullptr);
    EXPECT_EQ(v4.GetIpStr(nullptr, 64), nullptr);
    EXPECT_EQ(log.Count("inet_ntop_b"), 0);  // refused before formatting
    ASSERT_EQ(v4.GetIpStr(buf, 9), buf);     // "10.0.0.1" and its terminator
    EXPECT_STREQ(buf, "10.0.0.1");
    EXPECT_EQ(v4.GetIpStr(buf, 8), nullptr);
    EXPECT_TRUE(log.Contains("inet_ntop_b error:"));

    const CSockAddrIPv6 v6("2001:db8::1", 1);
    EXPECT_EQ(v6.GetIpStr(buf, 6), nullptr);
    ASSERT_EQ(v6.GetIpStr(buf, 12), buf);
    EXPECT_STREQ(buf, "2001:db8::1");
    EXPECT_EQ(v6.GetIpStr(buf, 11), nullptr);

    // The storage address hands back its own text, as given.
    CSockAddrStorage storage;
    EXPECT_EQ(storage.GetIpStr(buf, sizeof buf), nullptr);
    ASSERT_EQ(storage.SetIp("::FFFF:10.1.2.3"), 0);
    EXPECT_EQ(storage.GetIpStr(buf, 15), nullptr);
    ASSERT_EQ(storage.GetIpStr(buf, 16), buf);
    EXPECT_STREQ(buf, "::FFFF:10.1.2.3");
}

TEST(SockAddrStorage, RealAndInputTypesFollowTheText)
{
    const struct {
        const char* text;
        unsigned int real;
        unsigned int input;
        unsigned int len;
    } cases[] = {{"10.1.2.3", SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV4, 16},
                 {"fe80::1", SOCKADDR_TYPE_IPV6, SOCKADDR_TYPE_IPV6, 28},
                 {"::ffff:10.1.2.3", SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV6, 28},
                 {"2001:db8::7", SOCKADDR_TYPE_IPV6, SOCKADDR_TYPE_IPV6, 28}};
    for (const auto& c : cases) {
        CSockAddrStorage addr;
        ASSERT_EQ(addr.SetIp(c.text), 0) << c.text;
        EXPECT_EQ(addr.GetRealType(), c.real) << c.text;
        EXPECT_EQ(addr.GetInputType(), c.input) << c.text;
        EXPECT_EQ(addr.GetAddrLen(), c.len) << c.text;
    }
    FakeResolver fake;  // a text that is no literal is looked up
    LogCapture log;
    CSockAddrStorage bad;
    EXPECT_EQ(bad.SetIp(nullptr), -1);
    EXPECT_EQ(bad.SetIp("1.2.3.4.5:x:"), -1);
    EXPECT_EQ(bad.GetRealType(), SOCKADDR_TYPE_NONE);
}

TEST(SockAddrStorage, PortGoesWhereTheRealTypeSaysWhileGetAddrFollowsTheInputType)
{
    LogCapture log;  // the refusals below are logged
    // IPv4-mapped: the port lands in the IPv4 structure, but the IPv6 one is handed out,
    // with the port the object held when its text was set.
    CSockAddrStorage mapped;
    ASSERT_EQ(mapped.SetAddr("::ffff:10.1.2.3", 80), 0);
    const sockaddr_in6 handed = raw_ipv6(mapped);
    EXPECT_EQ(handed.sin6_family, AF_INET6);
    EXPECT_EQ(handed.sin6_port, 0);
    EXPECT_EQ(mapped.GetPort(), 80);
    CSockAddrIPv4 real;
    ASSERT_TRUE(mapped.GetRealSockAddr(&real));
    EXPECT_EQ(real.GetIp(), 0x0A010203u);
    EXPECT_EQ(real.GetPort(), 80);

    CSockAddrStorage v6;
    ASSERT_EQ(v6.SetAddr("2001:db8::7", 443), 0);
    EXPECT_EQ(raw_ipv6(v6).sin6_port, htons(443));
    ASSERT_EQ(v6.SetPort(444), 0);
    EXPECT_EQ(raw_ipv6(v6).sin6_port, htons(444));

    CSockAddrStorage v4("10.1.2.3", 80);
    ASSERT_EQ(v4.SetPort(81), 0);
    EXPECT_EQ(raw_ipv4(v4).sin_port, htons(81));

    // From a system structure the address and port are taken whole, scope included.
    sockaddr_in6 sys{};
    sys.sin6_family = AF_INET6;
    sys.sin6_port = htons(9000);
    sys.sin6_scope_id = 3;
    ASSERT_EQ(Platform::addr_from_text(AF_INET6, "fe80::5", &sys.sin6_addr), 1);
    CSockAddrStorage from_sys;
    ASSERT_EQ(from_sys.SetAddr(reinterpret_cast<const sockaddr_in*>(&sys)), 0);
    EXPECT_EQ(ip_text(from_sys), "fe80::5");
    EXPECT_EQ(from_sys.GetPort(), 9000);
    EXPECT_EQ(raw_ipv6(from_sys).sin6_scope_id, 3u);
    EXPECT_EQ(raw_ipv6(from_sys).sin6_port, htons(9000));

    const sockaddr_in sys4 = raw_ipv4(CSockAddrIPv4("192.0.2.9", 53));
    ASSERT_EQ(from_sys.SetAddr(&sys4), 0);
    EXPECT_EQ(ip_text(from_sys), "192.0.2.9");
    EXPECT_EQ(from_sys.GetInputType(), SOCKADDR_TYPE_IPV4);
    EXPECT_EQ(from_sys.GetPort(), 53);
    EXPECT_EQ(from_sys.SetAddr(static_cast<const sockaddr_in*>(nullptr)), -1);
}

TEST(SockAddr, CopiesAreDeep)
{
    CSockAddrIPv4 v4("10.0.0.1", 1);
    CSockAddrIPv4 v4_copy(v4);
    v4_copy.SetAddr("10.0.0.2", 2);
    EXPECT_EQ(v4.GetIp(), 0x0A000001u);
    v4 = v4_copy;
    v4_copy.SetPort(3);
    EXPECT_EQ(v4.GetPort(), 2);

    CSockAddrIPv6 v6("2001:db8::1", 1, 4);
    CSockAddrIPv6 v6_copy(v6);
    EXPECT_EQ(v6_copy.GetScopeID(), 4u);
    v6_copy.SetAddr("2001:db8::2", 2, 5);
    EXPECT_EQ(ip_text(v6), "2001:db8::1");
    EXPECT_EQ(v6.GetScopeID(), 4u);
    v6 = v6_copy;
    v6_copy.SetScopeID(6);
    EXPECT_EQ(v6.GetScopeID(), 5u);

    CSockAddrStorage storage("fe80::1", 1);
    CSockAddrStorage storage_copy(storage);
    storage_copy.SetAddr("10.9.9.9", 2);
    EXPECT_EQ(ip_text(storage), "fe80::1");
    EXPECT_EQ(storage.GetInputType(), SOCKADDR_TYPE_IPV6);
    storage = storage_copy;
    storage_copy.SetAddr("10.8.8.8", 3);
    EXPECT_EQ(ip_text(storage), "10.9.9.9");
    EXPECT_EQ(storage.GetPort(), 2);
}

TEST(SockAddr, EqualityNeedsValidSidesAndComparesWhatTheFamilyKeeps)
{
    LogCapture log;  // the refusals below are logged
    EXPECT_TRUE(CSockAddrIPv4("10.0.0.1", 80) == CSockAddrIPv4(0x0A000001u, 80));
    EXPECT_FALSE(CSockAddrIPv4("10.0.0.1", 80) == CSockAddrIPv4("10.0.0.1", 81));
    EXPECT_FALSE(CSockAddrIPv4("10.0.0.1", 80) == CSockAddrIPv4("10.0.0.2", 80));
    EXPECT_FALSE(CSockAddrIPv4("255.255.255.255", 0) == CSockAddrIPv4("255.255.255.255", 0));

    EXPECT_TRUE(CSockAddrIPv6("2001:db8::1", 80, 1) == CSockAddrIPv6("2001:db8:0::1", 80, 2));
    EXPECT_FALSE(CSockAddrIPv6("2001:db8::1", 80) == CSockAddrIPv6("2001:db8::1", 81));
    EXPECT_FALSE(CSockAddrIPv6("2001:db8::1", 80) == CSockAddrIPv6("2001:db8::2", 80));
    EXPECT_FALSE(CSockAddrIPv6("::1", 0) == CSockAddrIPv6("::1", 0));

    // Storage compares texts: the same address spelt twice is two addresses.
    EXPECT_TRUE(CSockAddrStorage("::ffff:10.1.2.3", 80) == CSockAddrStorage("::ffff:10.1.2.3", 80));
    EXPECT_FALSE(CSockAddrStorage("::ffff:10.1.2.3", 80) == CSockAddrStorage("::FFFF:10.1.2.3", 80));
    EXPECT_FALSE(CSockAddrStorage("10.1.2.3", 80) == CSockAddrStorage("10.1.2.3", 81));
    EXPECT_FALSE(CSockAddrStorage() == CSockAddrStorage());
    // A shorter text set over a longer one must not keep the longer one's tail.
    CSockAddrStorage reused("2001:db8::123", 80);
    reused.SetIp("2001:db8::1");
    EXPECT_TRUE(reused == CSockAddrStorage("2001:db8::1", 80));
}

TEST(SockAddrStorage, RealSockAddrNeedsTheRealFamily)
{
    LogCapture log;
    const CSockAddrStorage v4("10.1.2.3", 80);
    CSockAddrIPv6 wrong;
    EXPECT_FALSE(v4.GetRealSockAddr(&wrong));
    EXPECT_FALSE(v4.GetRealSockAddr(nullptr));
    CSockAddrStorage other;
    EXPECT_FALSE(v4.GetRealSockAddr(&other));

    const CSockAddrStorage v6("2001:db8::9", 443);
    CSockAddrIPv6 right;
    ASSERT_TRUE(v6.GetRealSockAddr(&right));
    EXPECT_TRUE(right == CSockAddrIPv6("2001:db8::9", 443));
    CSockAddrIPv4 wrong4;
    EXPECT_FALSE(v6.GetRealSockAddr(&wrong4));

    EXPECT_FALSE(CSockAddrStorage().GetRealSockAddr(&right));
    EXPECT_TRUE(log.Contains("GetRealSockAddr failed, m_real_type is error :0!"));
}

TEST(SockAddrIPv6, LinkLocalAddressTakesItsInterfaceAsScope)
{
    Platform::SInterfaceAddr list[128];
    const int count = Platform::if_addresses(list, 128);
    ASSERT_GE(count, 0);
    int index = -1;
    char text[64] = {};
    for (int i = 0; i < count && index < 0; ++i) {
        const unsigned char* b = list[i].address;
        if (list[i].family == AF_INET6 && b[0] == 0xFE && (b[1] & 0xC0) == 0x80) {
            index = static_cast<int>(list[i].index);
            Platform::addr_to_text(AF_INET6, b, text, sizeof text);
        }
    }
    if (index < 0) GTEST_SKIP() << "no interface of this machine has an IPv6 link-local address";

    CSockAddrIPv6 addr;
    ASSERT_EQ(addr.SetIp(text), 0);
    EXPECT_EQ(addr.GetScopeID(), static_cast<unsigned int>(index)) << text;
    // A global address carries no scope.
    ASSERT_EQ(addr.SetIp("2001:db8::1"), 0);
    EXPECT_EQ(addr.GetScopeID(), 0u);
}

TEST(SockAddrIPv6, ScopeByInterfaceName)
{
    LogCapture log;
    CSockAddrIPv6 addr("fe80::1", 80, 7);
    EXPECT_EQ(addr.SetScopeName("corvane-none0"), -1);
    EXPECT_EQ(addr.GetScopeID(), 7u);
    EXPECT_EQ(addr.SetScopeName(nullptr), -1);
    if (log.Contains("SetScopeName is not support in windows \n")) {
        GTEST_SKIP() << "this system names no interfaces by name";
    }
    EXPECT_TRUE(log.Contains("SetScopeName failed! No interface is named corvane-none0"));
    const int lo = Platform::if_index_of("lo");
    if (lo <= 0) GTEST_SKIP() << "no interface named lo";
    EXPECT_EQ(addr.SetScopeName("lo"), 0);
    EXPECT_EQ(addr.GetScopeID(), static_cast<unsigned int>(lo));
}

TEST(SockAddr, DomainNamesChooseByPriorityWhenTheCheckCannot)
{
    FakeResolver fake;
    fake.Add("dual.test", {"2001:db8::1", "10.0.0.1", "10.0.0.2"});
    fake.Add("v6only.test", {"2001:db8::5", "2001:db8::6"});
    fake.Add("v4only.test", {"10.0.0.7", "10.0.0.8"});
    fake.Add("one.test", {"2001:db8::9"});
    LogCapture log;

    const struct {
        const char* name;
        int priority;
        const char* chosen;
        const char* line;
    } cases[] = {
        {"dual.test", CVN_DEFAULT_PRIORITY, "2001:db8::1", "FilterIP failed! Will set an IP by default"},
        {"dual.test", CVN_IPV4_PRIORITY, "10.0.0.1", "FilterIP failed! Will set an IP by CVN_IPV4_PRIORITY"},
        {"dual.test", CVN_IPV6_PRIORITY, "2001:db8::1", "FilterIP failed! Will set an IP by CVN_IPV6_PRIORITY"},
        {"v6only.test", CVN_IPV4_PRIORITY, "2001:db8::5", "Failed to set IPv4 address, IPv6 address will be set"},
        {"v4only.test", CVN_IPV6_PRIORITY, "10.0.0.7", "Failed to set IPv6 address, IPv4 address will be set"},
    };
    for (const auto& c : cases) {
        log.Clear();
        CSockAddrStorage addr;
        ASSERT_EQ(addr.SetDomainName(c.name, 8000, 0, 2000, c.priority), 0) << c.name << " " << c.priority;
        EXPECT_EQ(ip_text(addr), c.chosen);
        EXPECT_EQ(addr.GetPort(), 8000);
        EXPECT_TRUE(log.Contains(std::string("CSockAddrStorage::SetDomainName : ") + c.line)) << c.line;
    }

    // One address, or a datagram socket: the check takes the first without a rule.
    log.Clear();
    CSockAddrStorage addr;
    ASSERT_EQ(addr.SetDomainName("one.test", 1, 0, 2000, CVN_IPV4_PRIORITY), 0);
    EXPECT_EQ(ip_text(addr), "2001:db8::9");
    ASSERT_EQ(addr.SetDomainName("v4only.test", 1, 1, 2000, CVN_IPV6_PRIORITY), 0);
    EXPECT_EQ(ip_text(addr), "10.0.0.7");
    EXPECT_FALSE(log.Contains("FilterIP failed!"));

    // Each family's own class takes its own family only.
    CSockAddrIPv4 v4;
    ASSERT_EQ(v4.SetDomainName("dual.test", 2, 0, 2000), 0);
    EXPECT_EQ(v4.GetIp(), 0x0A000001u);
    EXPECT_EQ(v4.GetPort(), 2);
    EXPECT_EQ(v4.SetDomainName("v6only.test", 2, 0, 2000), -1);
    CSockAddrIPv6 v6;
    ASSERT_EQ(v6.SetDomainName("dual.test", 3, 1, 2000), 0);
    EXPECT_EQ(ip_text(v6), "2001:db8::1");
    EXPECT_EQ(v6.GetPort(), 3);

    // A literal is taken as it stands, without a lookup.
    const int lookups = fake.Started();
    ASSERT_EQ(addr.SetDomainName("192.0.2.4", 4, 0, 2000), 0);
    EXPECT_EQ(ip_text(addr), "192.0.2.4");
    EXPECT_EQ(fake.Started(), lookups);
}

TEST(SockAddr, DomainNameRefusals)
{
    FakeResolver fake;
    fake.Add("dual.test", {"2001:db8::1", "10.0.0.1"});
    LogCapture log;
    CSockAddrStorage addr("10.0.0.99", 5);

    EXPECT_EQ(addr.SetDomainName("dual.test", 1, 0, 2000, 3), -1);
    EXPECT_TRUE(log.Contains("CSockAddrStorage::SetDomainName : SetDomainName failed! Invalid setPriority :3"));
    EXPECT_EQ(addr.SetDomainName("dual.test", 1, 3, 2000), -1);
    EXPECT_TRUE(log.Contains("CSockAddrStorage::SetDomainName : SetDomainName failed! Invalid socktype :3"));
    EXPECT_EQ(addr.SetDomainName(nullptr, 1, 0, 2000), -1);
    EXPECT_TRUE(log.Contains("SetDomainName failed! Invalid parameter, ipstr :(null)"));
    EXPECT_EQ(addr.SetDomainName("unknown.test", 1, 0, 2000), -1);
    EXPECT_EQ(ip_text(addr), "10.0.0.99");  // a failure leaves the address

    EXPECT_EQ(CSockAddrIPv4().SetDomainName(nullptr, 1, 0, 2000), -1);
    EXPECT_TRUE(log.Contains("CSockAddrIPv4::SetDomainName : SetDomainName failed! Invalid ipstr :"));
    EXPECT_EQ(CSockAddrIPv6().SetDomainName("dual.test", 1, -2, 2000), -1);
    EXPECT_TRUE(log.Contains("CSockAddrIPv6::SetDomainName : SetDomainName failed! Invalid socktype :-2"));
    EXPECT_EQ(CSockAddrIPv6().SetIp(nullptr), -1);
    EXPECT_TRUE(log.Contains("SetIp failed! Invalid parameter, ipstr :(null)"));

    // -1 asks the system for every socktype.
    ASSERT_EQ(addr.SetDomainName("dual.test", 1, -1, 2000), 0);
    EXPECT_EQ(fake.LastSocktype(), 0);
}

TEST(SockAddr, NamesInSetIpResolveToTheClassFamily)
{
    LogCapture log;  // the refusals below are logged
    FakeResolver fake;
    fake.Add("v4only.test", {"10.0.0.7"});
    fake.Add("v6only.test", {"2001:db8::5"});

    CSockAddrIPv4 v4;
    EXPECT_EQ(v4.SetIp("v4only.test"), 0);
    EXPECT_EQ(v4.GetIp(), 0x0A000007u);
    EXPECT_EQ(v4.SetIp("v6only.test"), -1);

    // IPv6 takes an IPv4-only name IPv4-mapped, and keeps its port.
    CSockAddrIPv6 v6("::1", 99);
    ASSERT_EQ(v6.SetIp("v4only.test"), 0);
    EXPECT_EQ(ip_text(v6), "::ffff:10.0.0.7");
    EXPECT_EQ(v6.GetPort(), 99);

    const struct {
        const char* name;
        unsigned int real;
        unsigned int input;
    } cases[] = {{"v4only.test", SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV4},
                 {"v6only.test", SOCKADDR_TYPE_IPV6, SOCKADDR_TYPE_IPV6}};
    for (const auto& c : cases) {
        CSockAddrStorage storage;
        ASSERT_EQ(storage.SetAddr(c.name, 7), 0) << c.name;
        EXPECT_EQ(storage.GetRealType(), c.real) << c.name;
        EXPECT_EQ(storage.GetInputType(), c.input) << c.name;
        EXPECT_EQ(ip_text(storage), c.name);
    }
    EXPECT_EQ(CSockAddrStorage().SetIp("unknown.test"), -1);
}

}  // namespace Qelvar::Corvane
