#include <Corvane/NTimerEvent.h>

#include <atomic>
#include <mutex>

#include "Fundel/LogDefs.h"
#include "Tool/NTimerEventData.h"

// The events log under their timer's source path.
#define TIMER_LOG(level, ...) FUNDEL_LOG_AT("Corvane", ".\\Src\\Tool\\NTimer", level, __VA_ARGS__)

namespace Qelvar::Corvane {

CNTimerEvent::CNTimerEvent() : m_event(new SNTimerEventData)
{
}

CNTimerEvent::~CNTimerEvent()
{
    delete m_event;
}

void CNTimerEvent::Start()
{
    std::lock_guard<Fundel::CMutex> lock(m_event->m_mutex);
    const int state = m_event->m_state.load();
    if (state == TIMER_EVENT_READY || state == TIMER_EVENT_STOPPED) {
        m_event->m_state = TIMER_EVENT_RUNNING;
    } else if (state == TIMER_EVENT_NEW) {
        TIMER_LOG(Fundel::LOG_WARN, "this:%p %s : this timer event not ready for start!\n", static_cast<void*>(this),
                "CNTimerEvent::Start");
    } else {
        TIMER_LOG(Fundel::LOG_FATAL, "this:%p %s : this timer event already started!\n", static_cast<void*>(this),
                "CNTimerEvent::Start");
        FUNDEL_ASSERT_TEXT(false, "this timer event already started");
    }
}

void CNTimerEvent::Stop()
{
    std::lock_guard<Fundel::CMutex> lock(m_event->m_mutex);
    if (m_event->m_state.load() == TIMER_EVENT_RUNNING) {
        m_event->m_state = TIMER_EVENT_STOPPED;
        return;
    }
    TIMER_LOG(Fundel::LOG_WARN, "this:%p %s : Can't stop a timer event not in running state!\n", static_cast<void*>(this),
            "CNTimerEvent::Stop");
}

void CNTimerEvent::Close()
{
    bool never_pushed = false;
    {
        std::lock_guard<Fundel::CMutex> lock(m_event->m_mutex);
        const int state = m_event->m_state.load();
        if (state == TIMER_EVENT_CLOSED) return;
        never_pushed = state == TIMER_EVENT_NEW;
        m_event->m_state = never_pushed ? TIMER_EVENT_CLOSED : TIMER_EVENT_CLOSING;
    }
    if (never_pushed) {
        // In no timer's list: nobody else will close it. Outside the lock, which goes
        // with the object once the framework releases it.
        CNetHandler::Close();
        return;
    }
    // The final store, without the lock: the value the timer's reaper looks for.
    m_event->m_state = TIMER_EVENT_CLOSED;
}

int CNTimerEvent::handle_timer_event()
{
    return 0;
}

int CNTimerEvent::set_event_ready()
{
    std::lock_guard<Fundel::CMutex> lock(m_event->m_mutex);
    if (m_event->m_state.load() != TIMER_EVENT_NEW) {
        TIMER_LOG(Fundel::LOG_FATAL, "this:%p %s : this timer event already started!\n", static_cast<void*>(this),
                "CNTimerEvent::set_event_ready");
        FUNDEL_ASSERT_TEXT(false, "this timer event already started");
        return -1;
    }
    m_event->m_state = TIMER_EVENT_READY;
    return 0;
}

long long CNTimerEvent::do_timer_event()
{
    return static_cast<long long>(handle_timer_event());
}

}  // namespace Qelvar::Corvane
