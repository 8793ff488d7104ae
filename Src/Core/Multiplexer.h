// The poller of a thread pool. It has no thread of its own: the worker that takes the
// pool's poll token calls Wait() once and puts the token back, so at most one wait runs
// per pool and polling and handling alternate among the workers.
//
// A socket handed to a worker is not handed again until its callback has returned and
// the registry puts it back (Rearm), so no two threads handle one socket's events at
// once. On Windows it leaves the select sets when reported. On Linux it stays armed in
// the kernel (level-triggered), and only if the kernel reports it again while it is
// being handled is it disarmed then: a socket handled before the next poll, the common
// case, costs no system call to take out and put back. Descriptors of the reliable-UDP
// transport go to its dispatcher instead.
#pragma once

#include "Core/BTree.h"
#include "Core/Event.h"
#include "Core/WorkQueue.h"
#include "Platform/Poller.h"

namespace Qelvar::Corvane {

class CMultiplexer {
public:
    explicit CMultiplexer(int pool_index) : m_pool_index(pool_index) {}
    CMultiplexer(const CMultiplexer&) = delete;
    CMultiplexer& operator=(const CMultiplexer&) = delete;

    /// Creates the system poller and its wake-up descriptor and fixes the wait's
    /// time-out from `timeout_ms`: positive as given, 0 without limit, negative 500 ms.
    /// 0, or -1 when the poller cannot be made.
    int Init(int timeout_ms);

    // The caller holds the record's lock in the four calls below.

    /// Starts watching a new registration for the interest of its mask. 0 or -1.
    int Add(SEvent* ev);
    /// Puts a record back with the interest of its current mask (after its callback, or
    /// when the mask changed while it was idle). 0 or -1.
    int Rearm(SEvent* ev);
    /// Takes a record out while a time-out of it is handled.
    void Disarm(SEvent* ev);
    /// Stops watching a record.
    void Remove(SEvent* ev);

    /// One pass: waits for readiness, a wake-up or the time-out. The first ready record of
    /// `sockets` is returned for the calling worker to handle itself; the others go to
    /// `queue`, waking workers for them. Null when nothing is ready.
    SEvent* Wait(CBTree<SEvent>& sockets, CWorkQueue& queue);

    /// Ends the current or next Wait() early (at shutdown: a worker may be in it).
    void Wake() { m_poller.Wake(); }

    /// The wait's time-out in microseconds; negative for none.
    long long TimeoutMicroseconds() const;

private:
    static constexpr int kReadyMax = 256;

    int watch(SEvent* ev, bool first);
    void disarm(SEvent* ev);
    bool hand(SEvent* ev, unsigned int events);

    Platform::CPoller m_poller;
    bool m_disarms_on_report = true;
    int m_timeout_sec = 0;
    int m_timeout_usec = 0;
    int m_pool_index;
};

}  // namespace Qelvar::Corvane
