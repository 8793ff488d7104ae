#include "Core/ThreadPool.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <shared_mutex>
#include <string>
#include <vector>

#include <Corvane/NetHandler.h>
#include <Corvane/TsMemory.h>

#include "Core/ConsoleHooks.h"
#include "Core/CurrentObject.h"
#include "Core/DumpLines.h"
#include "Core/Message.h"
#include "Core/NetSock.h"
#include "Core/NetTimer.h"
#include "Core/ObjectName.h"
#include "Core/ReclaimPool.h"
#include "Core/SockTimer.h"
#include "Fundel/LogDefs.h"
#include "Fundel/ThreadName.h"

namespace Qelvar::Corvane {

std::atomic<int> CThreadPool::sm_deadlock_period_ms{60000};
std::atomic<int> CThreadPool::sm_daemon_wait_ms{5000};

namespace {

// Never destroyed: threads of a pool that outlives static destruction must still find them.
CThreadPool** const g_pools = new CThreadPool*[CThreadPool::kMaxPools]();
Fundel::CReadWriteMutex* const g_guards = new Fundel::CReadWriteMutex[CThreadPool::kMaxPools];

bool valid_index(int index)
{
    return index >= 0 && index < CThreadPool::kMaxPools;
}

}  // namespace

CThreadPool* CThreadPool::try_acquire(int index, std::shared_lock<Fundel::CReadWriteMutex>& guard)
{
    if (!valid_index(index)) return nullptr;
    guard = std::shared_lock<Fundel::CReadWriteMutex>(g_guards[index], std::try_to_lock);
    if (!guard.owns_lock()) return nullptr;
    CThreadPool* pool = g_pools[index];
    if (!pool) guard.unlock();
    return pool;
}

CThreadPool* CThreadPool::acquire(int index, std::shared_lock<Fundel::CReadWriteMutex>& guard)
{
    if (!valid_index(index)) return nullptr;
    guard = std::shared_lock<Fundel::CReadWriteMutex>(g_guards[index]);
    CThreadPool* pool = g_pools[index];
    if (!pool) guard.unlock();
    return pool;
}

CThreadPool::CThreadPool(int index, unsigned int count, const SPoolSettings& settings, int processors)
    : m_index(index),
      m_thread_count(adjustThreadNumber(count, processors, this)),
      m_settings(settings),
      m_id_pool(static_cast<unsigned int>(index)),
      m_mux(index)
{
    if (count == 0) CVN_LOG(Fundel::LOG_WARN, "this:%p Invalid thread num 0, Please check it!\n", static_cast<void*>(this));
}

CThreadPool::~CThreadPool()
{
    Stop();
}

unsigned int CThreadPool::adjustThreadNumber(unsigned int count, int processors, const void* logged_as)
{
    unsigned long long n;
    if (count & 0x80000000u) {
        n = count & 0x7fffffffu;
    } else if (processors > 1) {
        const auto p = static_cast<unsigned long long>(processors);
        n = count < p ? p : (count + p - 1) / p * p;
    } else {
        n = count;
    }
    if (n > 0x7fffffffu) n = 0x7fffffffu;
    if (n < 2) {
        n = 2;
        CVN_LOG(Fundel::LOG_WARN, "this:%p  Too few threads to be created,It have been adjusted to: %u \n", logged_as,
                static_cast<unsigned int>(n));
    }
    return static_cast<unsigned int>(n);
}

int CThreadPool::Start()
{
    if (m_mux.Init(m_settings.mux_timeout_ms) != 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p socket mutiplexer init fail, Please check it!\n", static_cast<void*>(this));
        return -1;
    }
    m_ready = true;

    // One poll token and one serial token circulate in the worker queue.
    SEvent* poll = CReclaimPool::sm_reclaim_pool.Take();
    poll->m_key = EVENT_POLL_TOKEN;
    SEvent* serial = CReclaimPool::sm_reclaim_pool.Take();
    serial->m_key = EVENT_SERIAL_TOKEN;
    m_queue.Append(poll);
    m_queue.Append(serial);
    m_serial_idle = false;

    char name[32];
    std::snprintf(name, sizeof name, "Corvane%d", m_index);
    m_workers.reserve(m_thread_count);
    for (unsigned int i = 0; i < m_thread_count; ++i) {
        auto worker = std::make_unique<Fundel::CThreadLite>();
        Fundel::CThreadLite* self = worker.get();
        if (worker->Create(name, [this, self] { worker_loop(*self); }, m_settings.priority, m_settings.policy,
                           static_cast<std::size_t>(m_settings.stack)) != 0) {
            return -1;
        }
        m_workers.push_back(std::move(worker));
    }

    // The daemon walks the worker list, so it starts once the list is complete.
    std::snprintf(name, sizeof name, "Corvane%d daemon", m_index);
    if (m_daemon.Create(name, [this] { daemon_loop(); }) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p daemon thread create failed\n", static_cast<void*>(this));
    }
    return 0;
}

void CThreadPool::Stop()
{
    if (m_stopped) return;
    m_stopped = true;

    m_daemon.Cancel();
    m_daemon_sem.Post(2);
    m_daemon.Join();

    for (auto& worker : m_workers) worker->Cancel();
    m_queue.Release();
    if (m_ready) m_mux.Wake();
    for (auto& worker : m_workers) worker->Join();
    m_workers.clear();

    free_records(m_queue.Detach());
    {
        std::lock_guard<std::mutex> lock(m_serial_mutex);
        free_records(m_serial_head);
        m_serial_head = m_serial_tail = nullptr;
    }
    CNetTimer::Instance().PurgePool(m_index);
    free_sockets();
    detach_objects();
}

// Sockets still registered when the pool goes: the registrations end (the descriptors
// stay open, they are their owners'), and their owners keep counting them.
void CThreadPool::free_sockets()
{
    std::vector<SEvent*> events;
    {
        std::unique_lock<Fundel::CReadWriteMutex> lock(m_sockets.Lock());
        m_sockets.ForEach([&](std::int64_t, SEvent* ev) { events.push_back(ev); });
        for (SEvent* ev : events) m_sockets.Erase(ev->m_key);
    }
    for (SEvent* ev : events) {
        {
            std::lock_guard<Fundel::CMutex> record(ev->m_mutex);
            CSockTimer::Instance().Delete(ev);
            if (m_ready) m_mux.Remove(ev);
        }
        CReclaimPool::sm_reclaim_pool.GiveBack(ev);
    }
}

// Records left in the queues when the pool stops. Socket records belong to the socket
// table and stay there; the rest go back to the reclaim pool.
void CThreadPool::free_records(SEvent* chain)
{
    while (chain) {
        SEvent* next = chain->next;
        chain->next = nullptr;
        if (chain->m_key < EVENT_TIMER_LIMIT) CNetTimer::Instance().Discard(chain);
        else if (chain->m_key < 0) CReclaimPool::sm_reclaim_pool.GiveBack(chain);
        chain = next;
    }
}

// Objects still in the table when the pool goes away. A closed one (its close message
// was not handled) is released now. An open one is detached: it keeps the table's
// reference until the application closes it, and any later message or timer for its
// old id finds nothing.
void CThreadPool::detach_objects()
{
    std::vector<SHandlerState*> states;
    {
        std::unique_lock<Fundel::CReadWriteMutex> lock(m_objects.Lock());
        m_objects.ForEach([&](std::int64_t, SHandlerState* s) { states.push_back(s); });
        for (SHandlerState* s : states) m_objects.Erase(s->m_id.load());
    }
    for (SHandlerState* s : states) {
        bool closed;
        {
            std::lock_guard<Fundel::CMutex> lock(s->m_mutex);
            closed = s->m_magic != HANDLER_OPEN;
            if (!closed) {
                CVN_LOG(Fundel::LOG_WARN,
                        "this:%p object:%p, obj_id:%lld, class:%s is still open while its thread pool %d is "
                        "destroyed; it is detached, Close() releases it\n",
                        static_cast<void*>(this), static_cast<void*>(s->m_owner),
                        static_cast<long long>(s->m_id.load()), object_class_name(s->m_owner).c_str(), m_index);
                s->m_detached = true;
            }
            s->m_id.store(0);
        }
        if (closed) s->m_owner->DecRef();
    }
}

void CThreadPool::worker_loop(Fundel::CThreadLite& thread)
{
    CTsMemory::CreateMemPool();
    CCurrentObject::Register();
    while (thread.IsLooping()) {
        SEvent* record = m_queue.Take();
        if (!record) continue;
        m_progress.fetch_add(1, std::memory_order_relaxed);
        dispatch(record, thread);
    }
    // A worker may be blocked in the poller's wait: let it see the stop too.
    m_mux.Wake();
    CCurrentObject::Unregister();
    CTsMemory::DestroyThreadMemPool();
}

void CThreadPool::dispatch(SEvent* record, Fundel::CThreadLite& thread)
{
    const std::int64_t key = record->m_key;
    if (key >= 0) {
        watched(thread, [this, record] { CNetSock::handle_netevent(*this, record); });
        return;
    }
    if (key < EVENT_TIMER_LIMIT) {
        watched(thread, [record] { CNetTimer::Instance().Fire(record); });
        return;
    }
    switch (key) {
    case EVENT_MESSAGE:
        watched(thread, [record] { CMessage::handle_message(record); });
        return;
    case EVENT_POLL_TOKEN: {
        SEvent* mine = m_mux.Wait(m_sockets, m_queue);
        // The token goes back without waking anybody: this worker takes it again after
        // its own record unless another, already awake, polls first. A wake-up per poll
        // would cost a context switch per event on a lightly loaded pool.
        if (thread.IsLooping()) m_queue.AppendQuiet(record);
        else CReclaimPool::sm_reclaim_pool.GiveBack(record);
        if (mine) {
            m_progress.fetch_add(1, std::memory_order_relaxed);
            watched(thread, [this, mine] { CNetSock::handle_netevent(*this, mine); });
        }
        return;
    }
    case EVENT_SERIAL_TOKEN:
        drain_serial(record, thread);
        return;
    case EVENT_HEARTBEAT:
        CReclaimPool::sm_reclaim_pool.GiveBack(record);
        return;
    default:
        CVN_LOG(Fundel::LOG_FATAL, "this:%p Exist unexpected event, Please check it, key : [%lld]!\n",
                static_cast<void*>(this), static_cast<long long>(key));
        CReclaimPool::sm_reclaim_pool.GiveBack(record);
        FUNDEL_ASSERT_TEXT(false, "unexpected event in the worker queue");
        return;
    }
}

// Serial messages are handled one after another by whichever worker holds the serial
// token; when the queue runs dry the token is dropped and the next post brings a new one.
void CThreadPool::drain_serial(SEvent* token, Fundel::CThreadLite& thread)
{
    while (thread.IsLooping()) {
        SEvent* record;
        {
            std::lock_guard<std::mutex> lock(m_serial_mutex);
            record = m_serial_head;
            if (!record) {
                m_serial_idle = true;
                break;
            }
            m_serial_head = record->next;
            if (!m_serial_head) m_serial_tail = nullptr;
            record->next = nullptr;
        }
        if (record->m_key == EVENT_SERIAL_MESSAGE) {
            watched(thread, [record] { CMessage::handle_message(record); });
        } else {
            CVN_LOG(Fundel::LOG_FATAL, "this:%p Exist unexpected event_serial, Please check it, key : [%lld]!\n",
                    static_cast<void*>(this), static_cast<long long>(record->m_key));
            CReclaimPool::sm_reclaim_pool.GiveBack(record);
            FUNDEL_ASSERT_TEXT(false, "unexpected event in the serial queue");
        }
    }
    CReclaimPool::sm_reclaim_pool.GiveBack(token);
}

// Installs the debug console's commands until that succeeds; five failures in a row
// end the attempts. The commands are process-wide: the first daemon to install them
// says so, the others find them there. Once installed, each pass only checks that they
// still are (the console's exit empties the command table).
void CThreadPool::console_step(int& failures)
{
    const CConsoleHooks::Installer install = CConsoleHooks::GetInstaller();
    if (!install || failures >= kConsoleTries) return;
    const int result = install();
    if (result == 0) {
        CVN_LOG(Fundel::LOG_WARN, "InitConsoleDebug ok! run happy.\n");
    } else if (result < 0) {
        if (++failures < kConsoleTries) {
            CVN_LOG(Fundel::LOG_WARN, "InitConsoleDebug Failed! try again.\n");
        } else {
            CVN_LOG(Fundel::LOG_WARN, "InitConsoleDebug Failed! Will not to able use console commands.\n");
        }
        return;
    }
    failures = 0;
}

void CThreadPool::daemon_loop()
{
    std::int64_t last_progress = -1;
    int console_failures = 0;
    while (m_daemon.IsLooping()) {
        console_step(console_failures);
        SEvent* beat = CReclaimPool::sm_reclaim_pool.Take();
        beat->m_key = EVENT_HEARTBEAT;
        m_queue.Append(beat);

        const std::int64_t progress = m_progress.load(std::memory_order_relaxed);
        if (progress != last_progress) {
            last_progress = progress;
            m_daemon.SetThreadTimeout(sm_deadlock_period_ms.load());
        } else if (m_daemon.IsThreadTimeout()) {
            CVN_LOG(Fundel::LOG_ERROR, "All Corvane Thread deadlock !!!!!!\n");
            report_deadlock();
            m_daemon.SetThreadTimeout(sm_deadlock_period_ms.load());
        }
        if (m_settings.thread_timeout_ms > 0) report_stuck_callbacks();

        // Both waits end early when the pool stops.
        m_daemon_sem.TimedWait(200);
        if (!m_daemon.IsLooping()) break;
        m_daemon_sem.TimedWait(static_cast<unsigned int>(sm_daemon_wait_ms.load()));
    }
}

void CThreadPool::report_deadlock()
{
    for (auto& worker : m_workers) {
        const std::uint64_t tid = worker->GetThreadId();
        CCurrentObject::SEntry entry{};
        if (CCurrentObject::Get(tid, entry) && entry.object) {
            CVN_LOG(Fundel::LOG_ERROR, "thread:%s(%llu) is handling object:%p, obj_id:%lld, class:%s\n",
                    worker->GetName().c_str(), static_cast<unsigned long long>(tid),
                    static_cast<void*>(entry.object), static_cast<long long>(entry.id),
                    type_name(entry.type).c_str());
        } else {
            CVN_LOG(Fundel::LOG_ERROR, "thread:%s(%llu) is not handling an object\n", worker->GetName().c_str(),
                    static_cast<unsigned long long>(tid));
        }
    }
}

void CThreadPool::report_stuck_callbacks()
{
    for (auto& worker : m_workers) {
        if (!worker->IsThreadTimeout()) continue;
        const std::uint64_t tid = worker->GetThreadId();
        CCurrentObject::SEntry entry{};
        CCurrentObject::Get(tid, entry);
        CVN_LOG(Fundel::LOG_ERROR,
                "thread:%s(%llu) has been in one callback for more than %d ms, object:%p, obj_id:%lld, class:%s\n",
                worker->GetName().c_str(), static_cast<unsigned long long>(tid), m_settings.thread_timeout_ms,
                static_cast<void*>(entry.object), static_cast<long long>(entry.id),
                entry.object ? type_name(entry.type).c_str() : "NULL");
    }
}


void CThreadPool::Traversal(Printer out)
{
    CDumpLines lines;
    collect_sockets(lines);
    if (out) lines.PrintTo(out);
    else lines.ForEach([](const char* line) { CVN_LOG(Fundel::LOG_INFO, "%s", line); });
}

void CThreadPool::collect_sockets(CDumpLines& lines)
{
    std::shared_lock<Fundel::CReadWriteMutex> sockets(m_sockets.Lock());
    std::shared_lock<Fundel::CReadWriteMutex> objects(m_objects.Lock());
    m_sockets.ForEach([this, &lines](std::int64_t key, SEvent* event) {
        // A socket's owner lives in the same pool; the table lock keeps it registered.
        SHandlerState* owner = m_objects.Find(event->obj_id);
        CNetHandler* handler = owner ? owner->m_owner : nullptr;
        lines.Add("CThreadPool::Traversal, sock fd: %lld, owner: %p, owner type:%s \n", static_cast<long long>(key),
                  static_cast<void*>(handler), object_class_name(handler).c_str());
    });
}

void CThreadPool::traversal_all(Printer out)
{
    // Every pool's lines first: printing may need the pool table itself.
    CDumpLines lines;
    for (int index = 0; index < kMaxPools; ++index) {
        with_pool(index, false, [&lines](CThreadPool& pool) {
            pool.collect_sockets(lines);
            return true;
        });
    }
    if (out) lines.PrintTo(out);
    else lines.ForEach([](const char* line) { CVN_LOG(Fundel::LOG_INFO, "%s", line); });
}

void CThreadPool::dump_sock_event_all(int fd, Printer out)
{
    CDumpLines lines;
    for (int index = 0; index < kMaxPools; ++index) {
        with_pool(index, false, [fd, &lines](CThreadPool& pool) {
            std::shared_lock<Fundel::CReadWriteMutex> sockets(pool.m_sockets.Lock());
            SEvent* event = pool.m_sockets.Find(fd);
            if (!event) return false;
            std::lock_guard<Fundel::CMutex> record(event->m_mutex);
            std::shared_lock<Fundel::CReadWriteMutex> objects(pool.m_objects.Lock());
            SHandlerState* owner = pool.m_objects.Find(event->obj_id);
            CNetHandler* handler = owner ? owner->m_owner : nullptr;
            lines.Add("CNetThread::DumpSockEvent, pool:%d, sock fd: %d, owner: %p, owner type:%s, mask:%u, revents:%u, "
                      "evready:%u, set_time:%d\n",
                      pool.m_index, fd, static_cast<void*>(handler), object_class_name(handler).c_str(),
                      event->socket.m_event_mask, static_cast<unsigned int>(event->socket.m_revents),
                      static_cast<unsigned int>(event->m_evready), event->timer.m_set_time);
            return true;
        });
    }
    if (out) lines.PrintTo(out);
    else lines.ForEach([](const char* line) { CVN_LOG(Fundel::LOG_WARN, "%s", line); });
}

void CThreadPool::dump_pools(Printer out)
{
    CDumpLines lines;
    for (int index = 0; index < kMaxPools; ++index) {
        with_pool(index, false, [&lines](CThreadPool& pool) {
            std::shared_lock<Fundel::CReadWriteMutex> sockets(pool.m_sockets.Lock());
            std::shared_lock<Fundel::CReadWriteMutex> objects(pool.m_objects.Lock());
            int handlers = 0;
            int socks = 0;
            pool.m_objects.ForEach([&handlers](std::int64_t, SHandlerState*) { ++handlers; });
            pool.m_sockets.ForEach([&socks](std::int64_t, SEvent*) { ++socks; });
            lines.Add("pool %d: %u threads, %d handlers, %d sockets, %lld items taken\n", pool.m_index,
                      pool.m_thread_count, handlers, socks, static_cast<long long>(pool.m_progress.load()));
            pool.m_objects.ForEach([&lines](std::int64_t id, SHandlerState* state) {
                lines.Add("  handler obj_id:%lld, object:%p, class:%s\n", static_cast<long long>(id),
                          static_cast<void*>(state->m_owner), object_class_name(state->m_owner).c_str());
            });
            return true;
        });
    }
    lines.PrintTo(out);
}

void CThreadPool::publish(CThreadPool* pool)
{
    std::unique_lock<Fundel::CReadWriteMutex> lock(g_guards[pool->m_index]);
    g_pools[pool->m_index] = pool;
}

CThreadPool* CThreadPool::withdraw(int index)
{
    if (!valid_index(index)) return nullptr;
    std::unique_lock<Fundel::CReadWriteMutex> lock(g_guards[index]);
    CThreadPool* pool = g_pools[index];
    g_pools[index] = nullptr;
    return pool;
}

bool CThreadPool::exists(int index)
{
    return with_pool(index, false, [](CThreadPool&) { return true; });
}

void CThreadPool::post_timeout(SEvent* ev)
{
    m_mux.Disarm(ev);
    m_queue.Append(ev);
}

bool CThreadPool::post(int index, SEvent* head, SEvent* tail, unsigned int count)
{
    return with_pool(index, false, [&](CThreadPool& pool) {
        pool.m_queue.Append(head, tail, count);
        return true;
    });
}

bool CThreadPool::post_front(int index, SEvent* record)
{
    return with_pool(index, false, [&](CThreadPool& pool) {
        pool.m_queue.PushFront(record);
        return true;
    });
}

bool CThreadPool::post_serial(int index, SEvent* record)
{
    return with_pool(index, false, [&](CThreadPool& pool) {
        record->next = nullptr;
        bool need_token;
        {
            std::lock_guard<std::mutex> serial(pool.m_serial_mutex);
            if (pool.m_serial_tail) pool.m_serial_tail->next = record;
            else pool.m_serial_head = record;
            pool.m_serial_tail = record;
            need_token = pool.m_serial_idle;
            pool.m_serial_idle = false;
        }
        if (need_token) {
            SEvent* token = CReclaimPool::sm_reclaim_pool.Take();
            token->m_key = EVENT_SERIAL_TOKEN;
            pool.m_queue.Append(token);
        }
        return true;
    });
}

CNetHandler* CThreadPool::find_handler(std::int64_t id)
{
    SHandlerState* state = id < 0 ? find_object(id) : nullptr;
    return state ? state->m_owner : nullptr;
}

SHandlerState* CThreadPool::find_object(std::int64_t id)
{
    if (id >= 0) return nullptr;
    return with_pool(pool_of(id), static_cast<SHandlerState*>(nullptr), [id](CThreadPool& pool) {
        std::shared_lock<Fundel::CReadWriteMutex> lock(pool.m_objects.Lock());
        SHandlerState* state = pool.m_objects.Find(id);
        if (state) state->m_refs.fetch_add(1);
        return state;
    });
}

std::int64_t CThreadPool::new_id(int index)
{
    return with_pool(index, std::int64_t{0}, [](CThreadPool& pool) { return pool.m_id_pool.GetId(); });
}

void CThreadPool::put_id(std::int64_t id)
{
    with_pool(pool_of(id), false, [id](CThreadPool& pool) {
        pool.m_id_pool.PutId(id);
        return true;
    });
}

std::int64_t CThreadPool::insert_object(int index, SHandlerState* state)
{
    return with_pool(index, std::int64_t{0}, [state](CThreadPool& pool) {
        const std::int64_t id = pool.m_id_pool.GetId();
        state->m_id.store(id);
        std::unique_lock<Fundel::CReadWriteMutex> lock(pool.m_objects.Lock());
        pool.m_objects.Insert(id, state);
        return id;
    });
}

SHandlerState* CThreadPool::remove_object(std::int64_t id)
{
    if (id >= 0) return nullptr;
    return with_pool(pool_of(id), static_cast<SHandlerState*>(nullptr), [id](CThreadPool& pool) {
        SHandlerState* state;
        {
            std::unique_lock<Fundel::CReadWriteMutex> lock(pool.m_objects.Lock());
            state = pool.m_objects.Erase(id);
        }
        if (state) pool.m_id_pool.PutId(id);
        return state;
    });
}

}  // namespace Qelvar::Corvane
