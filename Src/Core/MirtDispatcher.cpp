#include "Core/MirtDispatcher.h"

#include <cinttypes>
#include <cstdint>

#include <Corvane/EventMask.h>
#include <Corvane/TsMemory.h>

#include "Core/SockTimer.h"
#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"
#include "Platform/Thread.h"

namespace Qelvar::Corvane {

namespace {

// The transport's event bits.
constexpr unsigned int kMirtIn = 1;
constexpr unsigned int kMirtOut = 4;
constexpr unsigned int kMirtErr = 8;

// A bounded wait instead of none, so that Shutdown's cancel is seen within this time
// whatever the transport does with a set that has gone quiet.
constexpr long long kWaitMs = 100;
// While nobody is registered the thread sleeps on the semaphore; the bound again serves
// Shutdown only.
constexpr unsigned int kIdleWaitMs = 500;

// Read and Write map to the transport's bits; errors are asked for with either, so that
// a broken connection reaches its handler. Neither bit: not put into the set.
int event_word(std::uint32_t mask)
{
    int word = 0;
    if (mask & MASK_READ) word |= kMirtIn;
    if (mask & MASK_WRITE) word |= kMirtOut;
    return word != 0 ? word | static_cast<int>(kMirtErr) : 0;
}

}  // namespace

CMirtIoCollecter& CMirtIoCollecter::Instance()
{
    static CMirtIoCollecter* instance = new CMirtIoCollecter;
    return *instance;
}

bool CMirtIoCollecter::owns(long long fd)
{
    return fd >= Mirt::getsockidbase();
}

int CMirtIoCollecter::Init()
{
    if (m_initialised) return 0;
    m_epid = Mirt::epoll_create();
    if (m_epid < 0) {
        CVN_LOG(Fundel::LOG_WARN, "epoll_create failed%s\n", Mirt::getlasterror_desc());
        return -1;
    }
    for (SEvent*& bucket : m_buckets) bucket = nullptr;
    m_count.store(0);
    if (m_thread.Create("Mirt_IoDispatcher", [this] { thread_proc(); }) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "createThread failed\n");
        Mirt::epoll_release(m_epid);
        m_epid = -1;
        return -1;
    }
    m_initialised = true;
    return 0;
}

void CMirtIoCollecter::Shutdown()
{
    if (!m_initialised) return;
    m_thread.Cancel();
    m_wake.Post();
    m_thread.Join();
    Mirt::epoll_release(m_epid);
    m_epid = -1;
    m_initialised = false;
}

int CMirtIoCollecter::Add(SEvent* ev)
{
    ev->m_dispatch_self = ev;
    ev->m_dispatch_next = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_bucket_mutex);
        SEvent*& head = m_buckets[ev->m_key % kBuckets];
        for (SEvent* e = head; e; e = e->m_dispatch_next) {
            if (e->m_key == ev->m_key) {
                CVN_LOG(Fundel::LOG_WARN, "CMirtIoCollecter: Add mirt key %" PRId64 " again\n",
                        static_cast<std::int64_t>(ev->m_key));
                ev->m_dispatch_self = nullptr;
                return -1;
            }
        }
        ev->m_dispatch_next = head;
        head = ev;
    }
    return epoll_add(ev);
}

int CMirtIoCollecter::epoll_add(SEvent* ev)
{
    const int word = event_word(ev->socket.m_event_mask);
    if (word == 0) return 0;
    if (Mirt::epoll_add_usock(m_epid, static_cast<int>(ev->m_key), &word) < 0) {
        CVN_LOG(Fundel::LOG_WARN, "mirt epoll_add_usock failed, epid %d, mirt sockfd %" PRId64 ", event 0x%x, %s\n",
                m_epid, static_cast<std::int64_t>(ev->m_key), static_cast<unsigned int>(word), Mirt::getlasterror_desc());
        return -1;
    }
    ev->m_armed = static_cast<std::uint32_t>(word);
    count_added(1, 1);
    return 0;
}

int CMirtIoCollecter::EpollModify(SEvent* ev)
{
    const int word = event_word(ev->socket.m_event_mask);
    if (word == 0) {
        EpollRemove(ev);
        return 0;
    }
    if (static_cast<std::uint32_t>(word) == ev->m_armed) return 0;  // in the set with this interest
    const int added = Mirt::epoll_modify_usock(m_epid, static_cast<int>(ev->m_key), &word);
    if (added < 0) {
        CVN_LOG(Fundel::LOG_WARN, "mirt epoll_modify_usock failed, epid %d, mirt sockfd %" PRId64 ", event 0x%x, %s\n",
                m_epid, static_cast<std::int64_t>(ev->m_key), static_cast<unsigned int>(word), Mirt::getlasterror_desc());
        return -1;
    }
    ev->m_armed = static_cast<std::uint32_t>(word);
    if (added > 0) count_added(added, added);
    return 0;
}

void CMirtIoCollecter::EpollRemove(SEvent* ev)
{
    if (ev->m_armed == 0) return;  // not in the set: nothing to count down
    if (Mirt::epoll_remove_usock(m_epid, static_cast<int>(ev->m_key)) < 0) {
        CVN_LOG(Fundel::LOG_WARN, "mirt epoll_remove_usock failed, epid %d, mirt sockfd %" PRId64 ", %s\n", m_epid,
                static_cast<std::int64_t>(ev->m_key), Mirt::getlasterror_desc());
        return;
    }
    ev->m_armed = 0;
    m_count.fetch_sub(1);
}

void CMirtIoCollecter::Remove(SEvent* ev)
{
    EpollRemove(ev);
    std::lock_guard<std::mutex> lock(m_bucket_mutex);
    if (ev->m_dispatch_self != ev) return;  // refused as a duplicate: never filed
    for (SEvent** link = &m_buckets[ev->m_key % kBuckets]; *link; link = &(*link)->m_dispatch_next) {
        if (*link == ev) {
            *link = ev->m_dispatch_next;
            break;
        }
    }
    ev->m_dispatch_self = nullptr;
    ev->m_dispatch_next = nullptr;
}

void CMirtIoCollecter::count_added(long long n, long long wake_at)
{
    if (m_count.fetch_add(n) + n == wake_at) m_wake.Post();
}

void CMirtIoCollecter::thread_proc()
{
    CTsMemory::CreateMemPool();
    CVN_LOG(Fundel::LOG_INFO, "CMirtIoCollecter::ThreadProc thread start...\n");
    while (m_thread.IsLooping()) {
        if (m_count.load() <= 0) {
            m_wake.TimedWait(kIdleWaitMs);
            continue;
        }
        const int n = Mirt::epoll_wait(m_epid, m_events, kWaitMax, kWaitMs);
        if (n < 0) {
            CVN_LOG(Fundel::LOG_WARN, "mirt epoll_wait failed, epid:%d, %s\n", m_epid, Mirt::getlasterror_desc());
            Platform::sleep_ms(10);  // a failing set must not turn into a busy loop
            continue;
        }
        for (int i = 0; i < n; ++i) dispatch(m_events[i]);
    }
    CTsMemory::DestroyThreadMemPool();
}

void CMirtIoCollecter::dispatch(const Mirt::SMirtEvent& ready)
{
    SEvent* ev = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_bucket_mutex);
        for (SEvent* e = m_buckets[static_cast<unsigned int>(ready.fd) % kBuckets]; e; e = e->m_dispatch_next) {
            if (e->m_key == ready.fd) {
                ev = e;
                break;
            }
        }
        // Never waits for a worker: a record in use is reported again by the next wait.
        if (!ev || !ev->m_mutex.TryEnter()) return;
    }
    if (ev->m_evready == 1) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p event already in queue, key:%" PRId64 " obj:%" PRId64 "\n",
                static_cast<void*>(ev), static_cast<std::int64_t>(ev->m_key), static_cast<std::int64_t>(ev->obj_id));
        ev->m_mutex.Leave();
        return;
    }
    ev->m_evready = 1;
    if (ev->socket.m_revents != 0) {
        // Left marked as queued on purpose, until the registry clears it.
        CVN_LOG(Fundel::LOG_WARN,
                "this:%p CMirtIoCollecter::ThreadProc, some events has not processed, please check it, fd:%" PRId64
                ", revents:%d\n",
                static_cast<void*>(ev), static_cast<std::int64_t>(ev->m_key), static_cast<int>(ev->socket.m_revents));
        ev->m_mutex.Leave();
        return;
    }
    const std::uint32_t mask = ev->socket.m_event_mask;
    std::uint16_t revents = 0;
    if (ready.events & kMirtErr) {
        revents = QV_POLLERR;
    } else {
        if ((ready.events & kMirtIn) && (mask & MASK_READ)) revents |= QV_POLLIN;
        if ((ready.events & kMirtOut) && (mask & MASK_WRITE)) revents |= QV_POLLOUT;
    }
    if (revents == 0) {  // nothing the mask asks for: stays in the set as it is
        ev->m_evready = 0;
        ev->m_mutex.Leave();
        return;
    }
    ev->socket.m_revents = revents;
    // Out of the set until its callback returned and the registry puts it back.
    EpollRemove(ev);
    CSockTimer::Instance().Suspend(ev);
    ev->next = nullptr;
    const int pool = CThreadPool::pool_of(ev->obj_id);
    ev->m_mutex.Leave();
    CThreadPool::post(pool, ev, ev, 1);
}

}  // namespace Qelvar::Corvane
