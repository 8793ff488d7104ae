#include "Core/Message.h"

#include <Corvane/NetHandler.h>

#include "Core/ConsoleHooks.h"
#include "Core/CurrentObject.h"
#include "Core/FileThreadPool.h"
#include "Core/HandlerState.h"
#include "Core/ObjectName.h"
#include "Core/ReclaimPool.h"
#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

namespace {

SEvent* make_message(std::int64_t kind, std::int64_t sender, std::int64_t receiver, std::uint32_t type,
                     std::int64_t attach)
{
    SEvent* record = CReclaimPool::sm_reclaim_pool.Take();
    record->m_key = kind;
    record->obj_id = sender;
    record->m_receiver = receiver;
    record->m_type = type;
    record->m_attach = attach;
    return record;
}

}  // namespace

void CMessage::Notify(std::int64_t sender, std::int64_t receiver, std::uint32_t type, std::int64_t attach,
                      bool is_io)
{
    if (receiver >= 0) {
        CVN_LOG(Fundel::LOG_ERROR,
                "CMessage::Notify, invalid receiver id: %ld, sender:%lld, type:%d, info:%lld, is_io:%d\n",
                static_cast<long>(receiver), static_cast<long long>(sender), static_cast<int>(type),
                static_cast<long long>(attach), is_io ? 1 : 0);
        return;
    }
    SEvent* record = make_message(EVENT_MESSAGE, sender, receiver, type, attach);
    if (is_io) {
        if (CFileThreadPool::Instance().Post(record)) return;
        // Nothing would ever take it: say so, since the sender expects it handled.
        CVN_LOG(Fundel::LOG_WARN,
                "CMessage::Notify, no file thread is running, message dropped, receiver:%ld, sender:%lld, type:%d\n",
                static_cast<long>(receiver), static_cast<long long>(sender), static_cast<int>(type));
    } else if (CThreadPool::post(CThreadPool::pool_of(receiver), record, record, 1)) {
        return;
    }
    // No pool for the receiver: it cannot exist, so the message is dropped.
    CReclaimPool::sm_reclaim_pool.GiveBack(record);
}

void CMessage::NotifySerial(std::int64_t sender, std::int64_t receiver, std::uint32_t type, std::int64_t attach,
                            std::uint32_t flag)
{
    if (receiver >= 0) {
        CVN_LOG(Fundel::LOG_ERROR,
                "CMessage::NotifySerial, invalid receiver id: %ld, sender:%lld, type:%d, info:%lld, flag:%u\n",
                static_cast<long>(receiver), static_cast<long long>(sender), static_cast<int>(type),
                static_cast<long long>(attach), flag);
        return;
    }
    SEvent* record = make_message(EVENT_SERIAL_MESSAGE, sender, receiver, type, attach);
    if (!CThreadPool::post_serial(CThreadPool::pool_of(receiver), record)) {
        CReclaimPool::sm_reclaim_pool.GiveBack(record);
    }
}

bool CMessage::Close(std::int64_t id)
{
    SEvent* record = make_message(EVENT_MESSAGE, id, id, kCloseType, 0);
    // At the head of the queue, ahead of every waiting message: a closing object gets
    // out of the table as soon as possible.
    if (CThreadPool::post_front(CThreadPool::pool_of(id), record)) return true;
    CReclaimPool::sm_reclaim_pool.GiveBack(record);
    return false;
}

void CMessage::handle_message(SEvent* record)
{
    const std::int64_t receiver = record->m_receiver;
    SHandlerState* state = CThreadPool::find_object(receiver);
    if (state) {
        CNetHandler* owner = state->m_owner;
        if (record->m_type == kCloseType && record->obj_id == receiver) {
            CVN_LOG(Fundel::LOG_TRACE, "Ready to close NetHandler object:%p, obj_id: %ld, class_type:%s\n",
                    static_cast<void*>(owner), static_cast<long>(receiver), object_class_name(owner).c_str());
            // The table's reference goes with the entry; the lookup's below.
            if (CThreadPool::remove_object(receiver)) owner->DecRef();
        } else {
            const bool traced = CConsoleHooks::Tracing();
            if (traced) CConsoleHooks::TraceDelivery(owner, true, &record->m_type, record->m_attach);
            CCurrentObject::Set(owner, receiver);
            owner->handle_message(static_cast<long>(record->obj_id), record->m_type,
                                  static_cast<long>(record->m_attach));
            CCurrentObject::Clear();
            if (traced) CConsoleHooks::TraceDelivery(owner, false, &record->m_type, record->m_attach);
        }
        owner->DecRef();
    }
    CReclaimPool::sm_reclaim_pool.GiveBack(record);
}

}  // namespace Qelvar::Corvane
