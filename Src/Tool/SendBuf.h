// SSendBuf: one block of a stream sender's queue.
#pragma once

namespace Qelvar::Corvane {

/// 32768 bytes of queued data with the unsent part between m_read and m_write. Blocks
/// are chained head to tail; drained ones wait behind the tail for reuse.
struct SSendBuf {
    static constexpr unsigned int kSize = 32768;

    char m_data[kSize];
    char* m_read;    ///< first unsent byte
    char* m_write;   ///< end of the data
    char* m_end;     ///< end of the data area
    SSendBuf* m_next;
    SSendBuf* m_prev;

    /// Empty: nothing queued, all of the data area free.
    void Reset()
    {
        m_read = m_data;
        m_write = m_data;
        m_end = m_data + kSize;
    }
    unsigned int Queued() const { return static_cast<unsigned int>(m_write - m_read); }
    unsigned int Room() const { return static_cast<unsigned int>(m_end - m_write); }
};

}  // namespace Qelvar::Corvane
