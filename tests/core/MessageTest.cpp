#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Fundel/ThreadName.h"
#include "Inbox.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using Qelvar::Corvane::CNetThread;
using namespace Qelvar::Test;

// Serial messages of a pool are handled one at a time, in the order they were posted,
// however many workers the pool has.
TEST(Message, SerialMessagesKeepTheirOrderAndNeverOverlap)
{
    PoolScope scope(8);
    constexpr int kMessages = 3000;
    Signal done;
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::vector<long> seen;
    Probe a(0), b(0);
    auto handler = [&](long, unsigned int, long attach) {
        if (inside.fetch_add(1) != 0) ++overlaps;
        seen.push_back(attach);
        inside.fetch_sub(1);
        done.Add();
        return 0;
    };
    a.on_message = handler;
    b.on_message = handler;
    Probe sender(0);
    for (int i = 0; i < kMessages; ++i) {
        // Alternating receivers share the pool's one serial queue.
        sender.NotifySerial(i % 2 ? a.GetID() : b.GetID(), 1, i, 0);
        if (i % 500 == 0) std::this_thread::sleep_for(1ms);  // let the queue run dry now and then
    }
    ASSERT_TRUE(done.WaitFor(kMessages));
    EXPECT_EQ(overlaps.load(), 0);
    ASSERT_EQ(seen.size(), static_cast<size_t>(kMessages));
    for (int i = 0; i < kMessages; ++i) ASSERT_EQ(seen[i], i);
    a.Close();
    b.Close();
    sender.Close();
}

TEST(Message, PingPongAcrossPools)
{
    PoolScope scope;
    const int priv = CNetThread::CreatePrivatePool(2, false);
    ASSERT_GE(priv, 1);
    constexpr long kRounds = 2000;
    Signal finished;
    Probe ping(0), pong(priv);
    ping.on_message = [&](long from, unsigned int, long n) {
        if (n >= kRounds) finished.Add();
        else ping.Notify(from, 1, n + 1);
        return 0;
    };
    pong.on_message = [&](long from, unsigned int, long n) {
        pong.Notify(from, 1, n + 1);
        return 0;
    };
    ping.Notify(pong.GetID(), 1, 0);
    ASSERT_TRUE(finished.WaitFor(1));
    ping.Close();
    pong.Close();
}

TEST(Message, NotifyIORunsOnAFileThread)
{
    Signal got;
    std::string name;
    {
        PoolScope scope(2, true);
        Probe p(0);
        p.on_message = [&](long, unsigned int, long) {
            name = Qelvar::Fundel::CThreadName::Current();
            got.Add();
            return 0;
        };
        p.NotifyIO(p.GetID(), 3, 0);
        ASSERT_TRUE(got.WaitFor(1));
        EXPECT_EQ(name, "Corvane::FileThread");
        p.Close();
    }
    // Without file threads the message is dropped, and the sender is told.
    PoolScope scope(2, false);
    LogCapture log(3);
    Inbox p;
    p.probe.NotifyIO(p.Id(), 3, 0);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(p.Count(3), 0);
    EXPECT_TRUE(log.Contains("no file thread is running, message dropped"));
}
