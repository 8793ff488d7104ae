// Recycler of the queue records: all queue traffic reuses SEvent records, so the steady
// state allocates nothing.
#pragma once

#include <cstdint>
#include <string>

#include "Core/Event.h"
#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

/// A free list of SEvent records under one mutex. It grows without limit under load and,
/// once 10001 records have been made, shrinks by a thousand at a time while at least
/// 1001 are free, so it never drops below a thousand free records.
class CReclaimPool {
public:
    CReclaimPool() = default;
    /// Destroys the free records; records still taken are their holders'.
    ~CReclaimPool();
    CReclaimPool(const CReclaimPool&) = delete;
    CReclaimPool& operator=(const CReclaimPool&) = delete;

    /// A cleared record (kind EVENT_FREE, next null): the last one given back, else a new
    /// one. Null only when the heap is exhausted.
    SEvent* Take();
    /// Clears `ev` (all but its mutex) and keeps it for the next Take.
    void GiveBack(SEvent* ev);

    /// Records made and not destroyed since.
    std::int64_t Created() const;
    /// Records in the free list.
    std::int64_t Free() const;
    /// Destroys every free record; used at library teardown.
    void ReleaseFree();
    /// One line per free record: address, kind, owner id and busy flag.
    std::string Dump() const;

    /// The process-wide pool. It is never destroyed: threads may still give records
    /// back while the process exits.
    static CReclaimPool& sm_reclaim_pool;

private:
    mutable Fundel::CMutex m_mutex;
    SEvent* m_free = nullptr;
    std::int64_t m_created = 0;
    std::int64_t m_free_count = 0;
};

}  // namespace Qelvar::Corvane
