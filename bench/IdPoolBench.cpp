// CIdPool: one GetId/PutId pair per iteration in the steady state of a busy pool, where
// more than 1024 freed ids wait and every GetId reuses one.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "Core/IdPool.h"

using Qelvar::Corvane::CIdPool;

static void IdPool_GetPut(benchmark::State& state)
{
    CIdPool pool(3);
    for (int i = 0; i < 2048; ++i) pool.PutId(pool.GetId());
    for (auto _ : state) {
        const std::int64_t id = pool.GetId();
        benchmark::DoNotOptimize(id);
        pool.PutId(id);
    }
}
BENCHMARK(IdPool_GetPut);
