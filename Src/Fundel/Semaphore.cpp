#include "Fundel/Semaphore.h"

#include <chrono>

namespace Qelvar::Fundel {

void CSemaphore::Post(unsigned int n)
{
    if (n == 0) return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_count += n;
    }
    if (n == 1) m_cv.notify_one();
    else m_cv.notify_all();
}

void CSemaphore::Wait()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [this] { return m_count > 0; });
    --m_count;
}

bool CSemaphore::TimedWait(unsigned int ms)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_cv.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_count > 0; })) return false;
    --m_count;
    return true;
}

bool CSemaphore::TryWait()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_count == 0) return false;
    --m_count;
    return true;
}

}  // namespace Qelvar::Fundel
