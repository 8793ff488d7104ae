#include "Fundel/ThreadLite.h"

#include "Fundel/LogDefs.h"
#include "Fundel/ThreadName.h"
#include "Fundel/Time.h"
#include "Platform/Error.h"

namespace Qelvar::Fundel {

CThreadLite::~CThreadLite()
{
    if (m_joinable) {
        Cancel();
        Join();
    }
}

int CThreadLite::Create(const char* name, Body body, int priority, int policy, std::size_t stack)
{
    if (m_joinable || !body) return -1;
    m_body = std::move(body);
    m_name = name ? name : "";
    m_priority = priority;
    m_policy = policy;
    m_looping.store(true, std::memory_order_release);
    m_running.store(true, std::memory_order_release);
    const int err = Platform::thread_create(&m_handle, &CThreadLite::entry, this, stack);
    if (err != 0) {
        char text[256];
        FDL_LOG(LOG_ERROR, "create thread %s failed, error:%d, %s\n", m_name.c_str(), err,
                Platform::error_text(err, text, sizeof text));
        m_looping.store(false, std::memory_order_release);
        m_running.store(false, std::memory_order_release);
        m_body = nullptr;
        return -1;
    }
    m_joinable = true;
    return 0;
}

void CThreadLite::entry(void* arg)
{
    auto* self = static_cast<CThreadLite*>(arg);
    self->m_tid.store(Platform::thread_current_id(), std::memory_order_release);
    CThreadName::Set(self->m_name.c_str());
    if (self->m_priority != 64 || self->m_policy != 0) {
        const int err = Platform::thread_set_priority(self->m_priority, self->m_policy);
        if (err != 0) {
            char text[256];
            FDL_LOG(LOG_WARN, "thread %s: priority %d, policy %d not applied, error:%d, %s\n",
                    self->m_name.c_str(), self->m_priority, self->m_policy, err,
                    Platform::error_text(err, text, sizeof text));
        }
    }
    self->m_body();
    CThreadName::Remove();
    self->m_running.store(false, std::memory_order_release);
}

int CThreadLite::Join()
{
    if (!m_joinable) return -1;
    if (Platform::thread_current_id() == GetThreadId()) return -1;
    Platform::thread_join(m_handle);
    m_joinable = false;
    m_handle = 0;
    m_body = nullptr;
    return 0;
}

void CThreadLite::SetThreadTimeout(int ms)
{
    m_deadline_ms.store(ms > 0 ? CTime::getCurrentMilliSecond() + ms : 0, std::memory_order_relaxed);
}

bool CThreadLite::IsThreadTimeout() const
{
    const std::int64_t deadline = m_deadline_ms.load(std::memory_order_relaxed);
    return deadline != 0 && CTime::getCurrentMilliSecond() >= deadline;
}

}  // namespace Qelvar::Fundel
