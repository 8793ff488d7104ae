// CFrame: one frame of a media buffer, its packets kept in gather order.
#pragma once

#include <Corvane/IoVec.h>

#include <cstdint>

namespace Qelvar::Corvane {

class CMediaPacket;

/// The channel of a level word: bits 24-31 as a signed number (0..7 when valid).
inline int level_channel(int level)
{
    return static_cast<int>(static_cast<std::int8_t>(static_cast<unsigned int>(level) >> 24));
}

/// The packets of one frame, in the order they were put, ending at the packet carrying
/// the mark. m_vector is laid out as the system's gather vector, so a sender hands the
/// tail of it straight to WriteV; m_packet holds the packets themselves, parallel to it.
/// Every field is guarded by the owning buffer's lock.
class CFrame {
public:
    static constexpr int BUFFER_INCREMENT = 32;

    CFrame();
    /// Releases every packet and the frame info.
    virtual ~CFrame();
    CFrame(const CFrame&) = delete;
    CFrame& operator=(const CFrame&) = delete;

    /// Appends a packet with its stored (clamped) level word. -1 when the arrays could
    /// not grow: the packet is then not in the frame and stays the caller's.
    int put(CMediaPacket* packet, int len, int mark, int level);

    /// Importance, 1..10.
    int Level() const { return m_level & 0xFFFFFF; }
    /// Channel, 0..7.
    int Channel() const { return level_channel(m_level); }
    /// The channel's bit in the senders' channel masks.
    std::uint8_t ChannelBit() const { return static_cast<std::uint8_t>(1u << (Channel() & 7)); }
    bool Complete() const { return m_last_mark == 1; }

    iovec* m_vector = nullptr;
    CMediaPacket** m_packet = nullptr;
    std::int64_t m_frame_bytes = 0;
    std::int64_t m_partial_bytes = 0;  ///< written by senders that have not finished it
    int m_capacity = 0;
    int m_packet_num = 0;
    int m_last_mark = 0;
    int m_level = 1;
    int m_valid = 0;   ///< 1 complete, 0 aged out or not complete yet
    int m_age = -1;    ///< aging passes since completion, from -1; -100 once aged out
    std::uint8_t m_key_mask = 0;  ///< 1 << channel for a key frame of its channel
    CFrame* m_next = nullptr;
    CMediaPacket* m_frame_info = nullptr;
    int m_frame_info_len = 0;
    int m_sender_refs = 0;  ///< senders writing this frame now; such a frame never ages out
    std::uint64_t m_serial = 0;  ///< order of creation in its buffer: tells which frame is earlier
};

}  // namespace Qelvar::Corvane
