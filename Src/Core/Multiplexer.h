// The poller of a thread pool. It has no thread of its own: the worker that takes the
// pool's poll token calls Wait() once and puts the token back, so at most one wait runs
// per pool and polling and handling alternate among the workers.
#pragma once

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

    /// One pass: waits for readiness, a wake-up or the time-out.
    void Wait();

    /// Ends the current or next Wait() early (at shutdown: a worker may be in it).
    void Wake() { m_poller.Wake(); }

    /// The wait's time-out in microseconds; negative for none.
    long long TimeoutMicroseconds() const;

private:
    Platform::CPoller m_poller;
    int m_timeout_sec = 0;
    int m_timeout_usec = 0;
    int m_pool_index;
};

}  // namespace Qelvar::Corvane
