// The network timer's heap of handler timers, ordered by due time.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Core/Event.h"
#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

/// Binary min-heap of timer records keyed by SEvent::m_due (smallest at index 0, the
/// children of i at 2i+1 and 2i+2). Every operation takes the heap's own mutex. The heap
/// does not own the records.
class CMinHeap {
public:
    CMinHeap();
    ~CMinHeap();
    CMinHeap(const CMinHeap&) = delete;
    CMinHeap& operator=(const CMinHeap&) = delete;

    /// Adds `ev`; returns its due time when it became the top, else 0.
    std::uint64_t Insert(SEvent* ev);
    /// Due time of the top record, 0 when the heap is empty.
    std::uint64_t Top() const;
    /// Removes and returns the top record when it is due at or before `limit`, else null.
    SEvent* PopDue(std::uint64_t limit);
    /// Removes and returns the record whose m_key is `timer_id`, null when there is none.
    /// A linear scan: timers are destroyed far less often than they fire.
    SEvent* RemoveById(std::int64_t timer_id);
    /// Moves every record matching `pred` to `removed`, e.g. the timers of a destroyed pool.
    void RemoveIf(const std::function<bool(const SEvent&)>& pred, std::vector<SEvent*>& removed);
    int Size() const;

private:
    SEvent* remove_at(int i);
    void sift_up(int i);
    void sift_down(int i);

    mutable Fundel::CMutex m_mutex;
    int m_size = 0;
    int m_capacity;
    SEvent** m_heap;
};

}  // namespace Qelvar::Corvane
