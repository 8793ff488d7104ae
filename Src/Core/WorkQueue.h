// The worker queue of a thread pool: a singly linked list of records shared by all of
// the pool's workers. Taking waits while the list is empty, so the list length plays
// the counting semaphore: every record appended lets one waiter go.
#pragma once

#include <condition_variable>
#include <mutex>

#include "Core/Event.h"

namespace Qelvar::Corvane {

class CWorkQueue {
public:
    CWorkQueue() = default;
    CWorkQueue(const CWorkQueue&) = delete;
    CWorkQueue& operator=(const CWorkQueue&) = delete;

    /// Appends the chain head..tail (linked through next) of `count` records and wakes up
    /// to `count` sleeping workers.
    void Append(SEvent* head, SEvent* tail, unsigned int count);
    void Append(SEvent* record) { Append(record, record, 1); }
    /// Appends one record without waking anybody: for a worker that takes the record
    /// itself unless another, already awake, is quicker.
    void AppendQuiet(SEvent* record);

    /// Puts one record ahead of everything waiting.
    void PushFront(SEvent* record);

    /// Waits for a record and takes it; null when Release() let the caller go.
    SEvent* Take();

    /// Lets every waiter return from Take() without a record, now and from then on.
    void Release();

    /// Detaches every waiting record and returns the chain.
    SEvent* Detach();

    /// Number of records waiting.
    unsigned int Size();

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    SEvent* m_head = nullptr;
    SEvent* m_tail = nullptr;
    unsigned int m_size = 0;
    unsigned int m_waiters = 0;
    bool m_released = false;
};

}  // namespace Qelvar::Corvane
