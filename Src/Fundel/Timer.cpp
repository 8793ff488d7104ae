#include "Fundel/Timer.h"

#include <chrono>

namespace Qelvar::Fundel {

CTimer::~CTimer()
{
    Stop();
}

int CTimer::Start(const char* name, unsigned int ms, bool periodic, Callback callback)
{
    if (!callback || IsActive()) return -1;
    m_thread.Join();  // a one-shot that has fired or a stopped timer: reap its thread
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_callback = std::move(callback);
        m_ms = ms;
        m_periodic = periodic;
        m_stop = false;
    }
    return m_thread.Create(name, [this] { run(); });
}

void CTimer::Stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_cv.notify_all();
    m_thread.Cancel();
    m_thread.Join();  // refuses when called from the callback: that thread ends by itself
}

void CTimer::run()
{
    // Due times advance by the period from the start, so a periodic timer does not drift.
    auto due = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        due += std::chrono::milliseconds(m_ms);
        if (m_cv.wait_until(lock, due, [this] { return m_stop; })) break;
        Callback cb = m_callback;
        lock.unlock();
        cb();
        lock.lock();
        if (!m_periodic || m_stop) break;
    }
    m_thread.Cancel();
}

}  // namespace Qelvar::Fundel
