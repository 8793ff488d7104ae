#include "Core/WorkQueue.h"

namespace Qelvar::Corvane {

void CWorkQueue::Append(SEvent* head, SEvent* tail, unsigned int count)
{
    tail->next = nullptr;
    unsigned int waiters;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_tail) m_tail->next = head;
        else m_head = head;
        m_tail = tail;
        m_size += count;
        waiters = m_waiters;
    }
    // Notify outside the lock, and only when a worker sleeps: a busy pool pays no wake-up.
    if (waiters == 0) return;
    if (count == 1 || waiters == 1) m_cv.notify_one();
    else m_cv.notify_all();
}

void CWorkQueue::AppendQuiet(SEvent* record)
{
    record->next = nullptr;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_tail) m_tail->next = record;
    else m_head = record;
    m_tail = record;
    ++m_size;
}

void CWorkQueue::PushFront(SEvent* record)
{
    unsigned int waiters;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        record->next = m_head;
        m_head = record;
        if (!m_tail) m_tail = record;
        ++m_size;
        waiters = m_waiters;
    }
    if (waiters != 0) m_cv.notify_one();
}

SEvent* CWorkQueue::Take()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_head && !m_released) {
        ++m_waiters;
        m_cv.wait(lock);
        --m_waiters;
    }
    SEvent* record = m_head;
    if (!record) return nullptr;
    m_head = record->next;
    if (!m_head) m_tail = nullptr;
    --m_size;
    record->next = nullptr;
    return record;
}

void CWorkQueue::Release()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
    }
    m_cv.notify_all();
}

SEvent* CWorkQueue::Detach()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    SEvent* head = m_head;
    m_head = m_tail = nullptr;
    m_size = 0;
    return head;
}

unsigned int CWorkQueue::Size()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_size;
}

}  // namespace Qelvar::Corvane
