#include "Core/NetSock.h"

#include <Corvane/NetHandler.h>
#include <Corvane/Sock.h>

#include "Core/CurrentObject.h"
#include "Core/HandlerState.h"
#include "Core/MirtDispatcher.h"
#include "Core/ObjectName.h"
#include "Core/ReclaimPool.h"
#include "Core/SockTimer.h"
#include "Core/SockTrace.h"
#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"

namespace Qelvar::Corvane {

namespace {

using Guard = std::shared_lock<Fundel::CReadWriteMutex>;

long long id_of(CNetHandler* owner)
{
    return owner->GetID();
}

std::string class_of(CNetHandler* owner)
{
    return object_class_name(owner);
}

// The owner of a record as log lines name it: its address and class, or "NULL" when it
// no longer exists.
struct SOwnerName {
    explicit SOwnerName(long long id)
    {
        SHandlerState* state = CThreadPool::find_object(id);
        object = state ? state->m_owner : nullptr;
        name = object_class_name(object);
        if (state) state->m_owner->DecRef();
    }
    CNetHandler* object;
    std::string name;
};

// Protected records refuse every object but their owner.
bool protected_from(const SEvent* ev, CNetHandler* caller)
{
    return (ev->socket.m_event_mask & MASK_PROTECT) && ev->obj_id != id_of(caller);
}

void log_protected(const char* format, const SEvent* ev, CNetHandler* caller)
{
    const SOwnerName owner(ev->obj_id);
    CVN_LOG(Fundel::LOG_WARN, format, static_cast<int>(ev->m_key), static_cast<void*>(owner.object),
            owner.name.c_str(), static_cast<void*>(caller), class_of(caller).c_str());
}

// Looks a socket up in the pool's table and returns its record locked, or null.
SEvent* find_locked(CThreadPool& pool, int fd)
{
    std::shared_lock<Fundel::CReadWriteMutex> table(pool.Sockets().Lock());
    SEvent* ev = pool.Sockets().Find(fd);
    if (ev) ev->m_mutex.Enter();
    return ev;
}

// The socket's time-out after a callback or a registration: `ms` below 1 deletes it,
// otherwise it is reset or added. The record is locked.
void reset_timer(SEvent* ev, int ms)
{
    CVN_SOCK_TRACE(ev->m_key, ev->obj_id, "<Corvane Debug>CNetSock::reset_timer obj_id:%lld, timt_out:%d, socket:%lld.\n",
                   static_cast<long long>(ev->obj_id), ms, static_cast<long long>(ev->m_key));
    CSockTimer::Instance().Rearm(ev, ms);
}

// Erases a record: the table is write-locked and the record locked by the caller; both
// are released here and the record goes back to the reclaim pool.
void remove_sock(CThreadPool& pool, SEvent* ev, std::unique_lock<Fundel::CReadWriteMutex>& table)
{
    CVN_SOCK_TRACE(ev->m_key, ev->obj_id, "<Corvane Debug>Enter CNetSock::remove_sock obj_id:%lld, socket:%lld.\n",
                   static_cast<long long>(ev->obj_id), static_cast<long long>(ev->m_key));
    pool.Sockets().Erase(ev->m_key);
    table.unlock();
    CSockTimer::Instance().Delete(ev);
    ev->socket.m_event_mask = MASK_NONE;
    ev->m_mutex.Leave();
    CReclaimPool::sm_reclaim_pool.GiveBack(ev);
}

// Checks the handle of a registration: a negative one is refused, 0 to 2 warned about.
bool valid_handle(CNetHandler* owner, int fd, unsigned int mask, int time_out)
{
    if (fd < 0) {
        CVN_LOG(Fundel::LOG_ERROR, "RegisterSock sock fd error, fd: %d\n", fd);
        CVN_LOG(Fundel::LOG_WARN,
                "CNetSock Register an invalid sock, obj:%p, obj_id:%ld, obj_type:%s, socket:%d\n, mask:%d, "
                "time_out:%u\n",
                static_cast<void*>(owner), owner->GetID(), class_of(owner).c_str(), fd, static_cast<int>(mask),
                static_cast<unsigned int>(time_out));
        return false;
    }
    if (fd <= 2) CVN_LOG(Fundel::LOG_WARN, "RegisterSock sock fd specially with standard stream value: %d\n", fd);
    return true;
}

}  // namespace

// Modifies an existing record (locked by the caller, unlocked here) for `owner`.
int CNetSock::modify_exist_event(CThreadPool& pool, CNetHandler* owner, SEvent* ev, unsigned int mask, int ms)
{
    CVN_SOCK_TRACE(ev->m_key, id_of(owner),
                   "<Corvane Debug>CNetSock::modify_exist_event obj:%p, obj_id:%ld, obj_type:%s, socket:%d, mask:%u, "
                   "time_out:%d, m_set_time:%d, m_revents:%d.\n",
                   static_cast<void*>(owner), owner->GetID(), class_of(owner).c_str(), static_cast<int>(ev->m_key), mask,
                   ms, ev->timer.m_set_time, static_cast<int>(ev->socket.m_revents));
    const std::uint32_t old_mask = ev->socket.m_event_mask;
    if (protected_from(ev, owner) && !(old_mask & MASK_DELETE)) {
        ev->m_mutex.Leave();
        log_protected("modify a protected socket event failed, socket:%d, owner:%p, owner type:%s, new:%p, new "
                      "type:%s,\n",
                      ev, owner);
        return -1;
    }
    // The registration moves to whoever registers the socket last.
    ev->obj_id = id_of(owner);
    if (ev->timer.m_set_time != 0 || ms != 0) {
        // While a callback runs, the new time-out waits for it to return.
        if (ev->socket.m_revents != 0) ev->timer.m_set_time = ms;
        else reset_timer(ev, ms);
    }
    ev->socket.m_event_mask |= mask;
    if (old_mask & MASK_DELETE) {
        // Registering a socket whose removal is pending cancels the removal.
        ev->socket.m_event_mask &= ~static_cast<std::uint32_t>(MASK_DELETE);
        owner->AddSock();
    }
    if (ev->socket.m_revents == 0) pool.Multiplexer().Rearm(ev);
    ev->m_mutex.Leave();
    return 0;
}

// Creates the record of a socket new to the pool. The table is write-locked by the
// caller and released here.
int CNetSock::register_new_event(CThreadPool& pool, CNetHandler* owner, int fd, unsigned int mask, int ms,
                                 std::unique_lock<Fundel::CReadWriteMutex>& table)
{
    CVN_SOCK_TRACE(fd, id_of(owner),
                   "<Corvane Debug>CNetSock::register_new_event obj:%p, obj_id:%ld, obj_type:%s, socket:%d, mask:%u, "
                   "time_out:%d\n",
                   static_cast<void*>(owner), owner->GetID(), class_of(owner).c_str(), fd, mask, ms);
    SEvent* ev = CReclaimPool::sm_reclaim_pool.Take();
    ev->m_key = fd;
    ev->obj_id = id_of(owner);
    ev->socket.m_event_mask = mask;
    ev->timer.m_self = ev;
    std::lock_guard<Fundel::CMutex> record(ev->m_mutex);
    pool.Sockets().Insert(fd, ev);
    if (pool.Multiplexer().Add(ev) != 0) {
        // A descriptor the system will not watch (closed, not a socket): no registration.
        pool.Sockets().Erase(fd);
        table.unlock();
        CReclaimPool::sm_reclaim_pool.GiveBack(ev);
        return -1;
    }
    table.unlock();
    if (ms > 0) CSockTimer::Instance().Add(ev, ms);
    owner->AddSock();
    return 0;
}

int CNetSock::general_register(CNetHandler* owner, int fd, unsigned int mask, int time_out)
{
    // Microseconds in, milliseconds kept: truncated toward zero.
    const int ms = time_out / 1000;
    if (id_of(owner) >= 0) return -1;  // no pool: never opened, or its pool was destroyed
    Guard guard;
    CThreadPool* pool = CThreadPool::acquire(CThreadPool::pool_of(id_of(owner)), guard);
    if (!pool) return -1;
    if (SEvent* ev = find_locked(*pool, fd)) return modify_exist_event(*pool, owner, ev, mask, ms);
    std::unique_lock<Fundel::CReadWriteMutex> table(pool->Sockets().Lock());
    if (SEvent* ev = pool->Sockets().Find(fd)) {
        // Registered by another thread meanwhile.
        ev->m_mutex.Enter();
        table.unlock();
        return modify_exist_event(*pool, owner, ev, mask, ms);
    }
    return register_new_event(*pool, owner, fd, mask, ms, table);
}

int CNetSock::RegisterSock(CNetHandler* owner, CSock& sock, unsigned int mask, int time_out)
{
    const int fd = sock.GetHandle();
    CVN_SOCK_TRACE(fd, id_of(owner),
                   "<Corvane Debug>CNetSock::RegisterSock obj:%p, obj_id:%ld, obj_type:%s, socket:%d, mask:%d, "
                   "time_out:%d\n",
                   static_cast<void*>(owner), owner->GetID(), class_of(owner).c_str(), fd, static_cast<int>(mask),
                   time_out);
    if (!valid_handle(owner, fd, mask, time_out)) return -1;
    // A proxy that answers -1 has taken the registration over: nothing more to do.
    if (sock.GetType() == SOCK_TYPE_SSL_ASYNC && sock.doProxyRegister(owner, sock, mask, time_out) == -1) return 0;
    return general_register(owner, fd, mask, time_out);
}

int CNetSock::generalRegisterSock(CNetHandler* owner, CSock& sock, unsigned int mask, int time_out)
{
    const int fd = sock.GetHandle();
    if (!valid_handle(owner, fd, mask, time_out)) return -1;
    return general_register(owner, fd, mask, time_out);
}

int CNetSock::general_unregister(CNetHandler* owner, int fd, unsigned int mask)
{
    Guard guard;
    CThreadPool* pool = CThreadPool::acquire(CThreadPool::pool_of(id_of(owner)), guard);
    if (!pool) return 0;
    SEvent* ev = find_locked(*pool, fd);
    if (!ev) return 0;
    if (protected_from(ev, owner)) {
        ev->m_mutex.Leave();
        log_protected("unregister a protected socket event failed, socket:%d, owner:%p, owner type:%s, new:%p, new "
                      "type:%s\n",
                      ev, owner);
        return -1;
    }
    if (ev->socket.m_event_mask & mask) {
        ev->socket.m_event_mask &= ~mask;
        if (!(ev->socket.m_event_mask & (MASK_READ | MASK_WRITE)) && CSockTimer::Instance().IsArmed(ev)) {
            CSockTimer::Instance().Delete(ev);
        }
        if (ev->socket.m_revents == 0) pool->Multiplexer().Rearm(ev);
    }
    ev->m_mutex.Leave();
    return 0;
}

int CNetSock::UnregisterSock(CNetHandler* owner, CSock& sock, unsigned int mask)
{
    const int fd = sock.GetHandle();
    CVN_SOCK_TRACE(fd, id_of(owner),
                   "<Corvane Debug>CNetSock::UnregisterSock obj:%p, obj_id:%ld, obj_type:%s, socket:%d, mask:%d.\n",
                   static_cast<void*>(owner), owner->GetID(), class_of(owner).c_str(), fd, static_cast<int>(mask));
    if (sock.GetType() == SOCK_TYPE_SSL_ASYNC && sock.doProxyUnregisterSock(owner, sock, mask) == -1) return 0;
    return general_unregister(owner, fd, mask);
}

int CNetSock::generalUnregisterSock(CNetHandler* owner, CSock& sock, unsigned int mask)
{
    return general_unregister(owner, sock.GetHandle(), mask);
}

int CNetSock::general_remove(CNetHandler* owner, int fd)
{
    Guard guard;
    CThreadPool* pool = CThreadPool::acquire(CThreadPool::pool_of(id_of(owner)), guard);
    if (!pool) return 0;
    std::unique_lock<Fundel::CReadWriteMutex> table(pool->Sockets().Lock());
    SEvent* ev = pool->Sockets().Find(fd);
    if (!ev) return 0;
    ev->m_mutex.Enter();
    if (protected_from(ev, owner)) {
        ev->m_mutex.Leave();
        table.unlock();
        log_protected("remove a protected socket failed, socket:%d, owner:%p, owner type:%s, new:%p, new type:%s\n",
                      ev, owner);
        return -1;
    }
    if (ev->socket.m_event_mask & MASK_DELETE) {
        // Already being removed by the thread that handles it.
        ev->m_mutex.Leave();
        return 0;
    }
    owner->DecSock();
    // Out of the system poller now, while the descriptor is surely still open: the
    // caller may close it as soon as this returns, and the number may be reused.
    pool->Multiplexer().Remove(ev);
    if (ev->socket.m_revents != 0) {
        // A thread is handling the socket now: it finishes the removal after the callback.
        ev->socket.m_revents = QV_POLLDEL;
        ev->socket.m_event_mask = MASK_DELETE;
        CVN_SOCK_TRACE(fd, id_of(owner), "<Corvane Debug>CNetSock::RemoveSock &2 obj:%p, obj_id:%ld, obj_type:%s, socket:%d.\n",
                       static_cast<void*>(owner), owner->GetID(), class_of(owner).c_str(), fd);
        ev->m_mutex.Leave();
        return 0;
    }
    CVN_SOCK_TRACE(fd, id_of(owner), "<Corvane Debug>CNetSock::RemoveSock &1 obj:%p, obj_id:%ld, obj_type:%s, socket:%d.\n",
                   static_cast<void*>(owner), owner->GetID(), class_of(owner).c_str(), fd);
    remove_sock(*pool, ev, table);
    return 0;
}

int CNetSock::RemoveSock(CNetHandler* owner, CSock& sock)
{
    if (sock.GetType() == SOCK_TYPE_SSL_ASYNC && sock.doProxyRemoveSock(owner, sock) == -1) return 0;
    return general_remove(owner, sock.GetHandle());
}

int CNetSock::generalRemoveSock(CNetHandler* owner, CSock& sock)
{
    return general_remove(owner, sock.GetHandle());
}

int CNetSock::CheckSock(CNetHandler* owner, CSock& sock)
{
    const int fd = sock.GetHandle();
    std::uint32_t mask = 0;
    {
        Guard guard;
        CThreadPool* pool = CThreadPool::acquire(CThreadPool::pool_of(id_of(owner)), guard);
        if (!pool) return 0;
        SEvent* ev = find_locked(*pool, fd);
        if (!ev) return 0;
        mask = ev->socket.m_event_mask;
        ev->m_mutex.Leave();
    }
    // Deliberately asymmetric: a reader keeps its registration and loses only Write.
    if (mask & MASK_READ) general_unregister(owner, fd, MASK_WRITE);
    else general_remove(owner, fd);
    return 0;
}

// Runs the owner's callbacks for the result bits of one event; -1 when the owner no
// longer exists.
long long CNetSock::handle_net(std::int64_t obj_id, int fd, std::uint16_t revents)
{
    long long result = -1;
    const bool found = CThreadPool::with_handler(obj_id, [&](CNetHandler& owner) {
        CVN_SOCK_TRACE(fd, obj_id,
                       "<Corvane Debug>CNetSock::handle_net obj:%p, obj_id:%lld, obj_type:%s handle sock event begin "
                       "at %llu us, fd:%lld, revents:%d.\n",
                       static_cast<void*>(&owner), static_cast<long long>(obj_id), class_of(&owner).c_str(),
                       static_cast<unsigned long long>(Fundel::CTime::getCurrentMicroSecond()),
                       static_cast<long long>(fd), static_cast<int>(revents));
        CCurrentObject::Set(&owner, obj_id);
        if (revents & QV_POLLERR) {
            result = owner.handle_exception(fd);
        } else {
            if (revents & QV_POLLIN) result = owner.handle_input(fd);
            if (revents & QV_POLLOUT) result = owner.handle_output(fd);
        }
        CCurrentObject::Clear();
    });
    if (!found) {
        CVN_SOCK_TRACE(fd, obj_id,
                       "<Corvane Debug>CNetSock::handle_net obj_id:%lld, handle sock net event: not found obj.\n",
                       static_cast<long long>(obj_id));
    }
    return result;
}

// Runs the owner's time-out callback of one event; -1 when the owner no longer exists.
long long CNetSock::handle_timeout(std::int64_t obj_id, int fd, std::uint16_t revents)
{
    long long result = -1;
    const bool found = CThreadPool::with_handler(obj_id, [&](CNetHandler& owner) {
        CVN_SOCK_TRACE(fd, obj_id,
                       "<Corvane Debug>CNetSock::handle_timeout obj:%p, obj_id:%lld, obj_type:%s handle sock timeout "
                       "begin at %llu us, fd:%lld, revents:%d.\n",
                       static_cast<void*>(&owner), static_cast<long long>(obj_id), class_of(&owner).c_str(),
                       static_cast<unsigned long long>(Fundel::CTime::getCurrentMicroSecond()),
                       static_cast<long long>(fd), static_cast<int>(revents));
        CCurrentObject::Set(&owner, obj_id);
        result = (revents & QV_POLLIN_TIMEOUT) ? owner.handle_input_timeout(fd) : owner.handle_output_timeout(fd);
        CCurrentObject::Clear();
    });
    if (!found) {
        CVN_SOCK_TRACE(fd, obj_id,
                       "<Corvane Debug>CNetSock::handle_timeout obj_id:%lld, handle sock timeout: not found obj.\n",
                       static_cast<long long>(obj_id));
    }
    return result;
}

void CNetSock::handle_netevent(CThreadPool& pool, SEvent* ev)
{
    std::int64_t obj_id;
    std::uint16_t revents;
    {
        std::lock_guard<Fundel::CMutex> record(ev->m_mutex);
        obj_id = ev->obj_id;
        revents = ev->socket.m_revents;
    }
    const int fd = static_cast<int>(ev->m_key);
    const bool timeout = (revents & (QV_POLLIN_TIMEOUT | QV_POLLOUT_TIMEOUT)) != 0;
    const long long result = timeout ? handle_timeout(obj_id, fd, revents) : handle_net(obj_id, fd, revents);
    CVN_SOCK_TRACE(fd, obj_id,
                   timeout ? "<Corvane Debug>Enter CNetSock::handle_netevent handle_timeout end obj_id:%lld "
                             "socket:%lld, m_revents:%d, m_event_mask:%d ret:%lld, m_set_time:%d.\n"
                           : "<Corvane Debug>Enter CNetSock::handle_netevent handle_net end obj_id:%lld socket:%lld, "
                             "m_revents:%d, m_event_mask:%d ret:%lld, m_set_time:%d.\n",
                   static_cast<long long>(obj_id), static_cast<long long>(fd), static_cast<int>(revents),
                   static_cast<int>(ev->socket.m_event_mask), result, ev->timer.m_set_time);
    finish(pool, ev, result);
}

// After the callback, on a worker of the record's pool: finish a removal asked for
// meanwhile, or put the socket back into the poller with its time-out. The socket table
// is locked only to erase: while the record is being handled, nothing else can free it.
void CNetSock::finish(CThreadPool& pool_ref, SEvent* ev, long long result)
{
    CThreadPool* pool = &pool_ref;
    ev->m_mutex.Enter();
    if (ev->socket.m_event_mask & MASK_DELETE) {
        ev->m_mutex.Leave();
        std::unique_lock<Fundel::CReadWriteMutex> table(pool->Sockets().Lock());
        ev->m_mutex.Enter();
        // A registration may have cancelled the removal while the record was unlocked.
        // RemoveSock took the socket out of the poller already.
        if (ev->socket.m_event_mask & MASK_DELETE) {
            remove_sock(*pool, ev, table);
            return;
        }
    }
    if (ev->socket.m_event_mask == MASK_NONE) {
        CVN_LOG(Fundel::LOG_INFO,
                "handle_netevent error, event->socket.m_event_mask invalid event:[%p] event->socket.m_event_mask:[%d], "
                "event->m_key:[%lld], event->socket.m_revents:[%d]\n",
                static_cast<void*>(ev), static_cast<int>(ev->socket.m_event_mask), static_cast<long long>(ev->m_key),
                static_cast<int>(ev->socket.m_revents));
        ev->m_evready = 0;
        ev->socket.m_revents = 0;
        ev->m_mutex.Leave();
        return;
    }
    // A removal that was cancelled ignores the callback's result.
    const long long r = (ev->socket.m_revents & QV_POLLDEL) ? 0 : result;
    ev->socket.m_revents = 0;
    ev->m_evready = 0;
    pool->Multiplexer().Rearm(ev);
    int next = -1;
    if (r == 0) next = ev->timer.m_set_time > 0 ? ev->timer.m_set_time : 0;
    else if (r > 0) next = static_cast<int>(r / 1000);
    reset_timer(ev, next);
    ev->m_mutex.Leave();
}

int CNetSock::InitEnvironment()
{
    const int err = Platform::sock_startup();
    if (err == 0) return 0;
    char text[256];
    Platform::error_text(err, text, sizeof text);
    if (Platform::is_unsupported_version(err)) {
        CVN_LOG(Fundel::LOG_ERROR, "check Berkeley Sockets version failed! ERR:[%d],%s\n", err, text);
    } else {
        CVN_LOG(Fundel::LOG_ERROR, "WSAStartup failed! ERR:[%d],%s\n", err, text);
    }
    return -1;
}

void CNetSock::CleanupEnvironment()
{
    Platform::sock_cleanup();
}

}  // namespace Qelvar::Corvane
