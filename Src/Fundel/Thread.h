// A thread of the base library written as a class: derive, implement ThreadProc and
// loop while IsLooping().
#pragma once

#include <cstddef>

#include "Fundel/ThreadLite.h"

namespace Qelvar::Fundel {

class CThread {
public:
    CThread() = default;
    /// Cancels and joins the thread if it still runs. A derived class whose ThreadProc
    /// uses its own members must call Stop() in its own destructor.
    virtual ~CThread() = default;
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    /// Starts ThreadProc on a new thread; the arguments are those of CThreadLite::Create.
    int Start(const char* name, int priority = 64, int policy = 0, std::size_t stack = 0)
    {
        return m_thread.Create(name, [this] { ThreadProc(); }, priority, policy, stack);
    }

    /// Cancel and join.
    void Stop()
    {
        m_thread.Cancel();
        m_thread.Join();
    }

    void Cancel() { m_thread.Cancel(); }
    int Join() { return m_thread.Join(); }
    bool IsLooping() const { return m_thread.IsLooping(); }
    bool IsRunning() const { return m_thread.IsRunning(); }
    void SetThreadTimeout(int ms) { m_thread.SetThreadTimeout(ms); }
    bool IsThreadTimeout() const { return m_thread.IsThreadTimeout(); }
    std::uint64_t GetThreadId() const { return m_thread.GetThreadId(); }
    const std::string& GetName() const { return m_thread.GetName(); }

protected:
    /// The thread's body.
    virtual void ThreadProc() = 0;

private:
    CThreadLite m_thread;
};

}  // namespace Qelvar::Fundel
