// A named one-shot or periodic callback on a thread of its own.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

#include "Fundel/ThreadLite.h"

namespace Qelvar::Fundel {

class CTimer {
public:
    using Callback = std::function<void()>;

    CTimer() = default;
    /// Stops the timer.
    ~CTimer();
    CTimer(const CTimer&) = delete;
    CTimer& operator=(const CTimer&) = delete;

    /// Calls `callback` on a thread named `name` `ms` milliseconds from now, and then
    /// every `ms` milliseconds when `periodic`. Returns 0, or -1 when the timer already
    /// runs or its thread could not be made.
    int Start(const char* name, unsigned int ms, bool periodic, Callback callback);

    /// Stops the timer. Waits for a callback in progress, unless called from it.
    void Stop();

    /// True from Start until a one-shot has fired or Stop was called.
    bool IsActive() const { return m_thread.IsRunning() && m_thread.IsLooping(); }

private:
    void run();

    CThreadLite m_thread;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    Callback m_callback;
    unsigned int m_ms = 0;
    bool m_periodic = false;
    bool m_stop = false;
};

}  // namespace Qelvar::Fundel
