#include "Core/Multiplexer.h"

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"

namespace Qelvar::Corvane {

int CMultiplexer::Init(int timeout_ms)
{
    if (m_poller.Open() != 0) {
        char text[256];
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p pool %d: poller open failed, error:%d, %s\n", static_cast<void*>(this),
                m_pool_index, err, Platform::error_text(err, text, sizeof text));
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s :CreatePipe failed!\n", static_cast<void*>(this), "CMultiplexer::Init");
        return -1;
    }
    if (timeout_ms > 0) {
        const long long us = static_cast<long long>(timeout_ms) * 1000;
        m_timeout_sec = static_cast<int>(us / 1000000);
        m_timeout_usec = static_cast<int>(us % 1000000);
    } else if (timeout_ms == 0) {
        m_timeout_sec = 0;  // both 0: wait without limit
        m_timeout_usec = 0;
    } else {
        m_timeout_sec = 0;
        m_timeout_usec = 500000;
    }
    return 0;
}

long long CMultiplexer::TimeoutMicroseconds() const
{
    if (m_timeout_sec == 0 && m_timeout_usec == 0) return -1;
    return static_cast<long long>(m_timeout_sec) * 1000000 + m_timeout_usec;
}

void CMultiplexer::Wait()
{
    Platform::SPollReady ready[64];
    const int n = m_poller.Wait(TimeoutMicroseconds(), ready, 64);
    if (n < 0) {
        const int err = Platform::last_error();
        if (!Platform::is_interrupted(err)) {
            char text[256];
            CVN_LOG(Fundel::LOG_ERROR, "this:%p select failed!%d,%s\n", static_cast<void*>(this), err,
                    Platform::error_text(err, text, sizeof text));
        }
        return;
    }
    // Ready descriptors are handed to the pool's workers by the socket registry, which
    // maps each one to its record; until sockets register, only wake-ups and the
    // time-out end a wait.
}

}  // namespace Qelvar::Corvane
