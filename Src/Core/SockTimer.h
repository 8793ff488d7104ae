// The socket time-outs: one process-wide list of armed socket records, unsorted, and
// one thread, "Sock_Timer_Thread", that ticks every 500 ms and hands the expired ones
// to their pools' workers as time-out events. A time-out therefore fires between t + 500
// and t + 1000 ms after it was set; it is never early.
#pragma once

#include <cstdint>
#include <mutex>

#include "Core/Event.h"
#include "Fundel/Semaphore.h"
#include "Fundel/ThreadLite.h"

namespace Qelvar::Corvane {

class CSockTimer {
public:
    static constexpr int kTickMs = 500;

    /// The process-wide instance (never destroyed).
    static CSockTimer& Instance();

    /// Starts "Sock_Timer_Thread". 0, or -1 (logged).
    int Init();
    /// Stops the thread; armed records stay linked for their owners to delete.
    void Shutdown();

    // The caller holds the record's lock in every call below.

    /// Arms an unarmed record with `time_out_ms`.
    void Add(SEvent* ev, int time_out_ms);
    /// Sets a new time-out on an armed record.
    void Reset(SEvent* ev, int time_out_ms);
    /// Unlinks an armed record (nothing for an unarmed one).
    void Delete(SEvent* ev);
    /// True when the record is linked in the list.
    bool IsArmed(const SEvent* ev);
    /// Keeps the record linked but stops its clock (it is being handled).
    void Suspend(SEvent* ev) { ev->timer.m_time_out = 0; }
    /// Below 1 deletes an armed time-out; otherwise resets an armed one or adds one.
    void Rearm(SEvent* ev, int time_out_ms);

private:
    CSockTimer() = default;
    void thread_loop();
    void expire(std::int64_t tick);
    void link(SEvent* ev);
    void unlink(SEvent* ev);
    bool linked(const SEvent* ev) const { return ev->timer.m_prev || ev->timer.m_next || m_head == ev; }

    // Order: list, then record — a record is only try-locked while the list is held,
    // because the registry locks a record and then the list.
    std::mutex m_mutex;
    SEvent* m_head = nullptr;
    std::int64_t m_tick = 0;  ///< milliseconds; advanced by the thread only
    Fundel::CSemaphore m_sem;
    Fundel::CThreadLite m_thread;
};

}  // namespace Qelvar::Corvane
