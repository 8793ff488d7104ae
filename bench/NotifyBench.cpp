// Messages by object id: post-to-delivery latency from an outside thread, and the rate
// of ping-pong rallies between two handlers in one pool and across two pools.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <Corvane/NetHandler.h>
#include <Corvane/NetThread.h>

namespace {

using Qelvar::Corvane::CNetHandler;
using Qelvar::Corvane::CNetThread;
using Clock = std::chrono::steady_clock;

std::int64_t now_ns()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

/// Records when each message arrives.
class Receiver : public CNetHandler {
public:
    explicit Receiver(int pool) : CNetHandler(pool) {}
    using CNetHandler::Notify;

    int handle_message(long, unsigned int, long) override
    {
        m_delivered_ns.store(now_ns(), std::memory_order_relaxed);
        m_count.fetch_add(1, std::memory_order_release);
        m_count.notify_one();
        return 0;
    }
    int handle_close(CNetHandler*) override
    {
        m_released.store(true, std::memory_order_release);
        return 0;
    }

    std::atomic<long> m_count{0};
    std::atomic<std::int64_t> m_delivered_ns{0};
    std::atomic<bool> m_released{false};
};

/// Returns each ball to its sender until its count runs out.
class Player : public CNetHandler {
public:
    explicit Player(int pool) : CNetHandler(pool) {}
    using CNetHandler::Notify;

    int handle_message(long from, unsigned int, long left) override
    {
        m_hits.fetch_add(1, std::memory_order_relaxed);
        if (left > 0) Notify(from, 1, left - 1);
        else m_finished.fetch_add(1, std::memory_order_release);
        return 0;
    }
    int handle_close(CNetHandler*) override
    {
        m_released.store(true, std::memory_order_release);
        return 0;
    }

    std::atomic<long> m_hits{0};
    std::atomic<long> m_finished{0};
    std::atomic<bool> m_released{false};
};

template <class T>
void close_and_wait(T& h)
{
    h.Close();
    while (!h.m_released.load(std::memory_order_acquire)) std::this_thread::yield();
}

// From Notify on an outside thread to the start of handle_message, with the pool's
// workers asleep (a pause before each post lets them settle). The posting thread sleeps
// until the delivery instead of spinning, so that it takes no processor from the worker.
void BM_PostToDelivery(benchmark::State& state)
{
    CNetThread::CreateThreadPool(0x80000002u);
    {
        Receiver sender(0), receiver(0);
        long expected = 0;
        for (auto _ : state) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            const std::int64_t posted = now_ns();
            sender.Notify(receiver.GetID(), 1, 0);
            ++expected;
            for (long seen = receiver.m_count.load(std::memory_order_acquire); seen < expected;
                 seen = receiver.m_count.load(std::memory_order_acquire)) {
                receiver.m_count.wait(seen, std::memory_order_acquire);
            }
            state.SetIterationTime(static_cast<double>(receiver.m_delivered_ns.load() - posted) * 1e-9);
        }
        close_and_wait(sender);
        close_and_wait(receiver);
    }
    CNetThread::DestroyThreadPool();
}
BENCHMARK(BM_PostToDelivery)->UseManualTime();

// state.range(0): concurrent balls; state.range(1): 1 when the players are in two pools.
void BM_Rally(benchmark::State& state)
{
    const long balls = state.range(0);
    const bool across = state.range(1) != 0;
    constexpr long kHitsPerBall = 2000;
    CNetThread::CreateThreadPool(1);
    const int other = across ? CNetThread::CreatePrivatePool(1) : 0;
    {
        Player a(0), b(other);
        long served = 0;
        for (auto _ : state) {
            for (long i = 0; i < balls; ++i) a.Notify(b.GetID(), 1, kHitsPerBall - 1);
            served += balls;
            while (a.m_finished.load(std::memory_order_acquire) + b.m_finished.load(std::memory_order_acquire) <
                   served) {
                std::this_thread::yield();
            }
        }
        state.SetItemsProcessed(a.m_hits.load() + b.m_hits.load());
        close_and_wait(a);
        close_and_wait(b);
    }
    if (across) CNetThread::DestroyPrivatePool(other);
    CNetThread::DestroyThreadPool();
}
BENCHMARK(BM_Rally)
    ->ArgNames({"balls", "across"})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({16, 0})
    ->Args({16, 1})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
