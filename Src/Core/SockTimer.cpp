#include "Core/SockTimer.h"

#include "Core/SockTrace.h"
#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

CSockTimer& CSockTimer::Instance()
{
    static CSockTimer* instance = new CSockTimer;
    return *instance;
}

int CSockTimer::Init()
{
    if (m_thread.Create("Sock_Timer_Thread", [this] { thread_loop(); }) != 0) {
        CVN_LOG(Fundel::LOG_ERROR, "CSockTimer::Init, thread %p createThread failed!\n", static_cast<void*>(&m_thread));
        return -1;
    }
    return 0;
}

void CSockTimer::Shutdown()
{
    m_thread.Cancel();
    m_sem.Post();
    m_thread.Join();
}

void CSockTimer::link(SEvent* ev)
{
    ev->timer.m_prev = nullptr;
    ev->timer.m_next = m_head;
    if (m_head) m_head->timer.m_prev = ev;
    m_head = ev;
}

void CSockTimer::unlink(SEvent* ev)
{
    if (!linked(ev)) return;
    if (ev->timer.m_prev) ev->timer.m_prev->timer.m_next = ev->timer.m_next;
    else m_head = ev->timer.m_next;
    if (ev->timer.m_next) ev->timer.m_next->timer.m_prev = ev->timer.m_prev;
    ev->timer.m_prev = nullptr;
    ev->timer.m_next = nullptr;
}

void CSockTimer::Add(SEvent* ev, int time_out_ms)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ev->timer.m_set_time = time_out_ms;
    // One extra tick: the time-out never fires early, whatever the phase of the tick.
    ev->timer.m_time_out = m_tick + time_out_ms + kTickMs;
    ev->timer.m_self = ev;
    CVN_SOCK_TRACE(ev->m_key, ev->obj_id,
                   "<Corvane Debug>CSockTimer::Add SEvent: obj-id:%lld, event_mask:%u, revents:%u, set_time:%d, "
                   "time_out:%lld, container:%p\n",
                   static_cast<long long>(ev->obj_id), ev->socket.m_event_mask,
                   static_cast<unsigned int>(ev->socket.m_revents), ev->timer.m_set_time,
                   static_cast<long long>(ev->timer.m_time_out), static_cast<void*>(ev));
    unlink(ev);
    link(ev);
}

void CSockTimer::Reset(SEvent* ev, int time_out_ms)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ev->timer.m_set_time = time_out_ms;
    ev->timer.m_time_out = m_tick + time_out_ms + kTickMs;
    CVN_SOCK_TRACE(ev->m_key, ev->obj_id,
                   "<Corvane Debug>CSockTimer::Reset SEvent: obj-id:%lld, event_mask:%u, revents:%u, set_time:%d, "
                   "time_out:%lld, container:%p\n",
                   static_cast<long long>(ev->obj_id), ev->socket.m_event_mask,
                   static_cast<unsigned int>(ev->socket.m_revents), ev->timer.m_set_time,
                   static_cast<long long>(ev->timer.m_time_out), static_cast<void*>(ev));
}

void CSockTimer::Delete(SEvent* ev)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    CVN_SOCK_TRACE(ev->m_key, ev->obj_id,
                   "<Corvane Debug>CSockTimer::Delete SEvent: obj-id:%lld, event_mask:%u, revents:%u, set_time:%d, "
                   "time_out:%lld, container:%p\n",
                   static_cast<long long>(ev->obj_id), ev->socket.m_event_mask,
                   static_cast<unsigned int>(ev->socket.m_revents), ev->timer.m_set_time,
                   static_cast<long long>(ev->timer.m_time_out), static_cast<void*>(ev));
    unlink(ev);
    ev->timer.m_time_out = 0;
}

bool CSockTimer::IsArmed(const SEvent* ev)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return linked(ev);
}

void CSockTimer::Rearm(SEvent* ev, int time_out_ms)
{
    if (time_out_ms < 1) {
        if (IsArmed(ev)) Delete(ev);
    } else if (IsArmed(ev)) {
        Reset(ev, time_out_ms);
    } else {
        Add(ev, time_out_ms);
    }
}

void CSockTimer::thread_loop()
{
    while (m_thread.IsLooping()) {
        m_sem.TimedWait(kTickMs);
        if (!m_thread.IsLooping()) break;
        std::int64_t tick;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_tick += kTickMs;
            tick = m_tick;
        }
        expire(tick);
    }
}

void CSockTimer::expire(std::int64_t tick)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (SEvent* ev = m_head; ev;) {
        SEvent* next = ev->timer.m_next;
        // A record busy with another thread waits for the next tick.
        if (!ev->m_mutex.TryEnter()) {
            ev = next;
            continue;
        }
        // Fired on the first tick after its expiry: the expiry already holds one extra
        // tick, and the tick in progress when it was set may have begun up to 500 ms
        // before, so a time-out of t fires between t + 500 and t + 1000 ms after it was
        // set, never early.
        const std::int64_t due = ev->timer.m_time_out;
        if (due < 1 || due >= tick) {
            ev->m_mutex.Leave();
            ev = next;
            continue;
        }
        if (ev->m_evready == 1) {
            CVN_LOG(Fundel::LOG_ERROR, "this:%p event already in queue, key:%lld obj:%lld\n", static_cast<void*>(ev),
                    static_cast<long long>(ev->m_key), static_cast<long long>(ev->obj_id));
            ev->m_mutex.Leave();
            ev = next;
            continue;
        }
        // The pool's guard is only tried as well: a pool being made or destroyed must not
        // wait for this list, which its registrations lock after the guard. A pool that
        // is gone frees the record itself.
        std::shared_lock<Fundel::CReadWriteMutex> guard;
        CThreadPool* pool = CThreadPool::try_acquire(CThreadPool::pool_of(ev->obj_id), guard);
        if (!pool) {
            ev->m_mutex.Leave();
            ev = next;
            continue;
        }
        ev->m_evready = 1;
        const std::uint32_t mask = ev->socket.m_event_mask;
        ev->socket.m_revents = (mask & MASK_READ)    ? QV_POLLIN_TIMEOUT
                               : (mask & MASK_WRITE) ? QV_POLLOUT_TIMEOUT
                                                     : QV_NOPOLL;
        unlink(ev);
        ev->next = nullptr;
        pool->post_timeout(ev);
        ev->m_mutex.Leave();
        ev = next;
    }
}

}  // namespace Qelvar::Corvane
