#include "Core/MemPool.h"

#include <cstdlib>
#include <new>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

namespace {

struct SClassInfo {
    std::uint16_t limit;
    std::uint32_t size;
};

// Small control blocks, packet-sized buffers (class 18: one 1500-byte packet, cached
// twice as deep), then coarser steps for page- and frame-sized buffers.
constexpr SClassInfo class_info(int cls)
{
    if (cls < 16) return {2048, static_cast<std::uint32_t>(cls + 1) * 8};
    if (cls == 16) return {2048, 256};
    if (cls == 17) return {2048, 512};
    if (cls == 18) return {4096, 1500};
    if (cls <= 34) return {static_cast<std::uint16_t>(cls <= 20 ? 2048 : 128),
                           static_cast<std::uint32_t>(cls - 18) * 4096};
    if (cls <= 44) return {static_cast<std::uint16_t>(cls <= 36 ? 128 : 64),
                           static_cast<std::uint32_t>(cls - 30) * 16384};
    return {0, 0};  // class 45: never used
}

constexpr std::array<SClassInfo, CMemPool::CLASS_COUNT> make_classes()
{
    std::array<SClassInfo, CMemPool::CLASS_COUNT> table{};
    for (int i = 0; i < CMemPool::CLASS_COUNT; ++i) table[i] = class_info(i);
    return table;
}

constexpr std::array<SClassInfo, CMemPool::CLASS_COUNT> g_classes = make_classes();

static_assert(g_classes[44].size == CMemPool::LARGEST_CLASS_SIZE);

void* user_address(SMemBlock* block)
{
    return reinterpret_cast<char*>(block) + CMemPool::HEADER_SIZE;
}

SMemBlock* block_of(void* p)
{
    return reinterpret_cast<SMemBlock*>(static_cast<char*>(p) - CMemPool::HEADER_SIZE);
}

// Holds `lock` when one is given; the per-thread pools pass none.
class COptionalLock {
public:
    explicit COptionalLock(Fundel::CMutex* lock) : m_lock(lock)
    {
        if (m_lock) m_lock->Enter();
    }
    ~COptionalLock() { Unlock(); }
    COptionalLock(const COptionalLock&) = delete;
    COptionalLock& operator=(const COptionalLock&) = delete;

    void Unlock()
    {
        if (m_lock) m_lock->Leave();
        m_lock = nullptr;
    }

private:
    Fundel::CMutex* m_lock;
};

}  // namespace

CMemPool::CMemPool()
{
    for (int i = 0; i < CLASS_COUNT; ++i) {
        m_classes[i] = {g_classes[i].limit, 0, g_classes[i].size, nullptr, nullptr};
    }
}

CMemPool* CMemPool::Create()
{
    return new (std::nothrow) CMemPool;
}

void CMemPool::Destroy(CMemPool* pool)
{
    if (!pool) return;
    for (SClass& c : pool->m_classes) {
        while (c.m_head) {
            SMemBlock* block = c.m_head;
            c.m_head = block->m_next;
            std::free(block);
        }
    }
    delete pool;
}

int CMemPool::ClassOf(unsigned int size)
{
    if (size <= 128) return size == 0 ? 0 : static_cast<int>((size - 1) / 8);
    if (size <= 256) return 16;
    if (size <= 512) return 17;
    if (size <= 1500) return 18;
    if (size <= 65536) return static_cast<int>((size - 1) / 4096 + 19);
    if (size <= LARGEST_CLASS_SIZE) return static_cast<int>((size - 1) / 16384 + 31);
    return -1;
}

unsigned int CMemPool::BlockSize(int cls)
{
    return cls >= 0 && cls < CLASS_COUNT ? g_classes[cls].size : 0;
}

unsigned int CMemPool::Limit(int cls)
{
    return cls >= 0 && cls < CLASS_COUNT ? g_classes[cls].limit : 0;
}

void* CMemPool::heap_block(int cls, unsigned int size, const char* caller)
{
    auto* block = static_cast<SMemBlock*>(std::malloc(std::size_t{size} + HEADER_SIZE));
    if (!block) {
        CVN_LOG(Fundel::LOG_WARN, "%s :malloc falid!\n", caller);
        return nullptr;
    }
    block->m_class = cls;
    block->m_size = size;
    block->m_next = nullptr;
    return user_address(block);
}

void* CMemPool::Allocate(CMemPool* pool, unsigned int size, Fundel::CMutex* lock,
                         const char* caller)
{
    const int cls = ClassOf(size);
    if (cls < 0 || !pool) return heap_block(-1, size, caller);

    SClass& c = pool->m_classes[cls];
    {
        COptionalLock guard(lock);
        if (SMemBlock* block = c.m_head) {
            c.m_head = block->m_next;
            if (!c.m_head) c.m_tail = nullptr;
            --c.m_count;
            guard.Unlock();
            block->m_next = nullptr;
            return user_address(block);
        }
    }
    return heap_block(cls, g_classes[cls].size, caller);
}

void CMemPool::Release(CMemPool* pool, void* p, Fundel::CMutex* lock)
{
    SMemBlock* block = block_of(p);
    if (block->m_class < 0 || !pool) {
        std::free(block);
        return;
    }
    SClass& c = pool->m_classes[block->m_class];
    block->m_next = nullptr;
    {
        COptionalLock guard(lock);
        if (c.m_count < c.m_limit) {
            // Appended at the tail: the block freed longest ago is handed out first.
            if (c.m_tail) c.m_tail->m_next = block;
            else c.m_head = block;
            c.m_tail = block;
            ++c.m_count;
            return;
        }
    }
    std::free(block);
}

unsigned int CMemPool::Cached(int cls) const
{
    return cls >= 0 && cls < CLASS_COUNT ? m_classes[cls].m_count : 0;
}

}  // namespace Qelvar::Corvane
