// Object ids: how the pool hands them out and reuses them, and the table that maps them.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "Core/BTree.h"
#include "Core/IdPool.h"

using Qelvar::Corvane::CBTree;
using Qelvar::Corvane::CIdPool;

namespace {

// The id of sequence number `seq` (-100, -101, ...) in pool `pool` with generation `gen`.
std::int64_t make_id(std::int64_t seq, int pool, int gen)
{
    return (pool + seq * 64) * 16 + gen;
}

std::int64_t next_generation(std::int64_t id)
{
    return (id & ~std::int64_t{0xF}) | ((id + 1) & 0xF);
}

}  // namespace

TEST(IdPool, NewIdsAreNegativeAndCarryThePoolIndex)
{
    for (const int p : {0, 1, 17, 63}) {
        CIdPool pool(static_cast<unsigned int>(p));
        EXPECT_EQ(pool.GetId(), make_id(-100, p, 0));
        EXPECT_EQ(pool.GetId(), make_id(-101, p, 0));
        for (int i = 0; i < 1000; ++i) {
            const std::int64_t id = pool.GetId();
            ASSERT_LT(id, -101);
            ASSERT_EQ((id >> 4) & 63, p);
            ASSERT_EQ(id & 0xF, 0);
        }
        EXPECT_EQ(pool.MinId(), -1102);
    }
}

TEST(IdPool, ReusesOldestOnlyWhenMoreThan1024WaitAndAdvancesGeneration)
{
    CIdPool pool(5);
    std::vector<std::int64_t> freed;
    for (int i = 0; i < 1025; ++i) freed.push_back(pool.GetId());
    freed[0] |= 0xF;  // last generation: wraps to 0
    for (int i = 0; i < 1024; ++i) pool.PutId(freed[i]);
    const std::int64_t fresh = pool.GetId();
    EXPECT_EQ(fresh, make_id(-100 - 1025, 5, 0));

    pool.PutId(freed[1024]);
    EXPECT_EQ(pool.GetId(), freed[0] & ~std::int64_t{0xF});
    EXPECT_EQ(pool.Waiting(), 1024u);
    EXPECT_EQ(pool.GetId(), make_id(-100 - 1026, 5, 0));  // back to new ids
}

TEST(IdPool, RingGrowsKeepingWaitingIdsInOrderUpToItsLimit)
{
    CIdPool pool(0);
    std::vector<std::int64_t> order;
    // Move the read index off 0 first, so the full ring has wrapped when it grows.
    for (std::int64_t id = -1600; order.size() < 1100; id -= 16) {
        pool.PutId(id);
        order.push_back(id);
    }
    for (int i = 0; i < 50; ++i) ASSERT_EQ(pool.GetId(), next_generation(order[i]));
    order.erase(order.begin(), order.begin() + 50);
    for (std::int64_t id = -900000; order.size() < 2049; id -= 16) {
        pool.PutId(id);
        order.push_back(id);
    }
    EXPECT_EQ(pool.Capacity(), 4096u);
    for (std::size_t i = 0; pool.Waiting() > 1024; ++i) ASSERT_EQ(pool.GetId(), next_generation(order[i]));

    // Doubling stops at 204800; the ids beyond it are dropped.
    for (int i = 0; i < 210000; ++i) pool.PutId(-16 * (i + 1));
    EXPECT_EQ(pool.Capacity(), 204800u);
    EXPECT_EQ(pool.Waiting(), 204800u);
}

TEST(BTree, IdsOfOneSequenceNumberDoNotAlias)
{
    CBTree<int> table;
    int a = 1, b = 2;
    const std::int64_t id = make_id(-100, 3, 0);
    const std::int64_t reused = next_generation(id);
    ASSERT_TRUE(table.Insert(id, &a));
    EXPECT_EQ(table.Find(id), &a);
    EXPECT_EQ(table.Find(reused), nullptr);   // another generation is another object
    EXPECT_EQ(table.Erase(reused), nullptr);  // and erasing it leaves the holder alone
    EXPECT_EQ(table.Find(id), &a);
    EXPECT_FALSE(table.Insert(id, &b));
    EXPECT_EQ(table.Erase(id), &a);
    ASSERT_TRUE(table.Insert(reused, &b));
    EXPECT_EQ(table.Find(reused), &b);
    EXPECT_EQ(table.Find(id), nullptr);
    EXPECT_EQ(table.Size(), 1u);
}

TEST(BTree, KeysOutsideTheSlotsAndOrderedWalk)
{
    CBTree<int> table;
    int v[6] = {};
    const std::int64_t keys[] = {7, 0, 1LL << 40, 3, 1LL << 23, 2};
    for (int i = 0; i < 6; ++i) ASSERT_TRUE(table.Insert(keys[i], &v[i]));
    // Negative keys that are not ids still work.
    int odd = 0;
    ASSERT_TRUE(table.Insert(-5, &odd));
    EXPECT_EQ(table.Find(-5), &odd);
    EXPECT_EQ(table.Find(1LL << 40), &v[2]);
    EXPECT_EQ(table.Erase(-5), &odd);

    std::vector<std::int64_t> walked;
    table.ForEach([&](std::int64_t key, int*) { walked.push_back(key); });
    EXPECT_EQ(walked, (std::vector<std::int64_t>{0, 2, 3, 7, 1LL << 23, 1LL << 40}));
    EXPECT_EQ(table.Size(), 6u);
}
