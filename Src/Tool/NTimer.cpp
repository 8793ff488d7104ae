#include <Corvane/NTimer.h>

#include <Corvane/NTimerEvent.h>

#include <algorithm>
#include <mutex>

#include "Fundel/LogDefs.h"
#include "Fundel/Mutex.h"
#include "Fundel/Time.h"
#include "Tool/NTimerEventData.h"

namespace Qelvar::Corvane {

namespace {

constexpr long long kHousekeepingUs = 1000000;
constexpr long long kMinDelayUs = 2000;
constexpr long long kStallPeriods = 20;

}  // namespace

struct SNTimerData {
    std::int64_t m_time_base = 0;
    long m_tick_timer = 0;
    unsigned long long m_tick_count = 0;
    CNTimerEvent* m_head = nullptr;
    CNTimerEvent* m_tail = nullptr;
    Fundel::CMutex m_mutex;
    long long m_period = 0;
    long m_housekeeping_timer = 0;
};

CNTimer* CNTimer::Create(long long period_us)
{
    auto* timer = new CNTimer(period_us);
    timer->m_data->m_time_base = Fundel::CTime::getCurrentMicroSecond();
    timer->m_data->m_tick_timer = timer->SetTimer(period_us);
    timer->m_data->m_housekeeping_timer = timer->SetTimer(kHousekeepingUs);
    if (timer->GetID() != 0 && timer->m_data->m_tick_timer != -1 && timer->m_data->m_housekeeping_timer != -1) {
        return timer;
    }
    timer->Close();
    if (timer->GetID() == 0) delete timer;  // never in a table: no handle_close comes
    return nullptr;
}

CNTimer::CNTimer(long long period_us) : CNetHandler(0), m_data(new SNTimerData)
{
    m_data->m_period = period_us;
}

CNTimer::~CNTimer()
{
    delete m_data;
}

int CNTimer::PushTimerEvent(CNTimerEvent* ev)
{
    if (!ev) return -1;
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    std::lock_guard<Fundel::CMutex> event_lock(ev->m_event->m_mutex);
    // Appending an event that is in a list already would link the list to itself.
    if (ev->set_event_ready() != 0) return -1;
    if (!m_data->m_tail) {
        FUNDEL_ASSERT_TEXT(m_data->m_head == nullptr, "m_head == NULL");
        m_data->m_head = m_data->m_tail = ev;
    } else {
        m_data->m_tail->m_event->m_next = ev;
        m_data->m_tail = ev;
    }
    ev->m_event->m_next = nullptr;
    return 0;
}

void CNTimer::reap(bool tick)
{
    SNTimerData& d = *m_data;
    auto closed = [](CNTimerEvent* ev) { return ev->m_event->m_state.load() == TIMER_EVENT_CLOSED; };
    while (d.m_head && closed(d.m_head)) {
        CNTimerEvent* ev = d.m_head;
        d.m_head = ev->m_event->m_next;
        ev->CNetHandler::Close();
    }
    if (!d.m_head) d.m_tail = nullptr;
    for (CNTimerEvent* ev = d.m_head; ev; ev = ev->m_event->m_next) {
        if (tick && ev->m_event->m_state.load() == TIMER_EVENT_RUNNING) ev->do_timer_event();
        // The callback may have closed it, or others after it: they go at the next reap.
        while (CNTimerEvent* next = ev->m_event->m_next) {
            if (!closed(next)) break;
            ev->m_event->m_next = next->m_event->m_next;
            if (d.m_tail == next) d.m_tail = ev;
            next->CNetHandler::Close();
        }
    }
}

long long CNTimer::handle_timeout(long timer_id)
{
    SNTimerData& d = *m_data;
    if (timer_id == d.m_housekeeping_timer) {
        std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
        reap(false);
        return 0;
    }
    std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
    ++d.m_tick_count;
    reap(true);
    // Aim at the next ideal tick; a stall of more than 20 periods starts counting anew.
    const std::int64_t now = Fundel::CTime::getCurrentMicroSecond();
    const long long delay = static_cast<long long>(d.m_tick_count + 1) * d.m_period - (now - d.m_time_base);
    if (delay >= -kStallPeriods * d.m_period && delay <= kStallPeriods * d.m_period) {
        return std::max(delay, kMinDelayUs);
    }
    d.m_time_base = now;
    d.m_tick_count = 0;
    return std::max(d.m_period, kMinDelayUs);
}

int CNTimer::handle_close(CNetHandler*)
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
        for (CNTimerEvent* ev = m_data->m_head; ev;) {
            CNTimerEvent* next = ev->m_event->m_next;
            ev->CNetHandler::Close();
            ev = next;
        }
        m_data->m_head = m_data->m_tail = nullptr;
    }
    delete this;
    return 0;
}

unsigned long long CNTimer::GetTickCount()
{
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    return m_data->m_tick_count;
}

}  // namespace Qelvar::Corvane
