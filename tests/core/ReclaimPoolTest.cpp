#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Core/ReclaimPool.h"

using namespace Qelvar::Corvane;

TEST(ReclaimPool, TakenRecordIsCleared)
{
    CReclaimPool pool;
    SEvent* ev = pool.Take();
    EXPECT_EQ(ev->m_key, EVENT_FREE);
    ev->m_key = 7;
    ev->obj_id = -6400;
    ev->m_evready = 1;
    ev->m_due = 99;
    ev->next = ev;
    pool.GiveBack(ev);
    ASSERT_EQ(pool.Take(), ev);
    EXPECT_TRUE(ev->m_key == EVENT_FREE && ev->obj_id == 0 && ev->m_evready == 0 && ev->m_due == 0 &&
                ev->next == nullptr);
    EXPECT_EQ(pool.Created(), 1);
    pool.GiveBack(ev);
}

TEST(ReclaimPool, ShrinksByAThousandOnlyAfterRealLoad)
{
    CReclaimPool pool;
    std::vector<SEvent*> taken(10001);
    for (SEvent*& ev : taken) ev = pool.Take();

    // Each of these found fewer than 1001 free: no shrinking yet.
    for (int i = 0; i <= 1000; ++i) pool.GiveBack(taken[i]);
    EXPECT_EQ(pool.Created(), 10001);
    EXPECT_EQ(pool.Free(), 1001);

    // With 1001 free, the thousand given back last (the head) are destroyed first.
    pool.GiveBack(taken[1001]);
    EXPECT_EQ(pool.Created(), 9001);
    EXPECT_EQ(pool.Free(), 2);
    EXPECT_EQ(pool.Take(), taken[1001]);
    EXPECT_EQ(pool.Take(), taken[0]);  // survived; the sanitizer checks it is live

    // Below 10001 created it keeps everything.
    taken.erase(taken.begin() + 1, taken.begin() + 1001);
    for (SEvent* ev : taken) pool.GiveBack(ev);
    EXPECT_EQ(pool.Free(), 9001);

    const std::string dump = pool.Dump();
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 9001);
    EXPECT_NE(dump.find("(-1)->, event->obj_id:[0],  event->evready:[0]\n"), std::string::npos);
    pool.ReleaseFree();
    EXPECT_EQ(pool.Free(), 0);
    EXPECT_EQ(pool.Created(), 0);
}
