// The handler timers: one process-wide min-heap of timer records ordered by due time and
// one thread, "Timer_Thread", that moves due timers into the worker queues of their
// owners' pools, where a worker calls the owner's handle_timeout.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "Core/Event.h"
#include "Core/MinHeap.h"
#include "Fundel/Semaphore.h"
#include "Fundel/ThreadLite.h"

namespace Qelvar::Corvane {

class CNetTimer {
public:
    static constexpr std::uint64_t kMinInterval = 3000;         ///< 3 ms
    static constexpr std::uint64_t kMaxInterval = 86400000000;  ///< 24 h
    static constexpr std::uint64_t kEarly = 2000;               ///< every timer is due 2 ms early
    static constexpr std::uint64_t kPopAhead = 1000;            ///< a pass fires what is due within 1 ms
    static constexpr unsigned int kPassSleepMs = 5;

    /// The process-wide instance (never destroyed).
    static CNetTimer& Instance();

    /// Starts "Timer_Thread" over `heap`. 0, or -1 (logged).
    int Init(CMinHeap* heap);

    /// Stops the thread and frees every pending timer.
    void Shutdown();

    /// Starts a timer of `interval_us` for the object `owner_id`; the timer id, or -1.
    std::int64_t SetTimer(std::int64_t owner_id, long long interval_us);

    /// Stops and frees a timer. One already on its way to a worker still fires once but
    /// is not re-armed.
    void DestroyTimer(std::int64_t timer_id);

    /// Fires a timer record taken from a worker queue, then re-arms or frees it.
    void Fire(SEvent* record);

    /// Frees a timer record that will not fire (its pool is gone).
    void Discard(SEvent* record);

    /// Frees the pending timers of pool `index` (the pool is being destroyed).
    void PurgePool(int index);

private:
    CNetTimer() = default;
    void thread_loop();
    void dispatch_due();
    /// Clamps the interval and inserts the record due `interval - 2 ms` from now.
    /// The timer mutex is held.
    void arm(SEvent* record, std::uint64_t interval);
    void free_timer(SEvent* record, bool return_id);

    // Order: m_mutex, then the heap's own mutex.
    std::mutex m_mutex;
    CMinHeap* m_heap = nullptr;
    std::atomic<std::uint64_t> m_next_due{0};  ///< due time of the heap's top; 0 when idle
    /// Timers taken from the heap and not yet fired: id -> destroyed while in flight.
    std::unordered_map<std::int64_t, bool> m_in_flight;
    Fundel::CSemaphore m_sem;
    Fundel::CThreadLite m_thread;
};

}  // namespace Qelvar::Corvane
