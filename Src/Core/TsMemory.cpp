#include <Corvane/TsMemory.h>

#include <atomic>
#include <mutex>

#include "Core/MemPool.h"
#include "Core/TsMemoryPools.h"
#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

namespace {

// The slot is a plain thread_local pointer: it needs no key made or freed at run time,
// and it is only touched by this file's functions, never from outside the library, so
// it works the same inside Corvane.dll.
thread_local CMemPool* t_pool = nullptr;

// Read without the key mutex on every Malloc/Free; written under it.
std::atomic<CMemPool*> g_shared_pool{nullptr};
// Guards creating the shared pool and freeing it.
std::mutex g_key_mutex;
// Held around the shared pool's list operations only, never around a heap call.
Fundel::CMutex g_shared_mutex;

}  // namespace

const CMemPool* ts_memory::thread_pool()
{
    return t_pool;
}

const CMemPool* ts_memory::shared_pool()
{
    return g_shared_pool.load(std::memory_order_acquire);
}

void CTsMemory::CreateMemPool()
{
    std::lock_guard<std::mutex> lock(g_key_mutex);
    if (!t_pool) t_pool = CMemPool::Create();
    if (!g_shared_pool.load(std::memory_order_relaxed)) {
        g_shared_pool.store(CMemPool::Create(), std::memory_order_release);
    }
}

void* CTsMemory::TsMalloc(unsigned int size)
{
    return CMemPool::Allocate(t_pool, size, nullptr, "CTsMemory::TsMalloc");
}

void CTsMemory::TsFree(void* p)
{
    if (!p) return;
    if (!t_pool) {
        // A thread that frees here without CreateMemPool is a caller's mistake: the line
        // names it, and the block is left as it is.
        CVN_LOG(Fundel::LOG_WARN, "%s :TsFree falid! pool:%p\n", "CTsMemory::TsFree",
                static_cast<void*>(t_pool));
        return;
    }
    CMemPool::Release(t_pool, p, nullptr);
}

void* CTsMemory::Malloc(unsigned int size)
{
    return CMemPool::Allocate(g_shared_pool.load(std::memory_order_acquire), size,
                              &g_shared_mutex, "CTsMemory::Malloc");
}

void CTsMemory::Free(void* p)
{
    if (!p) return;
    CMemPool::Release(g_shared_pool.load(std::memory_order_acquire), p, &g_shared_mutex);
}

void CTsMemory::DestroyThreadMemPool()
{
    CMemPool::Destroy(t_pool);
    t_pool = nullptr;
}

void CTsMemory::DestroyMemPool()
{
    std::lock_guard<std::mutex> lock(g_key_mutex);
    CMemPool::Destroy(g_shared_pool.exchange(nullptr, std::memory_order_acq_rel));
}

void CTsMemory::InitStaticVal()
{
}

}  // namespace Qelvar::Corvane
