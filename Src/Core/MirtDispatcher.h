// The dispatcher of the reliable-UDP transport: its sockets (descriptors at or above the
// transport's base) cannot go into the system poller, so one thread, "Mirt_IoDispatcher",
// waits on the transport's own epoll set and feeds readiness into the same record flow
// as the pools' pollers: a ready record is marked, taken out of the set, and appended to
// its owner pool's worker queue. The registry puts it back (EpollModify) once its
// callback returned, so no two threads handle one socket at a time.
#pragma once

#include <atomic>
#include <mutex>

#include "Core/Event.h"
#include "Fundel/Semaphore.h"
#include "Fundel/ThreadLite.h"
#include "Mirt/Mirt.h"

namespace Qelvar::Corvane {

class CMirtIoCollecter {
public:
    /// The process's dispatcher (never destroyed).
    static CMirtIoCollecter& Instance();

    /// True for a descriptor of the reliable-UDP transport.
    static bool owns(long long fd);

    /// Creates the epoll set and starts the thread. 0; -1 (logged) when either fails. A
    /// second Init does nothing.
    int Init();
    /// Stops the thread and releases the epoll set; the records still registered stay
    /// the registry's.
    void Shutdown();

    // The registry holds the record's lock in the calls below.

    /// Files a new registration under its descriptor and puts it into the epoll set. A
    /// descriptor filed already is refused (logged), the first record kept. 0 or -1.
    int Add(SEvent* ev);
    /// Puts the record into the set with the interest of its mask (after its callback,
    /// or when the mask changed). 0 or -1.
    int EpollModify(SEvent* ev);
    /// Takes the record out of the set (a time-out of it is handled).
    void EpollRemove(SEvent* ev);
    /// Takes the record out of the set and forgets it.
    void Remove(SEvent* ev);

    /// Sockets in the epoll set now.
    long long SocketCount() const { return m_count.load(); }

private:
    static constexpr int kBuckets = 32;
    static constexpr int kWaitMax = 512;

    CMirtIoCollecter() = default;
    int epoll_add(SEvent* ev);
    void thread_proc();
    void dispatch(const Mirt::SMirtEvent& ready);
    // Adds `n` to the socket count and wakes the thread when the count becomes `wake_at`.
    void count_added(long long n, long long wake_at);

    int m_epid = -1;
    Mirt::SMirtEvent m_events[kWaitMax] = {};
    Fundel::CSemaphore m_wake;
    std::atomic<long long> m_count{0};
    std::mutex m_bucket_mutex;
    SEvent* m_buckets[kBuckets] = {};
    Fundel::CThreadLite m_thread;
    bool m_initialised = false;
};

}  // namespace Qelvar::Corvane
