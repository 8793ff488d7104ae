// CMediaStreamSender: one receiver's progress through a CMediaBuffer.
#pragma once

#include <Corvane/NetHandler.h>

#include <Fundel/Function.h>

#include <cstdint>

namespace Qelvar::Corvane {

class CSock;
class CFrame;
class CMediaPacket;
class CMediaBuffer;
struct SMediaSenderProgress;

/// Notify code a CMediaStreamSender sends to the id given to WaitException.
enum : unsigned int {
    MEDIA_SENDER_EXCEPTION = 2,  ///< the socket failed; attach 0. Sent once.
};

/// Writes the frames of one CMediaBuffer to one socket with gathered writes, never
/// blocking.
///
/// The buffer calls Send under its lock whenever there is something to write; the
/// sender writes what the socket takes and resumes at the exact byte next time. It
/// starts at a key frame of its channels, skips frames the buffer aged out and then waits
/// for the next key frame of that channel. Other data (small control messages, at most
/// 4096 bytes waiting) goes out between frames, never inside one.
///
/// Sockets: types 1 (CSockStream), 2 (CSockDgram, to its default destination: one
/// datagram per write, so keep frames small), 3 (CSslStream), 4 (CSimulatorStream), 5
/// (CMirtStream, reliable UDP: in live mode each write is one message of at most the
/// payload size) and 8 (CSslAsyncStream). Any socket that accepts a part of a write (a non-blocking
/// stream) works; the socket is not owned and need not be registered with the reactor.
///
/// Failure: a failed write notifies code 2 once to the WaitException id, and Send returns
/// -1 so that the buffer drops the sender. A write that takes nothing is counted, and
/// every 100th in a row is logged ("net warnning").
///
/// Lifetime: Create, Attach, WaitException, then CMediaBuffer::AddSender. Detach it with
/// CMediaBuffer::DelSender (unless the buffer dropped it), then Close(): the framework
/// deletes it (handle_close).
class CORVANE_API CMediaStreamSender : public CNetHandler {
public:
    /// A sender on thread pool 0; null when it could not be made.
    static CMediaStreamSender* Create();

    /// Sets the socket. Null: logged, -1. Else 0.
    int Attach(CSock* stream);
    /// The id to notify (code 2) when the socket fails; must be negative, else logged at
    /// level 2 and the previous id is kept.
    void WaitException(long receiver_id);
    /// Called on the buffer's thread after each frame went out completely, with the
    /// frame's info packet (PutFrameInfo; null when none), its length and the frame's
    /// bytes. Replaces any previous proc; true when stored.
    bool AttachSendProc(Fundel::TFunction3<void, CMediaPacket*, int, int> proc);
    bool DetachSendProc();
    /// Narrows to a channel: the first call limits the sender to `channel`, later calls
    /// add channels; a negative channel means all again. Channels above 7 fail an
    /// assertion.
    void SetSendChannel(int channel);
    /// Stops sending `channel` (0..7, else an assertion).
    void DisableSendChannel(int channel);
    /// Queues `len` bytes to go out at the next frame boundary. Data that would make more
    /// than 4096 bytes waiting is dropped. May be called from any thread.
    void SendOtherData(const char* data, int len);

    /// Called by the buffer under its lock with the frame being filled: writes what the
    /// socket takes and returns the new stream position, or -1 when the socket failed.
    std::int64_t Send(CFrame* frame, std::uint64_t unused);
    /// Takes the unsent rest of the packet in progress into `buf` (for example before
    /// moving the receiver to another transport): its length, 0 when no packet is in
    /// progress, -1 when it does not fit `len`. Call it under the buffer's control (the
    /// producer's thread, with auto-send off).
    int GetTailPacket(char* buf, int len);

    /// Deletes the sender.
    int handle_close(CNetHandler* handler) override;

protected:
    CMediaStreamSender();
    ~CMediaStreamSender() override;

private:
    friend class CMediaBuffer;
    friend struct SMediaBufferData;
    SMediaSenderProgress* m_progress;
};

}  // namespace Qelvar::Corvane
