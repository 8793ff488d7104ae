// CTsMemory against the system heap: allocate/free pairs on one thread, and blocks
// allocated on one thread and freed on another.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <thread>

#include <Corvane/TsMemory.h>

using Qelvar::Corvane::CTsMemory;

namespace {

void* heap_alloc(unsigned int size)
{
    return std::malloc(size);
}

void heap_free(void* p)
{
    std::free(p);
}

template <void* (*Alloc)(unsigned int), void (*Release)(void*)>
void same_thread(benchmark::State& state)
{
    const auto size = static_cast<unsigned int>(state.range(0));
    CTsMemory::CreateMemPool();
    for (auto _ : state) {
        void* p = Alloc(size);
        benchmark::DoNotOptimize(p);
        Release(p);
    }
    CTsMemory::DestroyThreadMemPool();
}

constexpr int BATCH = 256;

// Single-producer single-consumer ring of block batches, from the allocating thread to the
// freeing one. Handing over whole batches keeps the ring and the thread switches of this
// shared 2-core machine out of the per-block figure.
class CHandoff {
public:
    void** Claim()
    {
        const std::size_t tail = m_tail.load(std::memory_order_relaxed);
        while (tail - m_head.load(std::memory_order_acquire) == SLOTS) std::this_thread::yield();
        return m_batches[tail % SLOTS];
    }
    void Publish() { m_tail.fetch_add(1, std::memory_order_release); }
    void** Take()
    {
        const std::size_t head = m_head.load(std::memory_order_relaxed);
        while (m_tail.load(std::memory_order_acquire) == head) std::this_thread::yield();
        return m_batches[head % SLOTS];
    }
    void Release() { m_head.fetch_add(1, std::memory_order_release); }

private:
    static constexpr std::size_t SLOTS = 16;
    alignas(64) std::atomic<std::size_t> m_head{0};
    alignas(64) std::atomic<std::size_t> m_tail{0};
    void* m_batches[SLOTS][BATCH];
};

CHandoff g_handoff;

// Thread 0 allocates a batch per iteration, thread 1 frees one; both run the same number
// of iterations, so the ring is empty again when a run ends.
template <void* (*Alloc)(unsigned int), void (*Release)(void*)>
void cross_thread(benchmark::State& state)
{
    const auto size = static_cast<unsigned int>(state.range(0));
    CTsMemory::CreateMemPool();
    if (state.thread_index() == 0) {
        for (auto _ : state) {
            void** batch = g_handoff.Claim();
            for (int i = 0; i < BATCH; ++i) batch[i] = Alloc(size);
            g_handoff.Publish();
        }
    } else {
        for (auto _ : state) {
            void** batch = g_handoff.Take();
            for (int i = 0; i < BATCH; ++i) Release(batch[i]);
            g_handoff.Release();
        }
    }
    state.SetItemsProcessed(state.iterations() * BATCH);
    CTsMemory::DestroyThreadMemPool();
}

}  // namespace

BENCHMARK(same_thread<CTsMemory::TsMalloc, CTsMemory::TsFree>)->Name("SameThread/TsMalloc")->Arg(64)->Arg(1500)->Arg(16384);
BENCHMARK(same_thread<CTsMemory::Malloc, CTsMemory::Free>)->Name("SameThread/Malloc")->Arg(64)->Arg(1500)->Arg(16384);
BENCHMARK(same_thread<heap_alloc, heap_free>)->Name("SameThread/malloc")->Arg(64)->Arg(1500)->Arg(16384);

BENCHMARK(cross_thread<CTsMemory::TsMalloc, CTsMemory::TsFree>)->Name("CrossThread/TsMalloc")->Arg(64)->Arg(1500)->Threads(2)->UseRealTime();
BENCHMARK(cross_thread<CTsMemory::Malloc, CTsMemory::Free>)->Name("CrossThread/Malloc")->Arg(64)->Arg(1500)->Threads(2)->UseRealTime();
BENCHMARK(cross_thread<heap_alloc, heap_free>)->Name("CrossThread/malloc")->Arg(64)->Arg(1500)->Threads(2)->UseRealTime();
