#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Fundel/Semaphore.h"
#include "Fundel/Thread.h"
#include "Fundel/ThreadLite.h"
#include "Fundel/ThreadName.h"
#include "Fundel/Time.h"

using namespace std::chrono_literals;
using Qelvar::Fundel::CSemaphore;
using Qelvar::Fundel::CThread;
using Qelvar::Fundel::CThreadLite;
using Qelvar::Fundel::CThreadName;
using Qelvar::Fundel::CTime;

TEST(Semaphore, CountsPostsAndTimesOut)
{
    CSemaphore sem;
    EXPECT_FALSE(sem.TryWait());
    sem.Post(3);
    EXPECT_TRUE(sem.TryWait());
    EXPECT_TRUE(sem.TimedWait(0));
    sem.Wait();
    const auto start = CTime::getCurrentMilliSecond();
    EXPECT_FALSE(sem.TimedWait(50));
    EXPECT_GE(CTime::getCurrentMilliSecond() - start, 49);

    std::thread poster([&] {
        std::this_thread::sleep_for(20ms);
        sem.Post();
    });
    EXPECT_TRUE(sem.TimedWait(5000));
    poster.join();
}

TEST(ThreadLite, RunsNamedAndStopsOnCancel)
{
    CThreadLite thread;
    std::atomic<int> loops{0};
    std::string name;
    std::atomic<bool> named{false};
    ASSERT_EQ(thread.Create(
                  "Fundel test thread",
                  [&] {
                      name = CThreadName::Current();
                      named = true;
                      while (thread.IsLooping()) {
                          ++loops;
                          std::this_thread::sleep_for(1ms);
                      }
                  }),
              0);
    EXPECT_EQ(thread.Create("again", [] {}), -1);  // one thread per object
    while (!named) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(name, "Fundel test thread");
    EXPECT_EQ(CThreadName::Get(thread.GetThreadId()), "Fundel test thread");
    EXPECT_TRUE(thread.IsRunning());
    thread.Cancel();
    EXPECT_EQ(thread.Join(), 0);
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_GT(loops.load(), 0);
    EXPECT_EQ(CThreadName::Get(thread.GetThreadId()), "");  // the registry forgets ended threads
    EXPECT_EQ(thread.Join(), -1);
}

TEST(ThreadLite, ThreadTimeoutExpiresOnlyWhileArmed)
{
    CThreadLite thread;
    EXPECT_FALSE(thread.IsThreadTimeout());
    thread.SetThreadTimeout(30);
    EXPECT_FALSE(thread.IsThreadTimeout());
    std::this_thread::sleep_for(40ms);
    EXPECT_TRUE(thread.IsThreadTimeout());
    thread.SetThreadTimeout(0);
    EXPECT_FALSE(thread.IsThreadTimeout());
}

namespace {

class Counter : public CThread {
public:
    ~Counter() override { Stop(); }
    std::atomic<int> passes{0};

protected:
    void ThreadProc() override
    {
        while (IsLooping()) {
            ++passes;
            std::this_thread::sleep_for(1ms);
        }
    }
};

}  // namespace

TEST(Thread, DerivedBodyRunsUntilStopped)
{
    Counter counter;
    ASSERT_EQ(counter.Start("counter", 1), 0);  // a low priority is always allowed
    while (counter.passes.load() < 3) std::this_thread::sleep_for(1ms);
    counter.Stop();
    const int passes = counter.passes.load();
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(counter.passes.load(), passes);
}
