// CStreamReceiverThread: one stream receiver thread and its receivers, and the two groups
// of them that the library starts and stops.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "Fundel/Mutex.h"
#include "Fundel/ThreadLite.h"

namespace Qelvar::Corvane {

class CMediaStreamReceiver;

enum : int {
    RECEIVE_GROUP = 0,  ///< modes 0 and 1, the configured tick
    WRITE_GROUP = 2,    ///< mode 2, a fixed 40 ms tick
};

/// Results of assign besides 0.
enum : int {
    ASSIGN_NOT_STARTED = -1,    ///< the library has not started the threads
    ASSIGN_CREATE_FAILED = -2,  ///< the thread could not be made
};

/// A thread record: the receivers given to one thread, called by it on every tick.
/// Receivers are appended by assign and unlinked only by the thread itself (or by
/// StopGroups once it ended); each holds a reference while it is listed.
class CStreamReceiverThread {
public:
    CStreamReceiverThread(int index, int kind, int count, std::int64_t period);
    CStreamReceiverThread(const CStreamReceiverThread&) = delete;
    CStreamReceiverThread& operator=(const CStreamReceiverThread&) = delete;

    /// Library start: makes both groups' records, `count` each, unless they exist. The
    /// threads start with their first receiver. 0.
    static int StartGroups(int count);
    /// Library stop: ends the threads, releases the receivers left (notify 5) and frees
    /// the records, so that the next start uses the settings of then.
    static void StopGroups();
    /// Gives a new receiver to the least loaded thread of its mode's group, starting the
    /// thread when it was idle. 0, or ASSIGN_NOT_STARTED / ASSIGN_CREATE_FAILED.
    static int assign(CMediaStreamReceiver* receiver);
    static const char* assign_error_text(int err);
    /// Receivers per thread of a group (RECEIVE_GROUP, WRITE_GROUP); empty when stopped.
    static std::vector<int> counts(int kind);

    // Process-wide settings; the priority ones apply to threads started afterwards, the
    // tick period to the next library start.
    static void SetPriority(int priority, int policy, int stack);
    static void SetRcvPriority(int priority);
    static void SetTickPeriod(std::int64_t period_us);
    static void SetTrace(int on) { sm_trace.store(on, std::memory_order_relaxed); }
    static int GetTrace() { return sm_trace.load(std::memory_order_relaxed); }

private:
    /// The tick base of a (re)start: `now` rounded down to 100 ms, plus this thread's
    /// share of the period.
    std::int64_t tick_base(std::int64_t now) const;
    /// Appends under the lock and starts the thread when it has no run under way.
    int append(CMediaStreamReceiver* receiver);
    void run();
    /// One tick over the list; false when the last receiver is gone.
    bool pass();
    /// Unlinks the closed receivers after `prev` (the head when null) into `reaped`.
    void unlink_closed(CMediaStreamReceiver* prev, CMediaStreamReceiver*& reaped);
    static void release(CMediaStreamReceiver* reaped);

    std::int64_t m_tick_base = 0;
    const int m_index;
    const int m_kind;
    const int m_count;
    std::int64_t m_tick_count = 0;
    const std::int64_t m_period;
    CMediaStreamReceiver* m_head = nullptr;
    CMediaStreamReceiver* m_tail = nullptr;
    int m_number = 0;
    bool m_ending = false;  ///< the thread saw its list empty and is on its way out
    Fundel::CMutex m_mutex;
    Fundel::CThreadLite m_thread;

    static std::atomic<int> sm_priority;
    static std::atomic<int> sm_policy;
    static std::atomic<int> sm_stack;
    static std::atomic<std::int64_t> sm_tick_period;
    static std::atomic<int> sm_trace;
};

}  // namespace Qelvar::Corvane
