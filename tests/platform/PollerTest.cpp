#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "Platform/Poller.h"
#include "Platform/Socket.h"
#include "StreamPair.h"

namespace Qelvar::Platform {

using Test::elapsed_us;
using Test::start_call;
using Test::StreamPair;
using Clock = std::chrono::steady_clock;

namespace {

constexpr long long kLong = 2000000;  // µs: long enough for anything that is really ready

long long elapsed_ms(Clock::time_point since) { return elapsed_us(since) / 1000; }

/// Waits until `poller` reports something; on Windows every interest change wakes the
/// poller, and that wake-up may end a wait on its own.
int wait_reported(CPoller& poller, SPollReady* ready, int capacity)
{
    int n = 0;
    for (int i = 0; i < 3 && n == 0; ++i) n = poller.Wait(kLong, ready, capacity);
    return n;
}

class PollerTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_a.Ok() && m_b.Ok());
        ASSERT_EQ(m_poller.Open(), 0);
    }

    /// Expects `fd` alone to be reported and returns its events.
    unsigned int WaitOne(int fd)
    {
        SPollReady ready[4]{};
        EXPECT_EQ(wait_reported(m_poller, ready, 4), 1);
        EXPECT_EQ(ready[0].fd, fd);
        return ready[0].events;
    }

    int WaitCount(long long timeout_us)
    {
        SPollReady ready[4];
        return m_poller.Wait(timeout_us, ready, 4);
    }

    /// Expects a wait that reports nothing and returns how long it took.
    long long QuietWaitMs(long long timeout_us)
    {
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(WaitCount(timeout_us), 0);
        return elapsed_ms(start);
    }

    void Poke(int fd) { ASSERT_EQ(sock_send(fd, "x", 1), 1); }

    StreamPair m_a;
    StreamPair m_b;
    CPoller m_poller;  // declared last: closed before the pairs stop the socket library
};

}  // namespace

TEST_F(PollerTest, ModifyReplacesInterestReportDisarmsAndRemoveStops)
{
    ASSERT_EQ(m_poller.Add(m_a[0], POLLER_IN), 0);
    EXPECT_EQ(m_poller.Add(m_a[0], POLLER_IN), -1);
    Poke(m_a[1]);
    // Readable, but only writability is asked for now.
    ASSERT_EQ(m_poller.Modify(m_a[0], POLLER_OUT), 0);
    EXPECT_EQ(WaitOne(m_a[0]), POLLER_OUT);
    // Still readable and writable, but disarmed: another thread must not get it too.
    QuietWaitMs(30000);
    ASSERT_EQ(m_poller.Modify(m_a[0], POLLER_IN), 0);
    EXPECT_EQ(WaitOne(m_a[0]), POLLER_IN);
    ASSERT_EQ(m_poller.Modify(m_a[0], POLLER_IN | POLLER_OUT), 0);
    EXPECT_EQ(WaitOne(m_a[0]), POLLER_IN | POLLER_OUT);

    ASSERT_EQ(m_poller.Modify(m_a[0], POLLER_IN), 0);
    ASSERT_EQ(m_poller.Remove(m_a[0]), 0);
    WaitCount(30000);  // may be ended by the wake-up of the changes (Windows)
    // Gone from the system's view too, not just filtered: the wait runs its full time.
    EXPECT_GE(QuietWaitMs(30000), 29);
    EXPECT_EQ(m_poller.Modify(m_a[0], POLLER_IN), -1);
    EXPECT_EQ(m_poller.Remove(m_a[0]), -1);
    EXPECT_EQ(m_poller.Modify(m_b[0], POLLER_IN), -1);
}

// Opened to keep descriptors armed, a ready one is reported on every wait (where the
// system can keep it armed); Modify with no interest is how its owner takes it out.
TEST_F(PollerTest, KeptArmedReportsUntilTheInterestChanges)
{
    CPoller level;
    ASSERT_EQ(level.Open(true), 0);
    ASSERT_EQ(level.Add(m_a[0], POLLER_IN), 0);
    Poke(m_a[1]);
    SPollReady ready[4]{};
    ASSERT_EQ(wait_reported(level, ready, 4), 1);
    if (level.DisarmsOnReport()) {
        EXPECT_EQ(level.Wait(30000, ready, 4), 0);  // select: out of the sets once reported
    } else {
        EXPECT_EQ(level.Wait(30000, ready, 4), 1);  // still ready, still armed
        ASSERT_EQ(level.Modify(m_a[0], 0), 0);
        EXPECT_EQ(level.Wait(30000, ready, 4), 0);
    }
    EXPECT_TRUE(m_poller.DisarmsOnReport());  // the default is one-shot everywhere
    level.Close();
}

TEST_F(PollerTest, ReadyBeyondCapacityStaysArmedForTheNextWait)
{
    ASSERT_EQ(m_poller.Add(m_a[0], POLLER_IN), 0);
    ASSERT_EQ(m_poller.Add(m_b[0], POLLER_IN), 0);
    Poke(m_a[1]);
    Poke(m_b[1]);
    int seen[2] = {-1, -1};
    int found = 0;
    for (int i = 0; i < 4 && found < 2; ++i) {
        SPollReady r{};
        if (m_poller.Wait(kLong, &r, 1) == 1) seen[found++] = r.fd;
    }
    ASSERT_EQ(found, 2);
    EXPECT_NE(seen[0], seen[1]);
    QuietWaitMs(30000);
}

TEST_F(PollerTest, PeerCloseIsReportedAndAClosedPollerReopens)
{
    ASSERT_EQ(m_poller.Add(m_a[0], POLLER_IN), 0);
    m_a.Close(1);
    EXPECT_NE(WaitOne(m_a[0]) & (POLLER_IN | POLLER_HUP), 0u);
    char c;
    EXPECT_EQ(sock_recv(m_a[0], &c, 1), 0);

    EXPECT_EQ(m_poller.Open(), -1);
    m_poller.Close();
    m_poller.Close();
    EXPECT_EQ(m_poller.Add(m_a[0], POLLER_IN), -1);
    ASSERT_EQ(m_poller.Open(), 0);
    EXPECT_EQ(m_poller.Add(m_a[0], POLLER_IN), 0);
}

TEST_F(PollerTest, WakeEndsAnUnlimitedWaitFromAnotherThread)
{
    // m_a[0] is the way out should Wake() not work: data on it ends the wait too.
    ASSERT_EQ(m_poller.Add(m_a[0], POLLER_IN), 0);
    WaitCount(100000);  // consumes the wake-up that Add() makes on Windows

    std::future<int> waited = start_call([this] { return WaitCount(-1); });
    const Clock::time_point woken = Clock::now();
    m_poller.Wake();
    const bool ended = waited.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
    if (!ended) Poke(m_a[1]);
    EXPECT_TRUE(ended);
    EXPECT_EQ(waited.get(), 0);
    EXPECT_LT(elapsed_ms(woken), 1000);
}

TEST_F(PollerTest, InterestAddedDuringAWaitTakesEffect)
{
    std::future<int> reported = start_call([this] {
        SPollReady r{};
        return wait_reported(m_poller, &r, 1) == 1 ? r.fd : -1;
    });
    const Clock::time_point added = Clock::now();
    ASSERT_EQ(m_poller.Add(m_a[0], POLLER_OUT), 0);
    EXPECT_EQ(reported.get(), m_a[0]);
    EXPECT_LT(elapsed_ms(added), 1000);
}

TEST_F(PollerTest, TimeoutsHoldAndABurstOfWakesCostsOneWakeUp)
{
    const long long waited = QuietWaitMs(50000);
    EXPECT_GE(waited, 49);
    EXPECT_LT(waited, 1000);
    EXPECT_LT(QuietWaitMs(0), 500);
    // Below the system's unit: rounded up, not turned into a look.
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(WaitCount(300), 0);
    EXPECT_GE(elapsed_us(start), 300);

    std::vector<std::thread> wakers;
    for (int t = 0; t < 4; ++t) {
        wakers.emplace_back([this] {
            for (int i = 0; i < 50; ++i) m_poller.Wake();
        });
    }
    for (std::thread& t : wakers) t.join();
    EXPECT_LT(QuietWaitMs(kLong), 1000);
    EXPECT_GE(QuietWaitMs(50000), 49);  // nothing left over
    m_poller.Wake();                    // and the count went back: it works again
    EXPECT_LT(QuietWaitMs(kLong), 1000);
}

}  // namespace Qelvar::Platform
