// Small-block allocator of the framework: fixed size classes, a lock-free pool per
// network thread and one shared pool for every other thread.
#pragma once

#include <Corvane/Export.h>

namespace Qelvar::Corvane {

/// Allocator with 46 size classes (8 bytes to 224 KiB). Freed blocks are cached per class
/// up to a limit and handed out again, oldest first; larger requests and blocks beyond
/// the limit go straight to the heap. Every block carries a 16-byte header (class index,
/// block size, link) in front of the address returned. Blocks may be freed on any thread
/// and into either pool; they then join that pool.
class CORVANE_API CTsMemory {
public:
    /// Gives the calling thread its own pool (kept if it already has one) and creates the
    /// shared pool when there is none yet. Each network thread calls it first thing.
    static void CreateMemPool();

    /// Allocates `size` bytes from the calling thread's pool without locking; straight
    /// from the heap when the thread has no pool or `size` is above 229376.
    /// Returns null (and logs) when the heap is exhausted.
    static void* TsMalloc(unsigned int size);

    /// Frees a block into the calling thread's pool without locking. On a thread without
    /// a pool it logs and leaves the block alone. Null is ignored.
    static void TsFree(void* p);

    /// Allocates `size` bytes from the shared pool; any thread may call it.
    static void* Malloc(unsigned int size);

    /// Frees a block into the shared pool; any thread may call it. Null is ignored.
    static void Free(void* p);

    /// Returns every block cached by the calling thread's pool to the heap and frees the
    /// pool. A network thread calls it last thing.
    static void DestroyThreadMemPool();

    /// Returns the shared pool's cached blocks to the heap and frees it. Called at library
    /// teardown, after the network threads have destroyed their pools.
    static void DestroyMemPool();

    /// Called once when the library is first initialised, before any pool exists. The
    /// allocator's process-wide state is ready when the library is loaded, so this has
    /// nothing left to do; it stays for the start sequence.
    static void InitStaticVal();
};

}  // namespace Qelvar::Corvane
