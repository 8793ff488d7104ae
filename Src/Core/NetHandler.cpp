#include <Corvane/NetHandler.h>

#include <Corvane/TsMemory.h>

#include "Core/HandlerState.h"
#include "Core/Message.h"
#include "Core/NetSock.h"
#include "Core/NetTimer.h"
#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

CNetHandler::CNetHandler() : m_state(nullptr)
{
    open_object(0);
}

CNetHandler::CNetHandler(int pool) : m_state(nullptr)
{
    open_object(pool);
}

void CNetHandler::open_object(int pool)
{
    m_state = new SHandlerState;
    m_state->m_owner = this;
    // The table's reference, counted before the id is published.
    m_state->m_refs.store(1);
    if (CThreadPool::insert_object(pool, m_state) != 0) return;
    m_state->m_refs.store(0);
    CVN_LOG(Fundel::LOG_FATAL, "this:%p Can't find the thread pool %d, create thread pool first!\n",
            static_cast<void*>(this), pool);
    FUNDEL_ASSERT_TEXT(false, "thread pool exists");
}

CNetHandler::~CNetHandler()
{
    std::uint16_t magic;
    {
        std::lock_guard<Fundel::CMutex> lock(m_state->m_mutex);
        magic = m_state->m_magic;
    }
    FUNDEL_ASSERT_TEXT(magic == HANDLER_CLOSED, "__m_magic == 0x0202");
    if (magic != HANDLER_CLOSED) {
        // Never leave a table entry pointing at freed memory.
        const std::int64_t id = m_state->m_id.load();
        if (id != 0) CThreadPool::remove_object(id);
    }
    if (m_state->m_socks.load() > 0) {
        CVN_LOG(Fundel::LOG_ERROR,
                "this:%p some sockets registered on obj %p has not been removed, please remove it before close the "
                "obj!\n",
                static_cast<void*>(this), static_cast<void*>(this));
    }
    delete m_state;
    m_state = nullptr;
}

int CNetHandler::handle_input(int)
{
    return -1;
}

int CNetHandler::handle_output(int)
{
    return -1;
}

int CNetHandler::handle_exception(int)
{
    return -1;
}

int CNetHandler::handle_input_timeout(int)
{
    return -1;
}

int CNetHandler::handle_output_timeout(int)
{
    return -1;
}

int CNetHandler::handle_exception_timeout(int)
{
    return -1;
}

long long CNetHandler::handle_timeout(long)
{
    return -1;
}

int CNetHandler::handle_close(CNetHandler*)
{
    return -1;
}

int CNetHandler::handle_message(long, unsigned int, long)
{
    return -1;
}

void CNetHandler::Close()
{
    std::int64_t id;
    bool detached;
    {
        std::lock_guard<Fundel::CMutex> lock(m_state->m_mutex);
        if (m_state->m_magic != HANDLER_OPEN) return;
        m_state->m_magic = HANDLER_CLOSED;
        id = m_state->m_id.load();
        detached = m_state->m_detached;
        m_state->m_detached = false;
    }
    // The pool's thread takes the object out of the table and drops the table's
    // reference. When the pool is gone the reference is dropped here, or by the pool's
    // teardown if that is still under way.
    if (detached) DecRef();
    else if (id != 0) CMessage::Close(id);
}

void CNetHandler::AddRef()
{
    m_state->m_refs.fetch_add(1);
}

void CNetHandler::DecRef()
{
    if (m_state->m_refs.fetch_sub(1) != 1) return;
    {
        std::lock_guard<Fundel::CMutex> lock(m_state->m_mutex);
        if (m_state->m_released) return;
        m_state->m_released = 1;
    }
    handle_close(this);
}

void CNetHandler::AddSock()
{
    m_state->m_socks.fetch_add(1);
}

void CNetHandler::DecSock()
{
    m_state->m_socks.fetch_sub(1);
}

long CNetHandler::GetID()
{
    return static_cast<long>(static_cast<std::int32_t>(m_state->m_id.load()));
}

void CNetHandler::SetDefaultRcer(long id)
{
    m_state->m_default_rcer.store(id);
}

int CNetHandler::guarded_begin()
{
    std::lock_guard<Fundel::CMutex> lock(m_state->m_mutex);
    if (m_state->m_magic != HANDLER_OPEN) return -1;
    m_state->m_refs.fetch_add(1);
    return 0;
}

void CNetHandler::guarded_end()
{
    DecRef();
}

int CNetHandler::CheckSock(CSock& sock)
{
    return CNetSock::CheckSock(this, sock);
}

int CNetHandler::RegisterSock(CSock& sock, unsigned int mask, int time_out)
{
    if (guarded_begin() != 0) return -1;
    const int ret = CNetSock::RegisterSock(this, sock, mask, time_out);
    guarded_end();
    return ret;
}

int CNetHandler::generalRegisterSock(CSock& sock, unsigned int mask, int time_out)
{
    if (guarded_begin() != 0) return -1;
    const int ret = CNetSock::generalRegisterSock(this, sock, mask, time_out);
    guarded_end();
    return ret;
}

int CNetHandler::UnregisterSock(CSock& sock, unsigned int mask)
{
    return CNetSock::UnregisterSock(this, sock, mask);
}

int CNetHandler::generalUnregisterSock(CSock& sock, unsigned int mask)
{
    return CNetSock::generalUnregisterSock(this, sock, mask);
}

int CNetHandler::RemoveSock(CSock& sock)
{
    return CNetSock::RemoveSock(this, sock);
}

int CNetHandler::generalRemoveSock(CSock& sock)
{
    return CNetSock::generalRemoveSock(this, sock);
}

long CNetHandler::SetTimer(long long time_out)
{
    if (guarded_begin() != 0) return -1;
    const std::int64_t id = m_state->m_id.load();
    const std::int64_t timer = id != 0 ? CNetTimer::Instance().SetTimer(id, time_out) : -1;
    guarded_end();
    return static_cast<long>(timer);
}

void CNetHandler::DestroyTimer(long timer_id)
{
    CNetTimer::Instance().DestroyTimer(static_cast<std::int64_t>(timer_id));
}

void CNetHandler::Notify(long to_id, unsigned int type, long attach)
{
    CMessage::Notify(m_state->m_id.load(), to_id, type, attach, false);
}

void CNetHandler::Notify(unsigned int type, long attach)
{
    CMessage::Notify(m_state->m_id.load(), m_state->m_default_rcer.load(), type, attach, false);
}

void CNetHandler::NotifySerial(long to_id, unsigned int type, long attach, unsigned int flag)
{
    CMessage::NotifySerial(m_state->m_id.load(), to_id, type, attach, flag);
}

void CNetHandler::NotifySerial(unsigned int type, long attach, unsigned int flag)
{
    CMessage::NotifySerial(m_state->m_id.load(), m_state->m_default_rcer.load(), type, attach, flag);
}

void CNetHandler::NotifyIO(long to_id, unsigned int type, long attach)
{
    CMessage::Notify(m_state->m_id.load(), to_id, type, attach, true);
}

void CNetHandler::NotifyIO(unsigned int type, long attach)
{
    CMessage::Notify(m_state->m_id.load(), m_state->m_default_rcer.load(), type, attach, true);
}

void* CNetHandler::Malloc(unsigned int size)
{
    return CTsMemory::Malloc(size);
}

void CNetHandler::Free(void* p)
{
    CTsMemory::Free(p);
}

void* CNetHandler::TsMalloc(unsigned int size)
{
    return CTsMemory::TsMalloc(size);
}

void CNetHandler::TsFree(void* p)
{
    CTsMemory::TsFree(p);
}

}  // namespace Qelvar::Corvane
