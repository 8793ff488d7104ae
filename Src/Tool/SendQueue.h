// CSendQueue: the bounded block queue behind CStreamSender.
#pragma once

#include <Corvane/IoVec.h>

#include <cstdint>

#include "Tool/SendBuf.h"

namespace Qelvar::Corvane {

/// Bytes waiting for a socket, in a chain of SSendBuf blocks from m_head to m_tail. The
/// capacity bounds the queued bytes (capacity × 32768); since the head block may be
/// drained in part and the tail filled in part, the data can span capacity + 1 blocks,
/// and the gather vector has that many entries. Blocks are allocated zero-filled on
/// first need, recycled once drained and freed only by the destructor, so a queue in
/// steady use allocates nothing. Not locked: its owner serialises the calls.
class CSendQueue {
public:
    static constexpr unsigned int kDefaultBlocks = 8;

    CSendQueue();
    ~CSendQueue();
    CSendQueue(const CSendQueue&) = delete;
    CSendQueue& operator=(const CSendQueue&) = delete;

    unsigned int Capacity() const { return m_capacity; }
    unsigned int DataLen() const { return m_data_len; }
    unsigned int PeakDataLen() const { return m_peak_len; }
    bool Empty() const { return m_data_len == 0; }
    /// Capacity in bytes; 64 bits, since blocks × 32768 may pass 4 GiB.
    std::uint64_t CapacityBytes() const { return static_cast<std::uint64_t>(m_capacity) * SSendBuf::kSize; }
    std::uint64_t FreeBytes() const { return CapacityBytes() - m_data_len; }

    /// Raises the capacity to `blocks` (with a gather vector to match); a smaller value
    /// is ignored.
    void Grow(unsigned int blocks);
    /// Queues data[already_sent .. len); the caller checked that it fits.
    void Append(const char* data, unsigned int len, unsigned int already_sent);
    /// Fills the gather vector from the head block through the tail block; the entry count.
    int Gather();
    const iovec* Vector() const { return m_vec; }
    /// Drops the first `n` queued bytes (written to the socket).
    void Consume(unsigned int n);
    /// Forgets every queued byte; the blocks are kept.
    void Clear();

private:
    SSendBuf* new_block();
    void recycle_head();

    unsigned int m_capacity = kDefaultBlocks;
    unsigned int m_data_len = 0;
    unsigned int m_peak_len = 0;
    unsigned int m_used = 0;  ///< blocks from m_head through m_tail
    SSendBuf* m_head = nullptr;
    SSendBuf* m_tail = nullptr;
    iovec* m_vec = nullptr;   ///< m_capacity + 1 entries
};

}  // namespace Qelvar::Corvane
