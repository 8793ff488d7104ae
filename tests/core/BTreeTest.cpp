#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "Core/BTree.h"

using Qelvar::Corvane::CBTree;

namespace {

// The id of sequence number `seq` (-100, -101, ...) in pool `pool` with generation `gen`.
std::int64_t make_id(std::int64_t seq, int pool, int gen)
{
    return (pool + seq * 64) * 16 + gen;
}

}  // namespace

TEST(BTree, IdsOfOneSequenceNumberDoNotAlias)
{
    CBTree<int> table;
    int a = 1, b = 2;
    const std::int64_t id = make_id(-100, 3, 0);
    const std::int64_t reused = make_id(-100, 3, 1);
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
