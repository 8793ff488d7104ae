// CNFileBuf: one fixed-size buffer of an asynchronous file.
#pragma once

#include <atomic>
#include <cstdint>

#include "Fundel/Mutex.h"
#include "Tool/NBufPool.h"

namespace Qelvar::Corvane {

/// What the file threads are asked to do with a buffer.
enum SUBMIT_EVENT : std::uint32_t {
    SUBMIT_NONE = 0,
    SUBMIT_READ = 1,   ///< fill it from m_file_offset
    SUBMIT_WRITE = 2,  ///< write its bytes and keep them
    SUBMIT_FULL = 3,   ///< write its bytes, then empty it
};

/// A buffer is used by one party at a time: Take it (a try-lock on m_busy), use it, and
/// Release it; or mark it with Submit while holding it, which hands it to the file
/// threads until they release it. The fields after the submit type belong to the holder.
class CNFileBuf {
public:
    CNFileBuf() = default;
    /// Gives the block back to the pool.
    ~CNFileBuf();
    CNFileBuf(const CNFileBuf&) = delete;
    CNFileBuf& operator=(const CNFileBuf&) = delete;

    /// Takes the buffer when nobody holds it; false otherwise.
    bool Take();
    /// Frees the buffer for the next party and clears its submit type.
    void Release();
    /// Hands the held buffer to the file threads with `type`.
    void Submit(SUBMIT_EVENT type);
    SUBMIT_EVENT Submitted();

    /// Empties the buffer and gives its block back to the pool.
    void Reset();
    /// The buffer's block, taken from the pool when it has none; null when out of memory.
    char* Block();
    bool HasBlock() const { return m_node != nullptr; }

    /// True when the byte at `offset` falls in the buffer's range, filled or not.
    bool Covers(std::int64_t offset) const
    {
        const std::int64_t first = m_file_offset.load(std::memory_order_relaxed);
        return first >= 0 && offset >= first && offset - first < static_cast<std::int64_t>(m_size);
    }
    /// True when the buffer's range and the buffer-sized range at `offset` meet.
    bool Overlaps(std::int64_t offset) const
    {
        const std::int64_t first = m_file_offset.load(std::memory_order_relaxed);
        return first >= 0 && first < offset + static_cast<std::int64_t>(m_size) &&
               offset < first + static_cast<std::int64_t>(m_size);
    }

private:
    Fundel::CMutex m_mutex;
    std::uint8_t m_busy = 0;
    SUBMIT_EVENT m_submit = SUBMIT_NONE;

public:
    /// The file offset of the first byte; -1 when empty. Atomic: a file scanning for room
    /// looks at the range of a buffer that a file thread may be emptying.
    std::atomic<std::int64_t> m_file_offset{-1};
    const std::uint32_t m_size = CNBufPool::kBlockSize;
    std::uint32_t m_buf_offset = 0;  ///< valid bytes
    std::uint8_t m_dirty = 0;        ///< holds bytes not yet written
    std::uint8_t m_eof = 0;          ///< a read through it reached the end of the file

private:
    buffer_node* m_node = nullptr;
    char* m_data = nullptr;
};

}  // namespace Qelvar::Corvane
