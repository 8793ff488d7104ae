#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "Core/IdPool.h"

using Qelvar::Corvane::CIdPool;

namespace {

std::int64_t next_generation(std::int64_t id)
{
    return (id & ~std::int64_t{0xF}) | ((id + 1) & 0xF);
}

}  // namespace

TEST(IdPool, NewIdsAreNegativeAndCarryThePoolIndex)
{
    for (const unsigned int p : {0u, 1u, 17u, 63u}) {
        CIdPool pool(p);
        const std::int64_t p64 = p;
        EXPECT_EQ(pool.GetId(), (p64 - 6400) * 16);
        EXPECT_EQ(pool.GetId(), (p64 - 6464) * 16);
        for (int i = 0; i < 1000; ++i) {
            const std::int64_t id = pool.GetId();
            ASSERT_LT(id, -101);
            ASSERT_EQ((id >> 4) & 63, p64);
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
    EXPECT_EQ(fresh, (5 - 64 * (100 + 1025)) * std::int64_t{16});

    pool.PutId(freed[1024]);
    EXPECT_EQ(pool.GetId(), freed[0] & ~std::int64_t{0xF});
    EXPECT_EQ(pool.Waiting(), 1024u);
    EXPECT_EQ(pool.GetId(), fresh - 64 * 16);  // back to new ids
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
