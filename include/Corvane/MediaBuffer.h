// CMediaBuffer: the fan-out store of one live media stream.
#pragma once

#include <Corvane/Export.h>

#include <cstdint>

namespace Qelvar::Corvane {

class CMediaPacket;
class CMediaStreamSender;
class CLevel2Buffer_IF;
struct SMediaBufferData;

/// The level word of Put: importance `level` in bits 0-23 (1 a key frame .. 10 the
/// least important) and `channel` (0..7) in bits 24-31.
constexpr int MediaLevel(int level, int channel)
{
    return static_cast<int>((static_cast<unsigned int>(channel) << 24) | (static_cast<unsigned int>(level) & 0xFFFFFFu));
}

/// A snapshot of a buffer, in stream bytes since the buffer was made.
struct SMediaBufferStats {
    std::uint64_t byte_total = 0;    ///< bytes ever put: the write end
    std::uint64_t byte_discard = 0;  ///< bytes dropped from the head: where the head begins
    std::uint64_t buffered = 0;      ///< GetBufferSize()
    int frames = 0;                  ///< frames in the list, the one being filled included
    int senders = 0;                 ///< senders attached
    std::uint64_t aged_frames = 0;   ///< frames aged out since the buffer was made
    std::uint64_t aged_bytes = 0;    ///< their bytes
    std::uint64_t max_lag = 0;       ///< write end minus the position of the slowest sender
};

/// One live stream fanned out to many CMediaStreamSenders, each writing to its own socket
/// at its own pace.
///
/// A producer puts packets; a packet with mark 1 ends a frame. The level word of each
/// packet (see MediaLevel) gives the frame's importance and channel; a completed frame
/// whose level is the lowest ever seen on its channel is a key frame of that channel.
/// Senders are driven by Put itself (the producer's thread writes to the sockets, never
/// blocking) and, after EnableAutoSend, also by a shared reactor timer.
///
/// - A sender that joins starts at the next key frame of its channel.
/// - Frames every sender has written are discarded from the head, whole frames only.
/// - Each completed frame and each timer tick is an aging pass: a complete frame of
///   level L that no sender is writing is aged out after 10 × (11 - L) passes (level 10
///   on its 11th pass). Senders behind it skip it, add its bytes to their position and
///   wait for the next key frame of its channel, so a slow receiver resumes on a key
///   frame with whole frames missing, never a torn one.
/// - Memory is therefore bounded by the aging rules, not by the slowest receiver.
///   A producer that never sets the mark grows one frame without bound (nothing ages
///   before it completes); its packets are released when the buffer is cleared or
///   destroyed.
///
/// No byte is copied between Put and the socket: a frame keeps its packets' bytes in a
/// gather vector that the senders hand to WriteV.
///
/// Every operation takes the buffer's lock; senders run under it. Log lines go to the
/// base library's log at level 3; trace lines go to the telnet console while the
/// console command "MediaBufferPrt 1" is in effect.
class CORVANE_API CMediaBuffer {
public:
    CMediaBuffer();
    /// Clears the buffer, leaves auto-send and releases every packet still held.
    virtual ~CMediaBuffer();
    CMediaBuffer(const CMediaBuffer&) = delete;
    CMediaBuffer& operator=(const CMediaBuffer&) = delete;

    /// put(packet, len, mark, level, false).
    int Put(CMediaPacket* packet, int len, int mark, int level);
    /// Offers the packet to the second-level buffers, files it into the frame being
    /// filled, and lets the senders write. A null packet only drives the senders; with
    /// `force` (or a non-zero `len`) that is also an aging pass. The importance is
    /// clamped to 1..10. Returns 0.
    int put(CMediaPacket* packet, int len, int mark, int level, bool force);
    /// Attaches `info` (for example codec parameters) to the frame being filled; the
    /// previous info of that frame is released. A sender's send proc receives it when the
    /// frame has gone out. -1 with a log line for a null `info` or `len` < 1, else 0.
    int PutFrameInfo(CMediaPacket* info, int len);

    /// Attaches a sender; it starts at the next key frame of its channel. The sender stays
    /// the caller's: detach it with DelSender before destroying it.
    void AddSender(CMediaStreamSender* sender);
    /// Detaches a sender; one not attached is left alone. With the last sender gone the
    /// buffer keeps only the frame being filled.
    void DelSender(CMediaStreamSender* sender);
    /// Attaches / detaches a second-level consumer (never deleted by the buffer).
    void AddLevel2Buffer(CLevel2Buffer_IF* buffer);
    void DelLevel2Buffer(CLevel2Buffer_IF* buffer);

    /// Bytes held, from the head up to the first empty frame.
    std::uint64_t GetBufferSize();
    /// A snapshot of the buffer's counters.
    SMediaBufferStats GetStats();

    /// Lets the shared sender handler drive this buffer every `interval_ms` milliseconds
    /// (100 by default) on a reactor thread of pool 0, so that senders blocked by a full
    /// socket go on while the producer is quiet. The handler lives while any buffer uses
    /// it; its period is that of the call that created it. A second call does nothing.
    void EnableAutoSend();
    void EnableAutoSend(std::uint64_t interval_ms);
    /// Stops the timer's calls; when it returns, no tick is running on this buffer.
    void DisableAutoSend();
    /// The timer's entry: lets the senders write and makes an aging pass.
    void do_send();

    /// Forgets every sender and second-level consumer without telling them (with a log
    /// line when there were any) and deletes every frame, releasing its packets; each
    /// frame deleted is logged at level 3 (the destructor clears too, so a buffer always
    /// logs at least the frame it was filling).
    void Clear();

private:
    SMediaBufferData* m_data;
};

}  // namespace Qelvar::Corvane
