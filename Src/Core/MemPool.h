// One pool of the small-block allocator: 46 size classes, each caching freed blocks in
// a FIFO list up to its limit. CTsMemory keeps one per worker thread (no lock) and one
// shared by every other thread (under a mutex).
#pragma once

#include <array>
#include <cstdint>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

/// Header in front of every block; the caller's address is the block + 16. Users may
/// rely on this layout, so it is fixed on every platform.
struct SMemBlock {
    std::int32_t m_class;  ///< size class, -1 for a block taken straight from the heap
    std::uint32_t m_size;  ///< block size of the class, or the request size for class -1
    SMemBlock* m_next;     ///< next cached block of the class
};
static_assert(sizeof(SMemBlock) == 16, "the block header is 16 bytes");

class CMemPool {
public:
    static constexpr int CLASS_COUNT = 46;
    static constexpr unsigned int HEADER_SIZE = sizeof(SMemBlock);
    /// Requests above this go straight to the heap.
    static constexpr unsigned int LARGEST_CLASS_SIZE = 229376;

    /// A new pool with every class empty; null when the heap is exhausted.
    static CMemPool* Create();
    /// Returns every cached block of `pool` to the heap and frees the pool.
    static void Destroy(CMemPool* pool);

    /// Class of a request of `size` bytes, -1 when it is too large for the classes.
    static int ClassOf(unsigned int size);
    static unsigned int BlockSize(int cls);
    static unsigned int Limit(int cls);

    /// Allocates `size` bytes from `pool`, or from the heap when `pool` is null. `lock`,
    /// when given, is held around the list operation only. A failed heap call logs
    /// "<caller> :malloc falid!" and returns null.
    static void* Allocate(CMemPool* pool, unsigned int size, Fundel::CMutex* lock,
                          const char* caller);
    /// Frees a block of Allocate into `pool` (null: back to the heap).
    static void Release(CMemPool* pool, void* p, Fundel::CMutex* lock);

    /// Blocks of class `cls` cached now.
    unsigned int Cached(int cls) const;

private:
    struct SClass {
        std::uint16_t m_limit;
        std::uint16_t m_count;
        std::uint32_t m_size;
        SMemBlock* m_head;
        SMemBlock* m_tail;
    };

    CMemPool();
    static void* heap_block(int cls, unsigned int size, const char* caller);

    std::array<SClass, CLASS_COUNT> m_classes;
};

}  // namespace Qelvar::Corvane
