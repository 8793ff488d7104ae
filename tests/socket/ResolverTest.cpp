#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "FakeResolver.h"
#include "Platform/SockTypes.h"
#include "Socket/GetHostByName.h"
#include "Socket/NetCheckManager.h"
#include "TestSupport.h"

namespace Qelvar::Corvane {

using Test::FakeResolver;
using Test::LogCapture;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

ADDR_INFO request_for(const char* name, int family = AF_UNSPEC, int socktype = ADDR_SOCK_STREAM)
{
    ADDR_INFO request;
    request.name = name;
    request.family = family;
    request.socktype = socktype;
    return request;
}

// What asynchronous callbacks were called with, per request tag.
class Calls {
public:
    AddrCallback For(int tag)
    {
        return [this, tag](const ADDR_RECORD& r, bool ok) { add(tag, ok, r.addr); };
    }
    AddrAllCallback AllFor(int tag)
    {
        return [this, tag](const ADDR_RECORD_ALL& r, bool ok) { add(tag, ok, std::to_string(r.count)); };
    }
    bool WaitTotal(int total, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, timeout, [&] { return static_cast<int>(m_calls.size()) >= total; });
    }
    struct Call {
        int tag;
        bool ok;
        std::string text;
    };
    std::vector<Call> Of(int tag)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Call> out;
        for (const Call& c : m_calls) {
            if (c.tag == tag) out.push_back(c);
        }
        return out;
    }
    int Total()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<int>(m_calls.size());
    }

private:
    void add(int tag, bool ok, std::string text)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back({tag, ok, std::move(text)});
        m_cv.notify_all();
    }
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<Call> m_calls;
};

}  // namespace

TEST(GetHostByName, LocalhostFromTheSystem)
{
    CGetHostByName& resolver = CGetHostByName::Instance();
    const ADDR_INFO request = request_for("localhost", AF_INET);
    ADDR_RECORD record{};
    ASSERT_TRUE(resolver.getAddrInfo(&request, &record, 5000));
    EXPECT_STREQ(record.addr, "127.0.0.1");
    EXPECT_EQ(record.family, AF_INET);
    sockaddr_in addr{};
    ASSERT_TRUE(resolver.getAddr(&request, reinterpret_cast<sockaddr*>(&addr), sizeof addr, 5000));
    EXPECT_EQ(addr.sin_family, AF_INET);
    EXPECT_EQ(addr.sin_addr.s_addr, htonl(0x7F000001u));
}

TEST(GetHostByName, EleventhLookupFailsAtOnceWhileTenAreHeld)
{
    FakeResolver fake;
    fake.Add("slow.test", {"10.0.0.1"});
    fake.Hold("slow.test");
    LogCapture log;
    CGetHostByName& resolver = CGetHostByName::Instance();
    Calls calls;
    for (int i = 0; i < ADDR_RECORD_MAX; ++i) {
        ADDR_INFO request = request_for("slow.test");
        request.callback = calls.For(i);
        ASSERT_TRUE(resolver.getAddrInfoAsync(&request, 0)) << i;
    }
    ASSERT_TRUE(fake.WaitStarted(ADDR_RECORD_MAX, 5s));
    EXPECT_EQ(resolver.FreeSlotCount(), 0);

    const ADDR_INFO other = request_for("other.test");
    ADDR_RECORD record;
    const auto start = Clock::now();
    EXPECT_FALSE(resolver.getAddrInfo(&other, &record, 5000));
    EXPECT_LT(Clock::now() - start, 1s);
    ADDR_RECORD_ALL all;
    EXPECT_FALSE(resolver.getAddrInfoAll(&other, &all, 5000));
    EXPECT_EQ(log.Count("getHostByName failed, there is no more resouce to deal the request!\n"), 2);

    fake.Release();
    ASSERT_TRUE(calls.WaitTotal(ADDR_RECORD_MAX, 5s));
    ASSERT_TRUE(FakeResolver::WaitIdle(5s));
    for (int i = 0; i < ADDR_RECORD_MAX; ++i) {
        const auto got = calls.Of(i);
        ASSERT_EQ(got.size(), 1u) << i;
        EXPECT_TRUE(got[0].ok);
        EXPECT_EQ(got[0].text, "10.0.0.1");
    }
}

TEST(GetHostByName, LateAnswerIsDroppedAndItsSlotComesBackFree)
{
    FakeResolver fake;
    fake.Add("slow.test", {"10.0.0.1"});
    fake.Add("fast.test", {"10.0.0.2"});
    fake.Hold("slow.test");
    LogCapture log;
    CGetHostByName& resolver = CGetHostByName::Instance();

    const ADDR_INFO slow = request_for("slow.test");
    ADDR_RECORD record{};
    const auto start = Clock::now();
    EXPECT_FALSE(resolver.getAddrInfo(&slow, &record, 100));
    const auto waited = Clock::now() - start;
    EXPECT_GE(waited, 100ms);
    EXPECT_LT(waited, 2s);
    EXPECT_TRUE(log.Contains("GetHostByName failed, request timeout!\n"));
    // Its lookup still runs, so its slot is not handed out yet.
    EXPECT_EQ(resolver.FreeSlotCount(), ADDR_RECORD_MAX - 1);

    const ADDR_INFO fast = request_for("fast.test");
    ASSERT_TRUE(resolver.getAddrInfo(&fast, &record, 2000));
    EXPECT_STREQ(record.addr, "10.0.0.2");

    fake.Release();
    ASSERT_TRUE(FakeResolver::WaitIdle(5s));
    // Every slot, the late one's included, answers its own request.
    for (int i = 0; i < ADDR_RECORD_MAX + 1; ++i) {
        record = ADDR_RECORD{};
        ASSERT_TRUE(resolver.getAddrInfo(&fast, &record, 2000)) << i;
        EXPECT_STREQ(record.addr, "10.0.0.2") << i;
    }
}

TEST(GetHostByName, FamilyDecidesWhichAddressesCount)
{
    FakeResolver fake;
    fake.Add("v6only.test", {"2001:db8::5"});
    fake.Add("dual.test", {"2001:db8::1", "10.0.0.1"});
    LogCapture log;
    CGetHostByName& resolver = CGetHostByName::Instance();
    ADDR_RECORD record{};

    // A failed lookup ends the wait at once rather than at the time limit.
    const ADDR_INFO v4 = request_for("v6only.test", AF_INET);
    const auto start = Clock::now();
    EXPECT_FALSE(resolver.getAddrInfo(&v4, &record, 5000));
    EXPECT_LT(Clock::now() - start, 2s);
    EXPECT_TRUE(log.Contains("CGetHostByName::convert : getaddrinfo failed, errno:"));

    const ADDR_INFO v6 = request_for("v6only.test", AF_INET6);
    ASSERT_TRUE(resolver.getAddrInfo(&v6, &record, 2000));
    EXPECT_STREQ(record.addr, "2001:db8::5");
    EXPECT_EQ(record.family, AF_INET6);

    const ADDR_INFO any = request_for("dual.test");
    ASSERT_TRUE(resolver.getAddrInfo(&any, &record, 2000));
    EXPECT_STREQ(record.addr, "2001:db8::1");
    const ADDR_INFO dual4 = request_for("dual.test", AF_INET);
    ASSERT_TRUE(resolver.getAddrInfo(&dual4, &record, 2000));
    EXPECT_STREQ(record.addr, "10.0.0.1");
}

TEST(GetHostByName, SocktypeAndFamilyCodesBecomeSystemHints)
{
    FakeResolver fake;
    fake.Add("dual.test", {"2001:db8::1", "10.0.0.1"});
    CGetHostByName& resolver = CGetHostByName::Instance();
    const struct {
        int socktype;
        int family;
        int socktype_hint;
        int family_hint;
        const char* line;
    } cases[] = {
        {7, AF_UNSPEC, SOCK_STREAM, AF_UNSPEC, "The Socktype is not specified, the default setting is SOCK_STREAM!\n"},
        {ADDR_SOCK_STREAM, AF_INET, SOCK_STREAM, AF_INET, "The Socktype is SOCK_STREAM!\n"},
        {ADDR_SOCK_DGRAM, AF_INET6, SOCK_DGRAM, AF_INET6, "The Socktype is SOCK_DGRAM!\n"},
        {ADDR_SOCK_RAW, AF_UNSPEC, SOCK_RAW, AF_UNSPEC, "The Socktype is SOCK_RAW!\n"},
        {ADDR_SOCK_TYPE_ALL, AF_UNSPEC, 0, AF_UNSPEC, "The Socktype is SOCK_TYPE_ALL!\n"},
        {ADDR_SOCK_STREAM, 99, SOCK_STREAM, AF_UNSPEC, "The family is not specified, the default setting is AF_UNSPEC!\n"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        const ADDR_INFO request = request_for("dual.test", c.family, c.socktype);
        ADDR_RECORD record;
        ASSERT_TRUE(resolver.getAddrInfo(&request, &record, 2000)) << c.line;
        EXPECT_EQ(fake.LastSocktype(), c.socktype_hint) << c.line;
        EXPECT_EQ(fake.LastFamily(), c.family_hint) << c.line;
        EXPECT_TRUE(log.Contains(c.line)) << c.line;
    }
}

TEST(GetHostByName, AsyncCallbackComesOnceOnTheAnswerOrOnTheExpiry)
{
    FakeResolver fake;
    fake.Add("fast.test", {"10.0.0.2", "2001:db8::2"});
    fake.Add("slow.test", {"10.0.0.1"});
    fake.Hold("slow.test");
    LogCapture log;
    CGetHostByName& resolver = CGetHostByName::Instance();
    Calls calls;

    ADDR_INFO fast = request_for("fast.test");
    fast.callback = calls.For(1);
    fast.callback_all = calls.AllFor(2);
    ASSERT_TRUE(resolver.getAddrInfoAsync(&fast, 5000));
    ASSERT_TRUE(resolver.getAddrInfoAllAsync(&fast, 5000));

    ADDR_INFO slow = request_for("slow.test");
    slow.callback = calls.For(3);
    const auto start = Clock::now();
    ASSERT_TRUE(resolver.getAddrInfoAsync(&slow, 100));
    ASSERT_TRUE(calls.WaitTotal(3, 5s));
    EXPECT_GE(Clock::now() - start, 100ms);
    EXPECT_TRUE(log.Contains("GetHostByName failed, request timeout!\n"));

    // The held lookup answers after its expiry: no second call.
    fake.Release();
    ASSERT_TRUE(FakeResolver::WaitIdle(5s));
    EXPECT_EQ(calls.Total(), 3);
    ASSERT_EQ(calls.Of(1).size(), 1u);
    EXPECT_TRUE(calls.Of(1)[0].ok);
    EXPECT_EQ(calls.Of(1)[0].text, "10.0.0.2");
    ASSERT_EQ(calls.Of(2).size(), 1u);
    EXPECT_EQ(calls.Of(2)[0].text, "2");
    ASSERT_EQ(calls.Of(3).size(), 1u);
    EXPECT_FALSE(calls.Of(3)[0].ok);

    ADDR_INFO no_callback = request_for("fast.test");
    EXPECT_FALSE(resolver.getAddrInfoAsync(&no_callback, 100));
    EXPECT_TRUE(log.Contains("getAddrInfo failed, Invalid parameter, ADDR_INFO :"));
}

TEST(GetHostByName, AnswerRacingTheExpiryStillCallsOnce)
{
    FakeResolver fake;
    fake.Add("fast.test", {"10.0.0.2"});
    fake.Delay(3ms);
    LogCapture log;
    CGetHostByName& resolver = CGetHostByName::Instance();
    Calls calls;
    // Expiries of 1 to 5 ms against answers of about 3 ms: both orders happen.
    constexpr int rounds = 4;
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < ADDR_RECORD_MAX; ++i) {
            ADDR_INFO request = request_for("fast.test");
            request.callback = calls.For(round * ADDR_RECORD_MAX + i);
            ASSERT_TRUE(resolver.getAddrInfoAsync(&request, 1 + i % 5)) << round << " " << i;
        }
        ASSERT_TRUE(calls.WaitTotal((round + 1) * ADDR_RECORD_MAX, 5s));
        ASSERT_TRUE(FakeResolver::WaitIdle(5s));
    }
    EXPECT_EQ(calls.Total(), rounds * ADDR_RECORD_MAX);
    for (int tag = 0; tag < rounds * ADDR_RECORD_MAX; ++tag) {
        const auto got = calls.Of(tag);
        ASSERT_EQ(got.size(), 1u) << tag;
        if (got[0].ok) {
            EXPECT_EQ(got[0].text, "10.0.0.2");
        }
    }
}

TEST(GetHostByName, AddressBuffersMustHoldTheFamily)
{
    FakeResolver fake;
    fake.Add("v4only.test", {"10.0.0.7"});
    fake.Add("v6only.test", {"2001:db8::5"});
    LogCapture log;
    CGetHostByName& resolver = CGetHostByName::Instance();
    sockaddr_in6 buf{};
    sockaddr* out = reinterpret_cast<sockaddr*>(&buf);
    const char* line = "GetHostByName failed, the buffer too short to save the address!\n";

    const ADDR_INFO v4 = request_for("v4only.test", AF_INET);
    EXPECT_FALSE(resolver.getAddr(&v4, out, sizeof(sockaddr_in) - 1, 2000));
    EXPECT_EQ(fake.Started(), 0);  // refused before any lookup
    const ADDR_INFO v6 = request_for("v6only.test", AF_INET6);
    EXPECT_FALSE(resolver.getAddr(&v6, out, sizeof(sockaddr_in), 2000));
    const ADDR_INFO any = request_for("v6only.test");
    EXPECT_FALSE(resolver.getAddr(&any, out, sizeof(sockaddr_in), 2000));
    EXPECT_EQ(log.Count(line), 3);

    ASSERT_TRUE(resolver.getAddr(&any, out, sizeof buf, 2000));
    EXPECT_EQ(buf.sin6_family, AF_INET6);
    EXPECT_EQ(buf.sin6_port, 0);
    unsigned char expected[16];
    ASSERT_EQ(Platform::addr_from_text(AF_INET6, "2001:db8::5", expected), 1);
    EXPECT_EQ(std::memcmp(&buf.sin6_addr, expected, 16), 0);

    EXPECT_FALSE(resolver.getAddr(nullptr, out, sizeof buf, 2000));
    EXPECT_TRUE(log.Contains("getAddrInfo failed, Invalid parameter, ADDR_INFO :"));
}

TEST(GetHostByName, AllAddressesKeepTheSystemOrderUpToTen)
{
    FakeResolver fake;
    std::vector<std::string> many;
    for (int i = 1; i <= 12; ++i) many.push_back("10.0.0." + std::to_string(i));
    fake.Add("many.test", many);
    LogCapture log;
    const ADDR_INFO request = request_for("many.test");
    ADDR_RECORD_ALL all{};
    ASSERT_TRUE(CGetHostByName::Instance().getAddrInfoAll(&request, &all, 2000));
    ASSERT_EQ(all.count, ADDR_RECORD_MAX);
    for (int i = 0; i < ADDR_RECORD_MAX; ++i) EXPECT_EQ(all.records[i].addr, many[i]);
    EXPECT_TRUE(log.Contains("The buffer too short to save the address information!\n"));
}

TEST(NetCheckManager, FilterIPChoosesWithoutProbingOnlyWhenThereIsNoChoice)
{
    LogCapture log;
    CNetCheckManager& check = CNetCheckManager::Instance();
    ADDR_RECORD_ALL list{};
    ADDR_RECORD out{};
    EXPECT_FALSE(check.FilterIP(list, out, 80, ADDR_SOCK_STREAM, 100));
    EXPECT_TRUE(log.Contains("CNetCheckManager::FilterIP : FilterIP failed! Invalid parameter, numRecords:0\n"));

    list.count = 2;
    std::strcpy(list.records[0].addr, "10.0.0.1");
    list.records[0].family = AF_INET;
    std::strcpy(list.records[1].addr, "2001:db8::1");
    list.records[1].family = AF_INET6;
    ASSERT_TRUE(check.FilterIP(list, out, 80, ADDR_SOCK_DGRAM, 100));
    EXPECT_STREQ(out.addr, "10.0.0.1");
    list.count = 1;
    ASSERT_TRUE(check.FilterIP(list, out, 80, ADDR_SOCK_STREAM, 100));
    EXPECT_EQ(out.family, AF_INET);
}

}  // namespace Qelvar::Corvane
