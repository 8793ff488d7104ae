// SMediaSenderProgress: where one media stream sender stands in its buffer's stream.
#pragma once

#include <Corvane/MediaPacket.h>

#include <Fundel/Function.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

class CSock;
class CFrame;
class CMediaStreamSender;

/// A sender's progress, in the stream coordinates of its buffer (byte total and
/// m_byte_discard). All but the other-data buffer is guarded by the buffer's lock.
struct SMediaSenderProgress {
    static constexpr int kOtherDataSize = 4096;
    using SendProc = Fundel::TFunction3<void, CMediaPacket*, int, int>;

    std::int64_t m_position = 0;
    CMediaStreamSender* m_next = nullptr;  ///< the buffer's sender list
    CSock* m_stream = nullptr;
    long m_receiver_id = 0;
    CFrame* m_frame = nullptr;  ///< the frame being written, or null
    int m_packet_index = 0;
    int m_packet_offset = 0;
    std::int64_t m_remaining = 0;
    bool m_started = false;  ///< has begun at a key frame (a position of 0 is a valid start)

    std::atomic<int> m_other_len{0};  ///< bytes of other data waiting

    int m_block_count = 0;
    std::int64_t m_first_block_us = 0;
    std::uint64_t m_exception_timeout_s = 4294967295ull;
    std::uint8_t m_channels = 255;
    std::uint8_t m_key_wait = 0;
    /// Frames aged out ahead of this sender: {serial, channel bit}. Reaching a frame
    /// after one puts its channel into key-wait there, not before: the frames between
    /// the sender and the gap are still whole and wanted.
    std::vector<std::pair<std::uint64_t, std::uint8_t>> m_gaps;
    SendProc m_send_proc;  ///< empty when none

    // Cold: touched only when other data is sent.
    Fundel::CMutex m_mutex;  ///< guards the other data
    /// Allocated by the first SendOtherData: the buffer walks every sender for every
    /// frame, so a record stays a few cache lines.
    std::unique_ptr<char[]> m_other_data;
};

}  // namespace Qelvar::Corvane
