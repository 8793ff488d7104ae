#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "Core/ThreadPool.h"
#include "Fundel/ThreadName.h"
#include "Inbox.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using Qelvar::Corvane::CNetThread;
using namespace Qelvar::Test;

TEST(NetHandler, IdsAreNegativeCarryThePoolAndMessagesArriveOnTheOwnersPool)
{
    PoolScope scope;
    ASSERT_TRUE(scope.ok());
    const int priv = CNetThread::CreatePrivatePool(2, false);
    ASSERT_GE(priv, 1);

    Signal got, closed;
    Probe a(0, &closed), b(priv, &closed);
    EXPECT_LT(b.GetID(), 0);
    EXPECT_EQ((b.GetID() >> 4) & 63, priv);  // from its own pool's ids

    std::string thread_name;
    long from = 0, attach = 0;
    unsigned int type = 0;
    b.on_message = [&](long f, unsigned int t, long at) {
        thread_name = Qelvar::Fundel::CThreadName::Current();
        from = f;
        type = t;
        attach = at;
        got.Add();
        return 0;
    };
    a.Notify(b.GetID(), 7, 4242);
    ASSERT_TRUE(got.WaitFor(1));
    EXPECT_EQ(from, a.GetID());
    EXPECT_EQ(type, 7u);
    EXPECT_EQ(attach, 4242);
    EXPECT_EQ(thread_name, "Corvane" + std::to_string(priv));

    // The default receiver serves the forms that name none.
    a.SetDefaultRcer(b.GetID());
    a.Notify(8, 1);
    ASSERT_TRUE(got.WaitFor(2));
    EXPECT_EQ(type, 8u);

    a.Close();
    b.Close();
    ASSERT_TRUE(closed.WaitFor(2));
    EXPECT_EQ(CNetThread::DestroyPrivatePool(priv), 0);
}

TEST(NetHandler, CloseIsOnceAndGuardedCallsFailAfterIt)
{
    PoolScope scope;
    LogCapture log(5);
    Signal closed;
    Probe p(0, &closed);
    EXPECT_LT(p.SetTimer(1000000), -101);  // a long timer, freed when the owner goes
    p.Close();
    p.Close();
    EXPECT_EQ(p.SetTimer(1000), -1);
    ASSERT_TRUE(closed.WaitFor(1));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(closed.Count(), 1);
    EXPECT_EQ(log.Count("Ready to close NetHandler object:"), 1);
}

TEST(NetHandler, HandleCloseRunsOnceWhenDecRefRaces)
{
    PoolScope scope;
    for (int round = 0; round < 20; ++round) {
        Signal closed;
        auto* p = new Probe(0, &closed, true);
        constexpr int kThreads = 4;
        constexpr int kRefs = 500;
        for (int i = 0; i < kThreads * kRefs; ++i) p->AddRef();
        p->Close();
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([p] {
                for (int i = 0; i < kRefs; ++i) p->DecRef();
            });
        }
        for (auto& t : threads) t.join();
        ASSERT_TRUE(closed.WaitFor(1));
        std::this_thread::sleep_for(2ms);
        EXPECT_EQ(closed.Count(), 1);
    }
}

// Objects are deleted in handle_close; messages keep coming from other threads. Under
// the address sanitizer any delivery to a freed object fails the run.
TEST(NetHandler, MessagesRacingWithCloseNeverReachAFreedObject)
{
    PoolScope scope;
    const int priv = CNetThread::CreatePrivatePool(2, false);
    ASSERT_GE(priv, 1);
    for (int round = 0; round < 30; ++round) {
        Signal closed;
        std::atomic<bool> released{false};
        std::atomic<int> late{0};
        auto* target = new Probe(priv, &closed, true);
        target->on_message = [&](long, unsigned int, long) {
            if (released.load()) ++late;
            return 0;
        };
        const long id = target->GetID();
        Probe sender(0);
        std::atomic<bool> stop{false};
        std::thread flood([&] {
            for (int i = 0; i < 20000 && !stop.load(); ++i) sender.Notify(id, 1, i);
        });
        std::this_thread::sleep_for(1ms);
        target->Close();
        ASSERT_TRUE(closed.WaitFor(1));
        released = true;
        std::this_thread::sleep_for(5ms);
        stop = true;
        flood.join();
        EXPECT_EQ(late.load(), 0);
        sender.Close();
    }
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(priv), 0);
}

// The close message overtakes every message already waiting for the object.
TEST(NetHandler, CloseOvertakesQueuedMessages)
{
    PoolScope scope;
    const int priv = CNetThread::CreatePrivatePool(0x80000002u, false);
    ASSERT_GE(priv, 1);
    Signal entered, release1, release2, closed;
    Probe blocker(priv);
    blocker.on_message = [&](long, unsigned int type, long) {
        entered.Add();
        (type == 1 ? release1 : release2).WaitFor(1);
        return 0;
    };
    Inbox target(priv, &closed);
    Probe sender(0);
    sender.Notify(blocker.GetID(), 1, 0);
    sender.Notify(blocker.GetID(), 2, 0);
    ASSERT_TRUE(entered.WaitFor(2));  // both workers of the pool are held
    for (int i = 0; i < 100; ++i) sender.Notify(target.Id(), 5, i);
    target.probe.Close();
    release2.Add();  // one worker runs again: it must meet the close first
    ASSERT_TRUE(closed.WaitFor(1));
    release1.Add();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(target.Count(5), 0);
    blocker.Close();
    sender.Close();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(priv), 0);
}

TEST(NetHandler, BadReceiversAndMissingPoolsAreRefused)
{
    PoolScope scope;
    LogCapture log(6);
    Probe p(0);
    p.Notify(0, 1, 0);
    p.Notify(5, 1, 0);
    p.Notify(1, 0);  // no default receiver yet
    p.NotifySerial(0, 1, 0, 9);
    EXPECT_EQ(log.Count("CMessage::Notify, invalid receiver id: 0,"), 2);
    EXPECT_EQ(log.Count("CMessage::Notify, invalid receiver id: 5,"), 1);
    EXPECT_EQ(log.Count("CMessage::NotifySerial, invalid receiver id: 0,"), 1);
    EXPECT_TRUE(log.Contains("flag:9"));
    p.Close();

    AssertCapture asserts;
    for (int pool : {64, -1, 7}) {
        auto orphan = std::make_unique<Probe>(pool);
        EXPECT_EQ(orphan->GetID(), 0);
        EXPECT_EQ(orphan->SetTimer(1000), -1);
        orphan->Close();  // nothing to release: it never entered a table
        EXPECT_EQ(log.Count("Can't find the thread pool " + std::to_string(pool) + ", create thread pool first!"), 1);
    }
    EXPECT_EQ(asserts.Expressions().size(), 3u);
}

TEST(NetHandler, DestroyingAnOpenHandlerAssertsAndLeavesNothingBehind)
{
    PoolScope scope;
    AssertCapture asserts;
    long id;
    {
        Probe p(0);
        id = p.GetID();
    }
    EXPECT_EQ(asserts.Count("__m_magic == 0x0202"), 1);
    // Its id no longer leads anywhere: a message to it is dropped, not delivered to
    // freed memory.
    Probe sender(0);
    sender.Notify(id, 1, 0);
    std::this_thread::sleep_for(20ms);
    sender.Close();
}

// A freed id comes back with its next generation only after 1024 others wait; a
// message addressed to the old holder never reaches the new one.
TEST(NetHandler, ReusedIdsCarryANewGeneration)
{
    PoolScope scope;
    Signal closed;
    auto* first = new Probe(0, &closed, true);
    const long old_id = first->GetID();
    first->Close();
    ASSERT_TRUE(closed.WaitFor(1));

    std::vector<Probe*> churn;  // the old id waits behind these 1024
    for (int i = 0; i < 1024; ++i) churn.push_back(new Probe(0, &closed, true));
    for (Probe* p : churn) p->Close();
    ASSERT_TRUE(closed.WaitFor(1025));

    Inbox reuser;
    EXPECT_EQ(reuser.Id(), (old_id & ~0xFL) | ((old_id + 1) & 0xF));
    Probe sender(0);
    sender.Notify(old_id, 1, 0);
    sender.Notify(reuser.Id(), 2, 0);
    ASSERT_TRUE(reuser.WaitCount(2, 1));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(reuser.Count(1), 0);
    sender.Close();
}
