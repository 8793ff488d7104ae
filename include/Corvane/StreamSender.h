// CStreamSender: a bounded, non-blocking send queue in front of a stream socket.
#pragma once

#include <Corvane/NetHandler.h>

namespace Qelvar::Corvane {

class CSock;
struct SStreamSenderData;

/// Notify codes a CStreamSender sends to the ids that asked for them.
enum : unsigned int {
    STREAM_SENDER_EXCEPTION = 2,    ///< the socket failed (WaitException); attach 0
    STREAM_SENDER_BUFFER_FREE = 4,  ///< queue space is free (WaitBufferSize); attach = free bytes
    STREAM_SENDER_FINISHED = 9,     ///< the queue is empty (WaitSendFinish); attach 0
};

/// A send queue for one stream socket of type 1 (CSockStream), 3 (CSslStream), 4
/// (CSimulatorStream), 5 (CMirtStream) or 8 (CSslAsyncStream).
///
/// Put writes at once while nothing is queued and queues what the socket did not take;
/// the queue drains with gathered writes when the socket becomes writable. The queue is
/// a chain of 32768-byte blocks holding at most GetCapacity() × 32768 bytes (8 blocks
/// at first: 262144 bytes; a partly drained head and a partly filled tail make that one
/// block more at most). Drained blocks are kept for reuse, so a sender in steady use
/// allocates nothing.
///
/// Wiring: the socket is registered under its owner (the handler given to Attach), not
/// under the sender. While bytes are queued the sender adds Write interest to the
/// owner's registration, and withdraws it when the queue is empty. The reactor therefore
/// calls the owner's handle_output; the owner hands it to the sender:
///
///     int MyHandler::handle_output(int handle) { return m_sender->handle_output(handle); }
///
/// Notifications travel by object id (Notify, from the sender's id) to whoever asked:
/// code 4 when queue space is free, 9 when everything went out, 2 once when the socket
/// fails. A receiver that is closed meanwhile gets nothing.
///
/// Once a write fails the sender stops: code 2 goes out once, Write interest is
/// withdrawn, and Put refuses until a socket is attached again.
///
/// Lifetime: Create(), Attach(), then Close() when done, once the owner no longer calls
/// handle_output; the framework then frees the queue and deletes the sender
/// (handle_close). The sender never closes the socket. Put, the waits and handle_output
/// may be called from any thread; they serialise on the sender's lock.
class CORVANE_API CStreamSender : public CNetHandler {
public:
    /// A sender on thread pool 0; null when it could not be made.
    static CStreamSender* Create();

    /// Sets the socket and the handler it is registered under, and remembers the
    /// socket's type. Both must be non-null: else "%s : Attach failed!Invalid parameter:
    /// owner:%p, stream:%p" (level 3) and -1. 0 on success; bytes still queued then
    /// drain into the new socket.
    int Attach(CNetHandler* owner, CSock* stream);
    /// Forgets the socket and withdraws the Write interest the sender added; the queue
    /// stays as it is. Returns the socket (null when none).
    CSock* Detach();

    /// Raises the capacity to `blocks` blocks of 32768 bytes. A value not larger than
    /// the capacity changes nothing: the queue never shrinks; one below the queued bytes
    /// is also logged at level 1 and fails an assertion. Returns 0.
    int SetBufferSize(unsigned int blocks);
    /// Empties the queue (the blocks are kept); waiters for space or for the end are
    /// told as after a drain. Returns 0.
    int Clear();

    /// Asks for code 2 to `receiver_id` when the socket fails. The id must be negative
    /// (an object id), else the call is logged at level 3 and returns -1.
    int WaitException(long receiver_id);
    /// Asks for code 4, once, as soon as at least `size_in_byte` bytes of the queue are
    /// free; the attach is the free byte count. When that much is free already, the
    /// notification is sent at once. A second call for the same id replaces the first.
    /// The id must be negative and the size non-zero, else level 3 and -1.
    int WaitBufferSize(long receiver_id, unsigned int size_in_byte);
    /// Asks for code 9, once, when the queue is empty; at once when it is empty already.
    /// The id must be negative, else level 3 and -1.
    int WaitSendFinish(long receiver_id);

    /// Sends or queues all of `len` bytes, or nothing: 0 when the bytes were sent or
    /// queued (or `len` is 0), -1 when data is null, `len` is beyond the capacity, no
    /// socket is attached, the queue has less free space than `len` (nothing is queued),
    /// or the socket failed (code 2 follows when asked for). The bytes are copied.
    int Put(const char* data, unsigned int len);

    /// Drains the queue into the socket; call it from the owner's handle_output.
    /// Returns 0, or -1 when no socket is attached.
    int handle_output(int handle) override;
    /// Frees the queue and deletes the sender.
    int handle_close(CNetHandler* handler) override;

    /// Bytes queued now.
    unsigned int GetDataLen();
    /// The most bytes that were ever queued at once.
    unsigned int GetPeakDataLen();
    /// The capacity in blocks of 32768 bytes.
    unsigned int GetCapacity();

protected:
    CStreamSender();
    ~CStreamSender() override;

private:
    SStreamSenderData* m_data;
};

}  // namespace Qelvar::Corvane
