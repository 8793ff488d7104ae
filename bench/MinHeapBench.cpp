// CMinHeap with N timers pending: a timer fires (pop) and is armed again (insert), the
// network timer's steady state; and a timer destroyed by id, which scans the heap.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <random>

#include "Core/MinHeap.h"

using Qelvar::Corvane::CMinHeap;
using Qelvar::Corvane::SEvent;

namespace {

std::unique_ptr<SEvent[]> fill(CMinHeap& heap, int n, std::mt19937_64& rng)
{
    auto records = std::make_unique<SEvent[]>(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        records[i].m_key = -16 * (i + 7);
        records[i].m_due = 1000000 + rng() % 1000000;
        heap.Insert(&records[i]);
    }
    return records;
}

}  // namespace

static void MinHeap_PopInsert(benchmark::State& state)
{
    std::mt19937_64 rng(1);
    CMinHeap heap;
    auto records = fill(heap, static_cast<int>(state.range(0)), rng);
    for (auto _ : state) {
        SEvent* ev = heap.PopDue(~0ull);
        ev->m_due += 1 + rng() % 1000000;
        heap.Insert(ev);
    }
}
BENCHMARK(MinHeap_PopInsert)->Arg(16)->Arg(1024)->Arg(65536);

static void MinHeap_RemoveByIdInsert(benchmark::State& state)
{
    std::mt19937_64 rng(1);
    const int n = static_cast<int>(state.range(0));
    CMinHeap heap;
    auto records = fill(heap, n, rng);
    for (auto _ : state) {
        SEvent* ev = heap.RemoveById(records[rng() % n].m_key);
        heap.Insert(ev);
    }
}
BENCHMARK(MinHeap_RemoveByIdInsert)->Arg(16)->Arg(1024)->Arg(65536);
