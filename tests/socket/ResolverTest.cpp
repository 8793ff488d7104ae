#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "FakeResolver.h"
#include "Socket/GetHostByName.h"
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

// The calls of asynchronous callbacks, by request tag: "ok:<address or count>" or "failed".
class Calls {
public:
    AddrCallback For(int tag)
    {
        return [this, tag](const ADDR_RECORD& r, bool ok) { add(tag, ok ? std::string("ok:") + r.addr : "failed"); };
    }
    AddrAllCallback AllFor(int tag)
    {
        return [this, tag](const ADDR_RECORD_ALL& r, bool ok) { add(tag, ok ? "ok:" + std::to_string(r.count) : "failed"); };
    }
    bool WaitTotal(std::size_t total)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, 5s, [&] { return m_total >= total; });
    }
    std::vector<std::string> Of(int tag)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls[tag];
    }

private:
    void add(int tag, std::string what)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calls[tag].push_back(std::move(what));
        ++m_total;
        m_cv.notify_all();
    }
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::map<int, std::vector<std::string>> m_calls;
    std::size_t m_total = 0;
};

}  // namespace

TEST(GetHostByName, LocalhostFromTheSystem)
{
    const ADDR_INFO request = request_for("localhost", AF_INET);
    sockaddr_in addr{};
    ASSERT_TRUE(CGetHostByName::Instance().getAddr(&request, reinterpret_cast<sockaddr*>(&addr), sizeof addr, 5000));
    EXPECT_EQ(addr.sin_family, AF_INET);
    EXPECT_EQ(addr.sin_addr.s_addr, htonl(0x7F000001u));
}

// A lookup that timed out keeps its slot until its answer comes, and that answer is
// dropped; a request beyond the ten slots fails at once; afterwards every slot answers
// its own request.
TEST(GetHostByName, SlotsStayHeldPastATimeOutAndAnEleventhLookupFailsAtOnce)
{
    FakeResolver fake({{"slow.test", {"10.0.0.1"}}, {"fast.test", {"10.0.0.2"}}});
    fake.Locked([](auto& s) { s.held.insert("slow.test"); });
    LogCapture log;
    CGetHostByName& resolver = CGetHostByName::Instance();
    const ADDR_INFO slow = request_for("slow.test");
    ADDR_RECORD record{};
    auto start = Clock::now();
    EXPECT_FALSE(resolver.getAddrInfo(&slow, &record, 100));
    EXPECT_GE(Clock::now() - start, 100ms);
    EXPECT_LT(Clock::now() - start, 2s);
    EXPECT_TRUE(log.Contains("GetHostByName failed, request timeout!\n"));
    EXPECT_EQ(resolver.FreeSlotCount(), ADDR_RECORD_MAX - 1);  // its lookup still runs

    Calls calls;
    for (int i = 1; i < ADDR_RECORD_MAX; ++i) {
        ADDR_INFO request = request_for("slow.test");
        request.callback = calls.For(i);
        ASSERT_TRUE(resolver.getAddrInfoAsync(&request, 0)) << i;
    }
    ASSERT_TRUE(fake.WaitStarted(ADDR_RECORD_MAX, 5s));
    const ADDR_INFO other = request_for("other.test");
    ADDR_RECORD_ALL all;
    start = Clock::now();
    EXPECT_FALSE(resolver.getAddrInfoAll(&other, &all, 5000));
    EXPECT_LT(Clock::now() - start, 1s);
    EXPECT_TRUE(log.Contains("getHostByName failed, there is no more resouce to deal the request!\n"));

    fake.Locked([](auto& s) { s.held.clear(); });
    ASSERT_TRUE(calls.WaitTotal(ADDR_RECORD_MAX - 1));
    ASSERT_TRUE(FakeResolver::WaitIdle(5s));
    for (int i = 1; i < ADDR_RECORD_MAX; ++i) EXPECT_EQ(calls.Of(i), std::vector<std::string>{"ok:10.0.0.1"}) << i;
    const ADDR_INFO fast = request_for("fast.test");
    for (int i = 0; i <= ADDR_RECORD_MAX; ++i) {
        ASSERT_TRUE(resolver.getAddrInfo(&fast, &record, 2000)) << i;
        EXPECT_STREQ(record.addr, "10.0.0.2") << i;
    }
}

TEST(GetHostByName, FamilyAndSocktypeCodesBecomeSystemHints)
{
    FakeResolver fake({{"dual.test", {"2001:db8::1", "10.0.0.1"}}, {"v6only.test", {"2001:db8::5"}}});
    CGetHostByName& resolver = CGetHostByName::Instance();
    const struct {
        const char* name;
        int family, socktype;
        int family_hint, socktype_hint;
        const char* answer;  // null: the lookup fails
        const char* line;
    } cases[] = {
        {"dual.test", AF_UNSPEC, 7, AF_UNSPEC, SOCK_STREAM, "2001:db8::1",
         "The Socktype is not specified, the default setting is SOCK_STREAM!\n"},
        {"dual.test", AF_INET, ADDR_SOCK_STREAM, AF_INET, SOCK_STREAM, "10.0.0.1", "The Socktype is SOCK_STREAM!\n"},
        {"dual.test", AF_INET6, ADDR_SOCK_DGRAM, AF_INET6, SOCK_DGRAM, "2001:db8::1", "The Socktype is SOCK_DGRAM!\n"},
        {"dual.test", AF_UNSPEC, ADDR_SOCK_RAW, AF_UNSPEC, SOCK_RAW, "2001:db8::1", "The Socktype is SOCK_RAW!\n"},
        {"dual.test", AF_UNSPEC, ADDR_SOCK_TYPE_ALL, AF_UNSPEC, 0, "2001:db8::1", "The Socktype is SOCK_TYPE_ALL!\n"},
        {"dual.test", 99, 0, AF_UNSPEC, SOCK_STREAM, "2001:db8::1",
         "The family is not specified, the default setting is AF_UNSPEC!\n"},
        {"v6only.test", AF_INET, 0, AF_INET, SOCK_STREAM, nullptr, "getaddrinfo failed, errno:"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        const ADDR_INFO request = request_for(c.name, c.family, c.socktype);
        ADDR_RECORD record{};
        const auto start = Clock::now();
        EXPECT_EQ(resolver.getAddrInfo(&request, &record, 5000), c.answer != nullptr) << c.line;
        EXPECT_LT(Clock::now() - start, 2s) << c.line;  // a failure ends the wait at once
        EXPECT_STREQ(record.addr, c.answer ? c.answer : "") << c.line;
        EXPECT_EQ(fake.Locked([](auto& s) { return s.last_family; }), c.family_hint) << c.line;
        EXPECT_EQ(fake.Locked([](auto& s) { return s.last_socktype; }), c.socktype_hint) << c.line;
        EXPECT_TRUE(log.Contains(c.line)) << c.line;
    }
}

TEST(GetHostByName, AsyncCallbackComesOnceOnTheAnswerOrOnTheExpiry)
{
    FakeResolver fake({{"fast.test", {"10.0.0.2", "2001:db8::2"}}, {"slow.test", {"10.0.0.1"}}});
    fake.Locked([](auto& s) { s.held.insert("slow.test"); });
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
    ASSERT_TRUE(calls.WaitTotal(3));
    EXPECT_GE(Clock::now() - start, 100ms);
    // The held lookup answers after its expiry: no second call.
    fake.Locked([](auto& s) { s.held.clear(); });
    ASSERT_TRUE(FakeResolver::WaitIdle(5s));
    EXPECT_EQ(calls.Of(1), std::vector<std::string>{"ok:10.0.0.2"});
    EXPECT_EQ(calls.Of(2), std::vector<std::string>{"ok:2"});
    EXPECT_EQ(calls.Of(3), std::vector<std::string>{"failed"});

    // Expiries of 1 to 5 ms against answers of about 3 ms: both come first at times.
    fake.Locked([](auto& s) { s.delay = 3ms; });
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < ADDR_RECORD_MAX; ++i) {
            fast.callback = calls.For(100 + round * ADDR_RECORD_MAX + i);
            ASSERT_TRUE(resolver.getAddrInfoAsync(&fast, 1 + i % 5));
        }
        ASSERT_TRUE(calls.WaitTotal(3 + (round + 1) * ADDR_RECORD_MAX));
        ASSERT_TRUE(FakeResolver::WaitIdle(5s));
    }
    for (int tag = 100; tag < 100 + 4 * ADDR_RECORD_MAX; ++tag) {
        const auto got = calls.Of(tag);
        ASSERT_EQ(got.size(), 1u) << tag;
        EXPECT_TRUE(got[0] == "failed" || got[0] == "ok:10.0.0.2") << got[0];
    }
    ADDR_INFO no_callback = request_for("fast.test");
    EXPECT_FALSE(resolver.getAddrInfoAsync(&no_callback, 100));
    EXPECT_TRUE(log.Contains("getAddrInfo failed, Invalid parameter, ADDR_INFO :"));
}

TEST(GetHostByName, ResultsMustFitTheirBuffers)
{
    std::vector<std::string> many;
    for (int i = 1; i <= 12; ++i) many.push_back("10.0.0." + std::to_string(i));
    FakeResolver fake({{"v4only.test", {"10.0.0.7"}}, {"v6only.test", {"2001:db8::5"}}, {"many.test", many}});
    LogCapture log;
    CGetHostByName& resolver = CGetHostByName::Instance();
    sockaddr_in6 buf{};
    sockaddr* out = reinterpret_cast<sockaddr*>(&buf);
    const ADDR_INFO v4 = request_for("v4only.test", AF_INET);
    EXPECT_FALSE(resolver.getAddr(&v4, out, sizeof(sockaddr_in) - 1, 2000));
    EXPECT_EQ(fake.Locked([](auto& s) { return s.started; }), 0);  // refused before any lookup
    const ADDR_INFO any = request_for("v6only.test");
    EXPECT_FALSE(resolver.getAddr(&any, out, sizeof(sockaddr_in), 2000));
    EXPECT_EQ(log.Count("GetHostByName failed, the buffer too short to save the address!\n"), 2);
    ASSERT_TRUE(resolver.getAddr(&any, out, sizeof buf, 2000));
    EXPECT_EQ(buf.sin6_family, AF_INET6);
    unsigned char expected[16];
    ASSERT_EQ(Platform::addr_from_text(AF_INET6, "2001:db8::5", expected), 1);
    EXPECT_EQ(std::memcmp(&buf.sin6_addr, expected, sizeof expected), 0);

    const ADDR_INFO all = request_for("many.test");
    ADDR_RECORD_ALL records{};
    ASSERT_TRUE(resolver.getAddrInfoAll(&all, &records, 2000));
    ASSERT_EQ(records.count, ADDR_RECORD_MAX);
    for (int i = 0; i < ADDR_RECORD_MAX; ++i) EXPECT_EQ(records.records[i].addr, many[i]);
    EXPECT_TRUE(log.Contains("The buffer too short to save the address information!\n"));
}

}  // namespace Qelvar::Corvane
