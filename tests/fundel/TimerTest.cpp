#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Fundel/ThreadName.h"
#include "Fundel/Time.h"
#include "Fundel/Timer.h"

using namespace std::chrono_literals;
using Qelvar::Fundel::CThreadName;
using Qelvar::Fundel::CTime;
using Qelvar::Fundel::CTimer;

TEST(Timer, OneShotFiresOnceOnItsNamedThread)
{
    CTimer timer;
    std::atomic<int> fired{0};
    std::string name;
    const auto start = CTime::getCurrentMilliSecond();
    std::atomic<long long> at{0};
    ASSERT_EQ(timer.Start("lookup timer", 30, false,
                          [&] {
                              name = CThreadName::Current();
                              at = CTime::getCurrentMilliSecond();
                              ++fired;
                          }),
              0);
    EXPECT_EQ(timer.Start("again", 10, false, [] {}), -1);
    while (fired.load() == 0) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(fired.load(), 1);
    EXPECT_GE(at.load() - start, 29);
    EXPECT_EQ(name, "lookup timer");
    EXPECT_FALSE(timer.IsActive());
    // A fired one-shot may be started again.
    EXPECT_EQ(timer.Start("again", 1, false, [&] { ++fired; }), 0);
    while (fired.load() < 2) std::this_thread::sleep_for(1ms);
}

TEST(Timer, PeriodicKeepsItsCadenceAndStops)
{
    CTimer timer;
    std::atomic<int> fired{0};
    const auto start = CTime::getCurrentMilliSecond();
    ASSERT_EQ(timer.Start("periodic", 10, true, [&] { ++fired; }), 0);
    while (fired.load() < 10) std::this_thread::sleep_for(1ms);
    const auto elapsed = CTime::getCurrentMilliSecond() - start;
    EXPECT_GE(elapsed, 99);  // due times advance from the start: no early firing
    timer.Stop();
    const int count = fired.load();
    std::this_thread::sleep_for(40ms);
    EXPECT_EQ(fired.load(), count);
}

TEST(Timer, StopFromItsOwnCallbackDoesNotDeadlock)
{
    CTimer timer;
    std::atomic<int> fired{0};
    ASSERT_EQ(timer.Start("self stop", 5, true,
                          [&] {
                              ++fired;
                              timer.Stop();
                          }),
              0);
    while (fired.load() == 0) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(fired.load(), 1);
}
