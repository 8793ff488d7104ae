// Address texts, name resolution and the interfaces' addresses.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Loopback.h"
#include "Platform/Socket.h"

namespace Qelvar::Platform {

using namespace Test;

namespace {

class AddressTest : public SocketTestBase {};

bool is_loopback(int family, const unsigned char* address)
{
    static const unsigned char v6_loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return family == AF_INET ? address[0] == 127 : std::memcmp(address, v6_loopback, 16) == 0;
}

}  // namespace

TEST_F(AddressTest, TextRoundTripsToTheCanonicalFormAndRefusesWhatIsNoAddress)
{
    struct Case {
        int family;
        const char* text;
        const char* canonical;
    };
    const Case cases[] = {
        {AF_INET, "192.0.2.33", "192.0.2.33"},
        {AF_INET, "255.255.255.255", "255.255.255.255"},
        {AF_INET6, "::1", "::1"},
        {AF_INET6, "::", "::"},
        {AF_INET6, "2001:DB8:0:0:8:800:200C:417A", "2001:db8::8:800:200c:417a"},
        {AF_INET6, "::ffff:192.0.2.1", "::ffff:192.0.2.1"},
    };
    unsigned char bytes[16];
    char text[64];
    for (const Case& c : cases) {
        ASSERT_EQ(addr_from_text(c.family, c.text, bytes), 1) << c.text;
        ASSERT_NE(addr_to_text(c.family, bytes, text, sizeof text), nullptr) << c.text;
        EXPECT_STREQ(text, c.canonical);
    }
    ASSERT_EQ(addr_from_text(AF_INET, "192.0.2.33", bytes), 1);
    const unsigned char expected[4] = {192, 0, 2, 33};
    EXPECT_EQ(std::memcmp(bytes, expected, 4), 0);

    for (const char* bad : {"256.0.0.1", "1.2.3.4.5", "1.2.3.", "::1", "", "localhost"}) {
        EXPECT_EQ(addr_from_text(AF_INET, bad, bytes), 0) << bad;
    }
    for (const char* bad : {"1:2:3:4:5:6:7:8:9", "1::2::3", "12345::", "127.0.0.1", ""}) {
        EXPECT_EQ(addr_from_text(AF_INET6, bad, bytes), 0) << bad;
    }
    EXPECT_EQ(addr_from_text(AF_UNSPEC, "192.0.2.33", bytes), -1);
    ASSERT_EQ(addr_from_text(AF_INET6, "2001:db8::1", bytes), 1);
    char tiny[8];
    EXPECT_EQ(addr_to_text(AF_INET6, bytes, tiny, sizeof tiny), nullptr);
}

TEST_F(AddressTest, LocalhostResolvesToLoopbackEachAddressOnceAndAnUnknownNameFailsWithAText)
{
    SResolvedAddr out[16];
    int count = -1;
    int found = -1;
    ASSERT_EQ(addr_resolve("localhost", AF_UNSPEC, 0, out, 16, &count, &found), 0);
    ASSERT_GE(count, 1);
    EXPECT_EQ(found, count);
    for (int i = 0; i < count; ++i) {
        EXPECT_TRUE(is_loopback(out[i].family, out[i].address)) << i;
        for (int j = 0; j < i; ++j) {
            EXPECT_FALSE(out[i].family == out[j].family && std::memcmp(out[i].address, out[j].address, 16) == 0)
                << "listed twice: " << i << " and " << j;
        }
    }

    ASSERT_EQ(addr_resolve("localhost", AF_INET, SOCK_STREAM, out, 1, &count, &found), 0);
    EXPECT_EQ(count, 1);
    EXPECT_GE(found, 1);
    EXPECT_EQ(out[0].family, AF_INET);
    EXPECT_EQ(out[0].address[0], 127);

    // Empty labels are refused before any query leaves the machine.
    const int code = addr_resolve("no..such..host", AF_UNSPEC, 0, out, 16, &count, &found);
    EXPECT_NE(code, 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(found, 0);
    const char* reason = addr_resolve_error(code);
    ASSERT_NE(reason, nullptr);
    EXPECT_GT(std::strlen(reason), 0u);
}

TEST_F(AddressTest, InterfacesListAnUpLoopbackAddressWithItsIndex)
{
    SInterfaceAddr list[64];
    const int n = if_addresses(list, 64);
    ASSERT_GE(n, 1);
    unsigned int loopback_index = 0;
    for (int i = 0; i < n; ++i) {
        EXPECT_GT(list[i].index, 0u) << i;  // of IPv6 addresses too: their scope ids
        if (list[i].loopback && list[i].up && is_loopback(list[i].family, list[i].address)) {
            loopback_index = list[i].index;
        }
    }
    EXPECT_GT(loopback_index, 0u);
    EXPECT_EQ(if_addresses(list, 1), 1);
#ifdef _WIN32
    EXPECT_EQ(if_index_of("lo"), SOCK_UNSUPPORTED);
#else
    EXPECT_EQ(if_index_of("lo"), static_cast<int>(loopback_index));
    EXPECT_EQ(if_index_of("no-such-if0"), 0);
#endif
}

}  // namespace Qelvar::Platform
