#include "Core/ReclaimPool.h"

#include <cstdio>
#include <mutex>
#include <new>

namespace Qelvar::Corvane {

namespace {

constexpr std::int64_t SHRINK_CREATED = 10001;  // the pool has seen real load
constexpr std::int64_t SHRINK_FREE = 1001;      // and is now mostly idle
constexpr std::int64_t SHRINK_STEP = 1000;

// The destructor is never run, so records given back during process exit stay valid.
alignas(CReclaimPool) unsigned char g_reclaim_storage[sizeof(CReclaimPool)];

void destroy_chain(SEvent* ev)
{
    while (ev) {
        SEvent* next = ev->next;
        delete ev;
        ev = next;
    }
}

}  // namespace

CReclaimPool& CReclaimPool::sm_reclaim_pool = *new (g_reclaim_storage) CReclaimPool;

CReclaimPool::~CReclaimPool()
{
    destroy_chain(m_free);
}

SEvent* CReclaimPool::Take()
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        if (SEvent* ev = m_free) {
            m_free = ev->next;
            --m_free_count;
            ev->next = nullptr;
            return ev;
        }
    }
    SEvent* ev = new (std::nothrow) SEvent;
    if (ev) {
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        ++m_created;
    }
    return ev;
}

void CReclaimPool::GiveBack(SEvent* ev)
{
    ev->Reset();
    SEvent* surplus = nullptr;
    {
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        if (m_created >= SHRINK_CREATED && m_free_count >= SHRINK_FREE) {
            // Cut the first thousand off the list; they are destroyed outside the lock.
            surplus = m_free;
            SEvent* last = m_free;
            for (std::int64_t i = 1; i < SHRINK_STEP; ++i) last = last->next;
            m_free = last->next;
            last->next = nullptr;
            m_created -= SHRINK_STEP;
            m_free_count -= SHRINK_STEP;
        }
        ev->next = m_free;
        m_free = ev;
        ++m_free_count;
    }
    destroy_chain(surplus);
}

std::int64_t CReclaimPool::Created() const
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_created;
}

std::int64_t CReclaimPool::Free() const
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_free_count;
}

void CReclaimPool::ReleaseFree()
{
    SEvent* chain = nullptr;
    {
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        chain = m_free;
        m_free = nullptr;
        m_created -= m_free_count;
        m_free_count = 0;
    }
    destroy_chain(chain);
}

std::string CReclaimPool::Dump() const
{
    std::string out;
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    for (const SEvent* ev = m_free; ev; ev = ev->next) {
        char line[160];
        std::snprintf(line, sizeof line, "%p(%lld)->, event->obj_id:[%lld],  event->evready:[%u]\n",
                      static_cast<const void*>(ev), static_cast<long long>(ev->m_key),
                      static_cast<long long>(ev->obj_id), static_cast<unsigned>(ev->m_evready));
        out += line;
    }
    return out;
}

}  // namespace Qelvar::Corvane
