#include "Core/NetTimer.h"

#include <vector>

#include <Corvane/NetHandler.h>

#include "Core/ConsoleHooks.h"
#include "Core/CurrentObject.h"
#include "Core/ReclaimPool.h"
#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"
#include "Platform/Thread.h"

namespace Qelvar::Corvane {

CNetTimer& CNetTimer::Instance()
{
    static CNetTimer* instance = new CNetTimer;
    return *instance;
}

int CNetTimer::Init(CMinHeap* heap)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_heap = heap;
        m_next_due.store(0);
    }
    if (m_thread.Create("Timer_Thread", [this] { thread_loop(); }) != 0) {
        CVN_LOG(Fundel::LOG_ERROR, "CNetTimer::Init, thread %p createThread failed!\n", static_cast<void*>(&m_thread));
        std::lock_guard<std::mutex> lock(m_mutex);
        m_heap = nullptr;
        return -1;
    }
    return 0;
}

void CNetTimer::Shutdown()
{
    m_thread.Cancel();
    m_sem.Post();
    m_thread.Join();
    std::vector<SEvent*> pending;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_heap) m_heap->RemoveIf([](const SEvent&) { return true; }, pending);
        m_heap = nullptr;
        m_next_due.store(0);
        m_in_flight.clear();
    }
    for (SEvent* r : pending) CReclaimPool::sm_reclaim_pool.GiveBack(r);
}

void CNetTimer::arm(SEvent* record, std::uint64_t interval)
{
    if (interval < kMinInterval) {
        interval = kMinInterval;
    } else if (interval > kMaxInterval) {
        interval = kMaxInterval;
        CVN_LOG(Fundel::LOG_WARN, "Set timer's value is too big,it will be reduce to 24h.\n");
    }
    record->m_interval = interval;
    record->m_due = static_cast<std::uint64_t>(Fundel::CTime::getCurrentMicroSecond()) + interval - kEarly;
    const std::uint64_t top = m_heap->Insert(record);
    if (top != 0) {
        // The thread sleeps on the semaphore only while nothing is pending.
        if (m_next_due.exchange(top) == 0) m_sem.Post();
    }
}

std::int64_t CNetTimer::SetTimer(std::int64_t owner_id, long long interval_us)
{
    const std::int64_t id = CThreadPool::new_id(CThreadPool::pool_of(owner_id));
    if (id == 0) return -1;
    SEvent* record = CReclaimPool::sm_reclaim_pool.Take();
    record->m_key = id;
    record->obj_id = owner_id;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_heap) {
        CReclaimPool::sm_reclaim_pool.GiveBack(record);
        return -1;
    }
    arm(record, interval_us < 0 ? 0 : static_cast<std::uint64_t>(interval_us));
    return id;
}

void CNetTimer::DestroyTimer(std::int64_t timer_id)
{
    if (timer_id >= EVENT_TIMER_LIMIT) return;
    SEvent* record = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_heap) return;
        record = m_heap->RemoveById(timer_id);
        if (!record) {
            auto it = m_in_flight.find(timer_id);
            if (it != m_in_flight.end()) it->second = true;
            return;
        }
    }
    free_timer(record, true);
}

void CNetTimer::free_timer(SEvent* record, bool return_id)
{
    if (return_id) CThreadPool::put_id(record->m_key);
    CReclaimPool::sm_reclaim_pool.GiveBack(record);
}

void CNetTimer::thread_loop()
{
    while (m_thread.IsLooping()) {
        while (m_next_due.load() != 0 && m_thread.IsLooping()) {
            const auto now = static_cast<std::uint64_t>(Fundel::CTime::getCurrentMicroSecond());
            if (m_next_due.load() <= now) dispatch_due();
            Platform::sleep_ms(kPassSleepMs);
        }
        m_sem.Wait();
    }
}

// Pops everything due within the next millisecond, batched per pool, and appends each
// batch to its pool's worker queue as one chain. Within a batch the timers come in the
// reverse order of expiry: each record is pushed at the front of its batch.
void CNetTimer::dispatch_due()
{
    struct SBatch {
        SEvent* head = nullptr;
        SEvent* tail = nullptr;
        unsigned int count = 0;
    };
    SBatch batches[CThreadPool::kMaxPools];
    int order[CThreadPool::kMaxPools];
    int pools = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_heap) return;
        const auto limit = static_cast<std::uint64_t>(Fundel::CTime::getCurrentMicroSecond()) + kPopAhead;
        while (SEvent* record = m_heap->PopDue(limit)) {
            m_in_flight[record->m_key] = false;
            const int index = CThreadPool::pool_of(record->obj_id);
            SBatch& batch = batches[index];
            if (batch.count == 0) {
                order[pools++] = index;
                batch.tail = record;
                record->next = nullptr;
            } else {
                record->next = batch.head;
            }
            batch.head = record;
            ++batch.count;
        }
    }
    for (int i = 0; i < pools; ++i) {
        SBatch& batch = batches[order[i]];
        if (CThreadPool::post(order[i], batch.head, batch.tail, batch.count)) continue;
        for (SEvent* r = batch.head; r;) {
            SEvent* next = r->next;
            Discard(r);
            r = next;
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_heap) m_next_due.store(m_heap->Top());
}

void CNetTimer::Fire(SEvent* record)
{
    const std::int64_t id = record->m_key;
    long long result = -1;
    SHandlerState* state = CThreadPool::find_object(record->obj_id);
    if (state) {
        CNetHandler* owner = state->m_owner;
        const bool traced = CConsoleHooks::Tracing();
        if (traced) CConsoleHooks::TraceDelivery(owner, true, nullptr, 0);
        CCurrentObject::Set(owner, record->obj_id);
        result = owner->handle_timeout(static_cast<long>(id));
        CCurrentObject::Clear();
        if (traced) CConsoleHooks::TraceDelivery(owner, false, nullptr, 0);
        owner->DecRef();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_in_flight.find(id);
        const bool destroyed = it == m_in_flight.end() || it->second;
        if (it != m_in_flight.end()) m_in_flight.erase(it);
        if (state && result >= 0 && !destroyed && m_heap) {
            arm(record, result > 0 ? static_cast<std::uint64_t>(result) : record->m_interval);
            return;
        }
    }
    free_timer(record, true);
}

void CNetTimer::Discard(SEvent* record)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_in_flight.erase(record->m_key);
    }
    free_timer(record, false);
}

void CNetTimer::PurgePool(int index)
{
    std::vector<SEvent*> removed;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_heap) return;
        m_heap->RemoveIf([index](const SEvent& r) { return CThreadPool::pool_of(r.obj_id) == index; }, removed);
        m_next_due.store(m_heap->Top());
    }
    for (SEvent* r : removed) free_timer(r, false);
}

}  // namespace Qelvar::Corvane
