#include "Core/Multiplexer.h"

#include <shared_mutex>

#include "Core/MirtDispatcher.h"
#include "Core/SockTimer.h"
#include "Fundel/LogDefs.h"
#include "Platform/Error.h"

namespace Qelvar::Corvane {

namespace {

unsigned int interest_of(std::uint32_t mask)
{
    unsigned int interest = 0;
    if (mask & MASK_READ) interest |= Platform::POLLER_IN;
    if (mask & MASK_WRITE) interest |= Platform::POLLER_OUT;
    if (mask & MASK_EXCEPT) interest |= Platform::POLLER_PRI;
    return interest;
}

// What a report means for a record: with Except registered, an exceptional condition,
// an error or a hang-up is QV_POLLERR alone; without it, errors and hang-ups count as
// readiness of the registered directions, so the next Recv or Send meets them.
std::uint16_t revents_of(unsigned int events, std::uint32_t mask)
{
    constexpr unsigned int kFault = Platform::POLLER_ERR | Platform::POLLER_HUP;
    if ((mask & MASK_EXCEPT) && (events & (kFault | Platform::POLLER_PRI))) return QV_POLLERR;
    std::uint16_t revents = 0;
    if ((mask & MASK_READ) && (events & (Platform::POLLER_IN | kFault))) revents |= QV_POLLIN;
    if ((mask & MASK_WRITE) && (events & (Platform::POLLER_OUT | kFault))) revents |= QV_POLLOUT;
    return revents;
}

}  // namespace

int CMultiplexer::Init(int timeout_ms)
{
    if (m_poller.Open(true) != 0) {
        char text[256];
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p pool %d: poller open failed, error:%d, %s\n", static_cast<void*>(this),
                m_pool_index, err, Platform::error_text(err, text, sizeof text));
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s :CreatePipe failed!\n", static_cast<void*>(this), "CMultiplexer::Init");
        return -1;
    }
    m_disarms_on_report = m_poller.DisarmsOnReport();
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

// Adds or re-arms, falling back to the other: a number closed and opened again behind
// the registry's back may be unknown to the system poller (closing dropped it) or still
// known to it (a duplicate keeps the old registration alive). A re-arm with the interest
// the system holds already costs nothing.
int CMultiplexer::watch(SEvent* ev, bool first)
{
    const int fd = static_cast<int>(ev->m_key);
    const unsigned int interest = interest_of(ev->socket.m_event_mask);
    if (!first && interest == ev->m_armed) return 0;
    if (first) {
        if (m_poller.Add(fd, interest) == 0 || m_poller.Modify(fd, interest) == 0) {
            ev->m_armed = interest;
            return 0;
        }
    } else if (m_poller.Modify(fd, interest) == 0 || m_poller.Add(fd, interest) == 0) {
        ev->m_armed = interest;
        return 0;
    }
    char text[256];
    const int err = Platform::last_error();
    CVN_LOG(Fundel::LOG_WARN, "this:%p pool %d: watching socket %d failed, error:%d, %s\n", static_cast<void*>(this),
            m_pool_index, fd, err, Platform::error_text(err, text, sizeof text));
    return -1;
}

void CMultiplexer::disarm(SEvent* ev)
{
    if (ev->m_armed == 0) return;
    m_poller.Modify(static_cast<int>(ev->m_key), 0);
    ev->m_armed = 0;
}

int CMultiplexer::Add(SEvent* ev)
{
    if (CMirtIoCollecter::owns(ev->m_key)) return CMirtIoCollecter::Instance().Add(ev);
    return watch(ev, true);
}

int CMultiplexer::Rearm(SEvent* ev)
{
    if (CMirtIoCollecter::owns(ev->m_key)) return CMirtIoCollecter::Instance().EpollModify(ev);
    return watch(ev, false);
}

void CMultiplexer::Disarm(SEvent* ev)
{
    if (CMirtIoCollecter::owns(ev->m_key)) {
        CMirtIoCollecter::Instance().EpollRemove(ev);
        return;
    }
    disarm(ev);
}

void CMultiplexer::Remove(SEvent* ev)
{
    if (CMirtIoCollecter::owns(ev->m_key)) {
        CMirtIoCollecter::Instance().Remove(ev);
        return;
    }
    // The descriptor may be closed already; the system then forgot it by itself.
    m_poller.Remove(static_cast<int>(ev->m_key));
    ev->m_armed = 0;
}

// Marks an idle record's event for a worker; false, with the interest put back in
// line with its mask, when the report means nothing for the mask.
bool CMultiplexer::hand(SEvent* ev, unsigned int events)
{
    const std::uint16_t revents = revents_of(events, ev->socket.m_event_mask);
    if (revents == 0) {
        watch(ev, false);
        return false;
    }
    ev->socket.m_revents = revents;
    ev->m_evready = 1;
    CSockTimer::Instance().Suspend(ev);
    return true;
}

SEvent* CMultiplexer::Wait(CBTree<SEvent>& sockets, CWorkQueue& queue)
{
    Platform::SPollReady ready[kReadyMax];
    const int n = m_poller.Wait(TimeoutMicroseconds(), ready, kReadyMax);
    if (n < 0) {
        const int err = Platform::last_error();
        if (!Platform::is_interrupted(err)) {
            char text[256];
            CVN_LOG(Fundel::LOG_ERROR, "this:%p select failed!%d,%s\n", static_cast<void*>(this), err,
                    Platform::error_text(err, text, sizeof text));
        }
        return nullptr;
    }
    // The first ready record stays with the polling worker, which needs no wake-up; the
    // rest go to the other workers as one chain: one queue lock and one wake-up call.
    SEvent* mine = nullptr;
    SEvent* head = nullptr;
    SEvent* tail = nullptr;
    unsigned int count = 0;
    for (int i = 0; i < n; ++i) {
        SEvent* ev;
        {
            std::shared_lock<Fundel::CReadWriteMutex> table(sockets.Lock());
            ev = sockets.Find(ready[i].fd);
            if (!ev) continue;  // removed meanwhile: the system dropped or disarmed it
            ev->m_mutex.Enter();
        }
        if (m_disarms_on_report) ev->m_armed = 0;  // select dropped it from its sets
        bool handed = false;
        if (ev->socket.m_revents != 0 || ev->m_evready == 1) {
            // Being handled: reported again only because it is still ready. Out of the
            // poller until its callback returns, or this would report it on every wait.
            if (ev->m_evready == 1 && ev->socket.m_revents == 0) {
                CVN_LOG(Fundel::LOG_ERROR, "this:%p event already in queue, key:%lld obj:%lld\n",
                        static_cast<void*>(ev), static_cast<long long>(ev->m_key), static_cast<long long>(ev->obj_id));
            }
            disarm(ev);
        } else {
            handed = hand(ev, ready[i].events);
        }
        ev->m_mutex.Leave();
        if (!handed) continue;
        ev->next = nullptr;
        if (!mine) {
            mine = ev;
            continue;
        }
        if (tail) tail->next = ev;
        else head = ev;
        tail = ev;
        ++count;
    }
    if (count) queue.Append(head, tail, count);
    return mine;
}

}  // namespace Qelvar::Corvane
