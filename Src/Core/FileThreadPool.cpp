#include "Core/FileThreadPool.h"

#include <Corvane/NetHandler.h>
#include <Corvane/TsMemory.h>

#include "Core/CurrentObject.h"
#include "Core/FileRequest.h"
#include "Core/Message.h"
#include "Core/ReclaimPool.h"
#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

CFileThreadPool& CFileThreadPool::Instance()
{
    static CFileThreadPool* instance = new CFileThreadPool;
    return *instance;
}

int CFileThreadPool::Start(unsigned int count)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_running) return -1;
    auto queue = std::make_shared<CWorkQueue>();
    Threads threads;
    for (unsigned int i = 0; i < count; ++i) {
        auto thread = std::make_unique<Fundel::CThreadLite>();
        Fundel::CThreadLite* self = thread.get();
        if (thread->Create("Corvane::FileThread", [self, queue] { thread_loop(*self, *queue); }, 64) != 0) {
            CVN_LOG(Fundel::LOG_ERROR, "createThread failed, threadnum:%u, seq:%u\n", count, i);
            stop_threads(threads, *queue);
            return -1;
        }
        threads.push_back(std::move(thread));
    }
    m_threads.swap(threads);
    m_queue = std::move(queue);
    m_running = true;
    return 0;
}

void CFileThreadPool::Stop()
{
    Threads threads;
    std::shared_ptr<CWorkQueue> queue;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_running) return;
        m_running = false;
        threads.swap(m_threads);
        queue.swap(m_queue);
    }
    stop_threads(threads, *queue);
}

void CFileThreadPool::stop_threads(Threads& threads, CWorkQueue& queue)
{
    // The stop request of the file threads: Cancel ends each loop and Release wakes the
    // threads that wait for a record.
    for (auto& thread : threads) thread->Cancel();
    queue.Release();
    for (auto& thread : threads) thread->Join();
    threads.clear();
    for (SEvent* r = queue.Detach(); r;) {
        SEvent* next = r->next;
        r->next = nullptr;
        // A file request left queued still runs, so no written byte and no close is lost;
        // m_running is false by now, so whatever it posts runs here too.
        if (r->m_key == EVENT_FILE_REQUEST) run_file_request(r);
        else CReclaimPool::sm_reclaim_pool.GiveBack(r);
        r = next;
    }
}

void CFileThreadPool::run_file_request(SEvent* record)
{
    auto* target = reinterpret_cast<CFileRequest_IF*>(static_cast<std::intptr_t>(record->m_attach));
    CNetHandler* object = target->request_object();
    CCurrentObject::Set(object, object->GetID());
    // The object may be gone after the call: only the thread's slot is touched then.
    target->handle_file_request(record);
    CCurrentObject::Clear();
}

bool CFileThreadPool::IsRunning()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_running;
}

bool CFileThreadPool::Post(SEvent* record)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running) return false;
    m_queue->Append(record);
    return true;
}

void CFileThreadPool::thread_loop(Fundel::CThreadLite& thread, CWorkQueue& queue)
{
    CTsMemory::CreateMemPool();
    CCurrentObject::Register();
    while (thread.IsLooping()) {
        SEvent* record = queue.Take();
        if (!record) continue;
        if (record->m_key == EVENT_MESSAGE) {
            CMessage::handle_message(record);
        } else if (record->m_key == EVENT_FILE_REQUEST) {
            run_file_request(record);
        } else {
            CVN_LOG(Fundel::LOG_FATAL, "this:%p Exist unexpected event, Please check it, key : [%lld]!\n",
                    static_cast<void*>(&queue), static_cast<long long>(record->m_key));
            CReclaimPool::sm_reclaim_pool.GiveBack(record);
        }
    }
    CCurrentObject::Unregister();
    CTsMemory::DestroyThreadMemPool();
}

}  // namespace Qelvar::Corvane
