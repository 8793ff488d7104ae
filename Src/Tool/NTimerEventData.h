// SNTimerEventData: a timer event's link and state, shared with its CNTimer.
#pragma once

#include <atomic>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

class CNTimerEvent;

enum : int {
    TIMER_EVENT_CLOSED = 0,
    TIMER_EVENT_NEW = 1,
    TIMER_EVENT_READY = 2,
    TIMER_EVENT_RUNNING = 3,
    TIMER_EVENT_STOPPED = 4,
    TIMER_EVENT_CLOSING = 5,
};

struct SNTimerEventData {
    Fundel::CMutex m_mutex;
    CNTimerEvent* m_next = nullptr;  ///< guarded by the timer's lock
    /// Atomic: Close writes the final 0 without the lock, and the reaper reads it under
    /// the timer's lock only.
    std::atomic<int> m_state{TIMER_EVENT_NEW};
};

}  // namespace Qelvar::Corvane
