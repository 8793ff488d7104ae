#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Fundel/Time.h"
#include "Probe.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using Qelvar::Fundel::CTime;
using namespace Qelvar::Test;

// The shortest timer is 3 ms made due 2 ms early; the timer thread looks every 5 ms.
// The longest is 24 hours.
TEST(NetTimer, IntervalsAreClampedToTheirRangeAndFireOnce)
{
    PoolScope scope;
    Signal fired;
    Moments firings;
    Probe p(0);
    long expected_id = 0;
    long got_id = 0;
    p.on_timeout = [&](long id) {
        got_id = id;
        firings.Add();
        fired.Add();
        return -1LL;  // the default: fire once
    };
    firings.start = CTime::getCurrentMicroSecond();
    expected_id = p.SetTimer(0);
    ASSERT_LT(expected_id, -101);
    ASSERT_TRUE(fired.WaitFor(1));
    EXPECT_EQ(got_id, expected_id);
    const std::int64_t delay = firings.Get()[0];
    EXPECT_GE(delay, 900);      // due 1 ms after it was set
    EXPECT_LT(delay, 100000);  // the next 5 ms pass, with room for a loaded machine
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(fired.Count(), 1);

    LogCapture log(6);
    const long long_id = p.SetTimer(100000LL * 1000000);
    EXPECT_LT(long_id, 0);
    EXPECT_TRUE(log.Contains("Set timer's value is too big,it will be reduce to 24h."));
    p.DestroyTimer(long_id);
    p.Close();
}

TEST(NetTimer, ResultRepeatsChangesOrStopsTheTimer)
{
    PoolScope scope;
    Signal fired;
    Moments firings;
    std::atomic<int> n{0};
    Probe p(0);
    p.on_timeout = [&](long) {
        firings.Add();
        fired.Add();
        const int k = ++n;
        if (k < 4) return 0LL;       // same 20 ms interval
        if (k < 7) return 50000LL;   // 50 ms from now on
        return -1LL;                 // stop
    };
    ASSERT_LT(p.SetTimer(20000), 0);
    ASSERT_TRUE(fired.WaitFor(7, 5s));
    std::this_thread::sleep_for(150ms);
    EXPECT_EQ(fired.Count(), 7);
    const auto at = firings.Get();
    // Each interval is re-armed from the moment the callback returned, 2 ms early, and
    // fires on the timer thread's next 5 ms pass.
    for (int i = 1; i <= 3; ++i) {
        EXPECT_GE(at[i] - at[i - 1], 17000) << i;
        EXPECT_LT(at[i] - at[i - 1], 60000) << i;
    }
    for (int i = 4; i <= 6; ++i) {
        EXPECT_GE(at[i] - at[i - 1], 47000) << i;
        EXPECT_LT(at[i] - at[i - 1], 100000) << i;
    }
    p.Close();
}

// A destroyed timer never fires again, even one destroyed on its way; a timer of a closed
// owner finds nobody: no callback, and the record and id are freed.
TEST(NetTimer, DestroyedTimersAndTimersOfClosedObjectsNeverFire)
{
    PoolScope scope;
    Signal fired, other, closed, orphan_fired;
    Probe p(0);
    long periodic = 0;
    p.on_timeout = [&](long id) {
        if (id == periodic) {
            fired.Add();
            p.DestroyTimer(id);  // destroyed while on its way: must not be re-armed
            return 0LL;
        }
        other.Add();
        return -1LL;
    };
    periodic = p.SetTimer(5000);
    const long pending = p.SetTimer(30000);
    p.DestroyTimer(pending);  // still in the heap: never fires

    auto* orphan = new Probe(0, &closed, true);
    orphan->on_timeout = [&](long) {
        orphan_fired.Add();
        return 0LL;
    };
    orphan->SetTimer(10000);
    orphan->Close();
    ASSERT_TRUE(closed.WaitFor(1));
    ASSERT_TRUE(fired.WaitFor(1));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(fired.Count(), 1);
    EXPECT_EQ(other.Count(), 0);
    EXPECT_EQ(orphan_fired.Count(), 0);
    p.Close();
}
