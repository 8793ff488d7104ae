// A thread of the base library running a callable: named, with priority, policy and
// stack size, stopped by cancel + join, and with a "thread timeout" that a supervisor
// arms to notice a thread stuck in one piece of work.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "Platform/Thread.h"

namespace Qelvar::Fundel {

class CThreadLite {
public:
    using Body = std::function<void()>;

    CThreadLite() = default;
    /// Cancels and joins a thread that is still running.
    virtual ~CThreadLite();
    CThreadLite(const CThreadLite&) = delete;
    CThreadLite& operator=(const CThreadLite&) = delete;

    /// Starts `body` on a new thread named `name`. Priority 1 low, 64 normal, 127 high;
    /// policy 0 time-sharing, 1 round-robin; stack in bytes, 0 for the default. A
    /// priority the system refuses is logged and the thread runs at the default.
    /// Returns 0, or -1 when the thread could not be made or this one already runs.
    int Create(const char* name, Body body, int priority = 64, int policy = 0, std::size_t stack = 0);

    /// Asks the body to stop: IsLooping() turns false. The body ends by itself.
    void Cancel() { m_looping.store(false, std::memory_order_release); }

    /// Waits for the thread to end. 0, or -1 when it was not started or the caller is
    /// the thread itself.
    int Join();

    /// True from Create until Cancel.
    bool IsLooping() const { return m_looping.load(std::memory_order_acquire); }

    /// True while the body runs.
    bool IsRunning() const { return m_running.load(std::memory_order_acquire); }

    /// Arms the thread timeout to expire `ms` milliseconds from now; `ms` <= 0 clears it.
    void SetThreadTimeout(int ms);

    /// True when the thread timeout is armed and has expired.
    bool IsThreadTimeout() const;

    /// The system id of the thread (0 before it started).
    std::uint64_t GetThreadId() const { return m_tid.load(std::memory_order_acquire); }

    const std::string& GetName() const { return m_name; }

private:
    static void entry(void* self);

    Body m_body;
    std::string m_name;
    int m_priority = 64;
    int m_policy = 0;
    Platform::thread_handle m_handle = 0;
    bool m_joinable = false;
    std::atomic<bool> m_looping{false};
    std::atomic<bool> m_running{false};
    std::atomic<std::uint64_t> m_tid{0};
    std::atomic<std::int64_t> m_deadline_ms{0};
};

}  // namespace Qelvar::Fundel
