#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "Core/MinHeap.h"

using namespace Qelvar::Corvane;

TEST(MinHeap, RecordMovedIntoARemovedPlaceRisesAboveItsNewParent)
{
    // Inserted in heap order; the last record (26) replaces 101 under 100 and must rise.
    const std::uint64_t dues[] = {10, 100, 20, 101, 102, 21, 22, 103, 104, 105, 106, 23, 24, 25, 26};
    SEvent records[15];
    CMinHeap heap;
    for (int i = 0; i < 15; ++i) {
        records[i].m_key = -16 * (i + 7);
        records[i].m_due = dues[i];
        heap.Insert(&records[i]);
    }
    EXPECT_EQ(heap.RemoveById(records[3].m_key), &records[3]);
    std::uint64_t last = 0;
    while (SEvent* ev = heap.PopDue(~0ull)) {
        EXPECT_GE(ev->m_due, last);
        last = ev->m_due;
    }
}

// Random inserts, pops under a limit, removals by id (pending or not) and purges checked
// against an ordered reference, with up to 1500 records pending (the array starts at 200).
TEST(MinHeap, KeepsOrderUnderRandomOperations)
{
    constexpr int N = 1500;
    auto records = std::make_unique<SEvent[]>(N);
    for (int i = 0; i < N; ++i) records[i].m_key = -16 * (i + 7);
    std::set<std::pair<std::uint64_t, SEvent*>> pending;  // (due, record)
    CMinHeap heap;
    EXPECT_EQ(heap.Top(), 0u);
    EXPECT_EQ(heap.PopDue(~0ull), nullptr);
    std::mt19937 rng(12345);
    for (int step = 0; step < 40000; ++step) {
        const unsigned int op = rng() % 100;
        SEvent* ev = &records[rng() % N];
        const std::uint64_t min_due = pending.empty() ? ~0ull : pending.begin()->first;
        if (op < 55) {
            if (ev->m_due != 0) continue;  // already pending
            ev->m_due = 1 + rng() % 500;   // plenty of equal due times
            ASSERT_EQ(heap.Insert(ev), ev->m_due < min_due ? ev->m_due : 0u);  // ties stay below
            pending.insert({ev->m_due, ev});
            continue;
        }
        std::vector<SEvent*> removed;
        if (op < 75) {
            const std::uint64_t limit = rng() % 520;
            if (SEvent* top = heap.PopDue(limit)) removed.push_back(top);
            ASSERT_EQ(removed.size(), min_due <= limit ? 1u : 0u);
            ASSERT_TRUE(removed.empty() || removed[0]->m_due == min_due);
        } else if (op < 99) {
            if (SEvent* hit = heap.RemoveById(ev->m_key)) removed.push_back(hit);
            ASSERT_EQ(removed.size(), ev->m_due != 0 ? 1u : 0u);
            ASSERT_TRUE(removed.empty() || removed[0] == ev);
        } else {
            const std::uint64_t cut = rng() % 7;
            heap.RemoveIf([cut](const SEvent& e) { return e.m_due % 7 == cut; }, removed);
            const auto matching = std::count_if(pending.begin(), pending.end(),
                                                [cut](const auto& entry) { return entry.first % 7 == cut; });
            ASSERT_EQ(static_cast<std::ptrdiff_t>(removed.size()), matching);  // and each is erased below
        }
        for (SEvent* r : removed) {
            ASSERT_EQ(pending.erase({r->m_due, r}), 1u);
            r->m_due = 0;
        }
        ASSERT_EQ(heap.Size(), static_cast<int>(pending.size()));
        ASSERT_EQ(heap.Top(), pending.empty() ? 0u : pending.begin()->first);
    }
    // A misplaced record deep in the heap shows up only when it reaches the top.
    for (const auto& entry : pending) ASSERT_EQ(heap.PopDue(~0ull)->m_due, entry.first);
}
