// CNBufPool: the process-wide stack of free file buffer blocks.
#pragma once

#include <cstdint>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

/// One block of a file buffer and its link in the pool.
struct buffer_node {
    char* data;
    buffer_node* next;
};

/// Free blocks of 131072 bytes shared by every asynchronous file, so that a file's
/// buffers cost no allocation once the process has warmed up. At most 256 free blocks
/// are kept; a block given back beyond that is freed.
class CNBufPool {
public:
    static constexpr unsigned int kBlockSize = 131072;
    static constexpr unsigned int kMaxFree = 256;

    /// The pool, made on first use (never destroyed: files may give blocks back while
    /// the process exits).
    static CNBufPool& Instance();

    CNBufPool(const CNBufPool&) = delete;
    CNBufPool& operator=(const CNBufPool&) = delete;

    /// A free block, else a new one; null only when the heap is exhausted.
    buffer_node* Pop();
    /// Keeps `node` for the next Pop, or frees it when 256 blocks are free already.
    void Push(buffer_node* node);
    /// Free blocks held now.
    unsigned int Size();
    /// Blocks alive (free or in use by files): made and not freed since.
    unsigned int Created();

private:
    CNBufPool() = default;

    Fundel::CMutex m_mutex;
    buffer_node* m_head = nullptr;
    unsigned int m_size = 0;
    unsigned int m_created = 0;
};

}  // namespace Qelvar::Corvane
