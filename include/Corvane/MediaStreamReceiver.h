// CMediaStreamReceiver: a media stream pulled at a steady cadence by the stream receiver
// threads.
#pragma once

#include <Corvane/NetHandler.h>

namespace Qelvar::Corvane {

struct SMediaStreamReceiverData;
class CStreamReceiverThread;

/// Which hook the stream receiver threads call on each tick.
enum receiver_mode : int {
    RECEIVER_STREAM_INPUT = 0,   ///< handle_stream_input on every tick
    RECEIVER_PASSIVE_INPUT = 1,  ///< handle_passive_input, paced by the timestamps it returns
    RECEIVER_STREAM_WRITE = 2,   ///< handle_stream_write on every tick of the write threads
};

/// Notify codes a CMediaStreamReceiver sends to the id given to WaitException (attach 0).
enum : unsigned int {
    MEDIA_RECEIVER_EXCEPTION = 2,  ///< a hook returned a negative result
    MEDIA_RECEIVER_CLOSED = 5,     ///< the receiver was closed and released by its thread
};

/// Derive from it and override the hook of your mode: instead of waiting for socket
/// readiness, a stream receiver thread calls it on every tick while the receiver runs.
///
/// Two groups of threads (CNetThread::SetRecvThreadNum threads each) tick evenly
/// staggered: the receive group every 20 ms (CNetThread::SetRecvTickPeriod) for modes 0
/// and 1, the write group every 40 ms for mode 2. A receiver joins the least loaded thread
/// of its group at its first StartReceive and stays there; the mode chosen then decides
/// the group. The hooks run only on that thread, never on a reactor thread, and never
/// two at a time for one receiver.
///
/// Passive mode: handle_passive_input returns the media time of what it read (µs, 0 or
/// less for nothing yet). The receiver skips ticks until real time catches up with
/// media time divided by the rate; the first `fast_start_ts` µs of media are read as
/// fast as the hook delivers (at most 8 reads per tick).
///
/// States: new → StartReceive → running ⇄ StopReceive/StartReceive stopped; Close from
/// any thread, also from inside a hook. A started receiver is then released by its thread
/// at its next tick (notify 5, CNetHandler::Close, then your handle_close); a receiver
/// never started is released at once. Needs the library (CNetThread::CreateThreadPool).
class CORVANE_API CMediaStreamReceiver : public CNetHandler {
public:
    /// A receiver on thread pool 0 (its notifications come from there).
    CMediaStreamReceiver();
    /// A receiver on thread pool `pool`.
    explicit CMediaStreamReceiver(int pool);
    ~CMediaStreamReceiver() override;

    /// Chooses the hook; 0, 1 or 2, anything else is logged at level 3 and the mode kept.
    /// Set it before the first StartReceive: it decides the thread group.
    void SetReceiveMode(receiver_mode mode);
    /// The id to notify (codes 2 and 5); must be negative, else logged at level 2 and the
    /// previous id kept.
    void WaitException(long receiver_id);
    /// Obsolete: the pace comes from the threads' tick. Only logs at level 3.
    void SetFrameRate(unsigned int rate);

    /// Runs the receiver (again) from the next tick. `fast_start_ts` (µs of media read at
    /// once, ≥ 0) and `rate` (playback speed, |rate| ≥ 0.0001) apply to the passive mode;
    /// any rate but 1.0 turns the fast start off. The pacing starts afresh. 0, or -1
    /// (logged) for bad arguments, a receiver already running or closed, or no thread.
    int StartReceive(long long fast_start_ts = 0, float rate = 1.0f);
    /// Stops the calls from the next tick (a hook under way finishes). 0, or -1 (logged)
    /// when the receiver does not run.
    int StopReceive();
    /// Marks the receiver closed for its thread to release (at once when never started).
    void Close() override;

    /// Mode 0: called on every tick. A negative result notifies code 2.
    virtual int handle_stream_input();
    /// Mode 1: reads what is due and returns its media time in µs (≤ 0: nothing yet; a
    /// negative result notifies code 2).
    virtual long long handle_passive_input();
    /// Mode 2: called on every tick of the write group. A negative result notifies code 2.
    virtual int handle_stream_write();

    /// One tick of the receiver: the hook of its mode (paced in mode 1). Called by its
    /// stream receiver thread; the hook's result, 0 for a skipped tick.
    int do_receive();

private:
    friend class CStreamReceiverThread;
    /// Notifies 5 and closes the receiver for good.
    void release();
    /// release(), then drops the reference its thread's list held.
    void release_from_thread();
    int passive_input();

    SMediaStreamReceiverData* m_data;
};

}  // namespace Qelvar::Corvane
