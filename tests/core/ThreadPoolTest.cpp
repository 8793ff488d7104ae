#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Core/Multiplexer.h"
#include "Core/ThreadPool.h"
#include "Fundel/Time.h"
#include "LoopbackPair.h"
#include "Platform/Socket.h"
#include "Inbox.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using Qelvar::Corvane::CMultiplexer;
using Qelvar::Corvane::CNetThread;
using Qelvar::Corvane::CThreadPool;
using Qelvar::Fundel::CTime;
using namespace Qelvar::Test;

TEST(ThreadPool, ThreadCountRule)
{
    LogCapture log(6);
    EXPECT_EQ(CThreadPool::adjustThreadNumber(1, 4, nullptr), 4u);
    EXPECT_EQ(CThreadPool::adjustThreadNumber(4, 4, nullptr), 4u);
    EXPECT_EQ(CThreadPool::adjustThreadNumber(5, 4, nullptr), 8u);
    EXPECT_EQ(CThreadPool::adjustThreadNumber(9, 4, nullptr), 12u);
    EXPECT_EQ(CThreadPool::adjustThreadNumber(0x80000005u, 4, nullptr), 5u);  // taken exactly
    EXPECT_EQ(CThreadPool::adjustThreadNumber(3, 1, nullptr), 3u);           // one processor: as asked
    EXPECT_EQ(CThreadPool::adjustThreadNumber(0xFFFFFFFFu, 4, nullptr), 0x7FFFFFFFu);
    EXPECT_EQ(log.Count("Too few threads"), 0);
    EXPECT_EQ(CThreadPool::adjustThreadNumber(0x80000001u, 4, nullptr), 2u);
    EXPECT_EQ(CThreadPool::adjustThreadNumber(1, 1, nullptr), 2u);
    EXPECT_EQ(log.Count("Too few threads to be created,It have been adjusted to: 2 "), 2);
}

TEST(ThreadPool, PublicPoolIsReferenceCounted)
{
    LogCapture log(6);
    EXPECT_EQ(CNetThread::DestroyThreadPool(), -1);
    EXPECT_TRUE(log.Contains("The private pool 0 not exist! Can't close it!"));

    ASSERT_EQ(CNetThread::CreateThreadPool(2, false), 0);
    ASSERT_EQ(CreateThreadPool(2, false), 0);  // the exported C entry point
    EXPECT_EQ(log.Count("Create Corvane thread pool success!"), 2);
    EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_TRUE(CThreadPool::exists(0));

    // Still running: objects open and messages flow.
    Inbox p;
    p.probe.Notify(p.Id(), 1, 0);
    EXPECT_TRUE(p.WaitCount(1, 1));
    p.probe.Close();

    EXPECT_EQ(DestroyThreadPool(), 0);
    EXPECT_FALSE(CThreadPool::exists(0));
    EXPECT_TRUE(log.Contains("Destroy Corvane thread pool! ret:0, ref:1"));
    EXPECT_EQ(CNetThread::DestroyThreadPool(), -1);
}

TEST(ThreadPool, PrivatePoolsTakeTheLowestFreeIndexUpTo63)
{
    PoolScope scope;
    LogCapture log(6);
    std::vector<int> made;
    for (int i = 0; i < 63; ++i) {
        const int index = CNetThread::CreatePrivatePool(0x80000002u, false);
        ASSERT_EQ(index, i + 1);
        made.push_back(index);
    }
    EXPECT_EQ(CNetThread::CreatePrivatePool(2, false), -1);
    EXPECT_TRUE(log.Contains("No more private pool can be created!"));

    EXPECT_EQ(CNetThread::DestroyPrivatePool(17), 0);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(17), -1);
    EXPECT_TRUE(log.Contains("The private pool 17 not exist! Can't close it!"));
    EXPECT_EQ(CNetThread::DestroyPrivatePool(0), -1);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(64), -1);
    EXPECT_EQ(CNetThread::CreatePrivatePool(2, false), 17);
    for (int index : made) EXPECT_EQ(CNetThread::DestroyPrivatePool(index), 0);
}

TEST(ThreadPool, SettersRefuseBadValues)
{
    LogCapture log(6);
    EXPECT_EQ(CNetThread::SetThreadPriority(50, 0, 0), -1);
    EXPECT_TRUE(log.Contains("CNetThread::SetThreadPriority : Thread priority set error!"));
    EXPECT_EQ(CNetThread::SetThreadPriority(127, 2, 0), -1);
    EXPECT_TRUE(log.Contains("CNetThread::SetThreadPriority : Thread policy set error!"));
    EXPECT_EQ(CNetThread::SetThreadPriority(64, 0, 0), 0);

    EXPECT_EQ(CNetThread::SetMultiplexerTimeOut(-1), -1);
    EXPECT_TRUE(log.Contains("timeout is set error please check, timeout:-1 !"));

    EXPECT_EQ(CNetThread::SetRecvThreadNum(0), -1);
    EXPECT_EQ(CNetThread::SetRecvThreadNum(257), -1);
    EXPECT_TRUE(log.Contains("Set stream_receiver_thread number error, sm_streamrecv_thread_num:["));
    EXPECT_TRUE(log.Contains("num:[257]!"));
    EXPECT_EQ(CNetThread::SetRecvThreadNum(3), 0);
    EXPECT_TRUE(log.Contains("Set stream_receiver_thread number success, sm_streamrecv_thread_num:[3]"));

    PoolScope scope;
    EXPECT_TRUE(log.Contains("stream_recv_thread number is set to [3]"));
}

TEST(ThreadPool, PollerWaitFollowsTheMultiplexerTimeout)
{
    ASSERT_EQ(Qelvar::Platform::sock_startup(), 0);  // the Windows wake pipe is a socket pair
    CMultiplexer fixed(0), unlimited(0), negative(0);
    ASSERT_EQ(fixed.Init(60), 0);
    ASSERT_EQ(unlimited.Init(0), 0);
    ASSERT_EQ(negative.Init(-5), 0);
    EXPECT_EQ(fixed.TimeoutMicroseconds(), 60000);
    EXPECT_EQ(unlimited.TimeoutMicroseconds(), -1);
    EXPECT_EQ(negative.TimeoutMicroseconds(), 500000);

    Qelvar::Corvane::CBTree<Qelvar::Corvane::SEvent> sockets;
    Qelvar::Corvane::CWorkQueue queue;
    auto start = CTime::getCurrentMilliSecond();
    fixed.Wait(sockets, queue);
    auto elapsed = CTime::getCurrentMilliSecond() - start;
    EXPECT_GE(elapsed, 59);
    EXPECT_LT(elapsed, 1000);

    // Without a limit only a wake-up ends the wait.
    std::thread waker([&] {
        std::this_thread::sleep_for(100ms);
        unlimited.Wake();
    });
    start = CTime::getCurrentMilliSecond();
    unlimited.Wait(sockets, queue);
    elapsed = CTime::getCurrentMilliSecond() - start;
    waker.join();
    EXPECT_GE(elapsed, 90);
    EXPECT_LT(elapsed, 2000);
    Qelvar::Platform::sock_cleanup();
}

// No worker takes an item for the deadlock period: the daemon reports it with what each
// worker is doing. An idle pool is never reported.
TEST(ThreadPool, DaemonReportsStalledWorkers)
{
    CThreadPool::sm_deadlock_period_ms = 300;
    CThreadPool::sm_daemon_wait_ms = 50;
    {
        PoolScope scope;
        LogCapture log(6);
        const int priv = CNetThread::CreatePrivatePool(0x80000002u, false);
        ASSERT_GE(priv, 1);
        std::this_thread::sleep_for(800ms);
        EXPECT_FALSE(log.Contains("All Corvane Thread deadlock"));

        Signal entered, release;
        Probe stuck(priv);
        stuck.on_message = [&](long, unsigned int, long) {
            entered.Add();
            release.WaitFor(1, 20s);
            return 0;
        };
        stuck.Notify(stuck.GetID(), 1, 0);
        stuck.Notify(stuck.GetID(), 2, 0);
        ASSERT_TRUE(entered.WaitFor(2));
        EXPECT_TRUE(log.WaitFor("All Corvane Thread deadlock !!!!!!", 5s));
        // One line per worker, naming the object each one is stuck in.
        EXPECT_TRUE(log.WaitFor("Qelvar::Test::Probe", 2s, 2));
        release.Add();
        stuck.Close();
    }
    CThreadPool::sm_deadlock_period_ms = 60000;
    CThreadPool::sm_daemon_wait_ms = 5000;
}

TEST(ThreadPool, CallbackWatchReportsALongCallback)
{
    CThreadPool::sm_daemon_wait_ms = 50;
    ASSERT_EQ(CNetThread::SetThreadTimeOut(100), 0);
    {
        PoolScope scope;
        ASSERT_EQ(CNetThread::SetThreadTimeOut(0), 0);
        LogCapture log(6);
        Signal done;
        Probe slow(0);
        slow.on_message = [&](long, unsigned int, long) {
            std::this_thread::sleep_for(600ms);
            done.Add();
            return 0;
        };
        slow.Notify(slow.GetID(), 1, 0);
        EXPECT_TRUE(log.WaitFor("has been in one callback for more than 100 ms", 3s));
        ASSERT_TRUE(done.WaitFor(1));
        slow.Close();
    }
    CThreadPool::sm_daemon_wait_ms = 5000;
}

// Destroying the pools with handlers open neither hangs nor frees them, nor closes the
// sockets they registered; closing such a handler afterwards still ends in its
// handle_close.
TEST(ThreadPool, DestroyWithOpenHandlersDetachesThem)
{
    LogCapture log(6);
    ASSERT_EQ(CNetThread::CreateThreadPool(2, false), 0);
    LoopbackPair c;
    ASSERT_TRUE(c.Make());
    Signal closed;
    auto* open = new Probe(0, &closed, true);
    auto* closing = new Probe(0, &closed, true);
    EXPECT_LT(open->SetTimer(10000), -101);
    ASSERT_EQ(open->RegisterSock(c.server, Qelvar::Corvane::MASK_READ | Qelvar::Corvane::MASK_WRITE, 1000000), 0);
    closing->Close();
    ASSERT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_TRUE(log.Contains("is still open while its thread pool 0 is destroyed"));
    EXPECT_TRUE(c.client.IsValid());  // the descriptors are the owners'
    ASSERT_TRUE(closed.WaitFor(1));  // the closed one is released by the teardown at the latest
    EXPECT_EQ(open->GetID(), 0);
    open->Close();
    EXPECT_TRUE(closed.WaitFor(2));
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(closed.Count(), 2);
    EXPECT_TRUE(log.Contains("some sockets registered on obj"));
}
