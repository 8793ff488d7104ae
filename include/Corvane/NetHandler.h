// CNetHandler: the base class of every event-driven object of a Corvane application.
#pragma once

#include <Corvane/EventMask.h>
#include <Corvane/Export.h>

namespace Qelvar::Corvane {

class CSock;
struct SHandlerState;

/// Base of every event-driven object. Derive from it, override the callbacks you need,
/// and register sockets and timers through the protected members.
///
/// Each handler belongs to one thread pool, chosen at construction, and receives a
/// negative object id from it. The framework never keeps a raw pointer across threads:
/// every delivery (socket readiness, time-out, timer, message) looks the id up, takes a
/// reference for the callback and drops it afterwards. Callbacks of one socket never
/// overlap; callbacks of different sockets, timers and messages of one object may run at
/// the same time on different threads, so a derived class guards its own state.
///
/// Lifetime: call Close() when done. Once every reference is gone the framework calls
/// handle_close(this) exactly once; that is where the object deletes (or recycles)
/// itself. The framework never deletes a handler. Destroying a handler that was not
/// closed fails the assertion "__m_magic == 0x0202".
class CORVANE_API CNetHandler {
public:
    /// Opens the object on the public thread pool 0.
    CNetHandler();
    /// Opens the object on thread pool `pool` (0 to 63). When that pool does not exist
    /// the error is logged at level 1, an assertion fails and the object has no id.
    explicit CNetHandler(int pool);
    /// Requires a prior Close(). Logs an error when sockets are still registered.
    virtual ~CNetHandler();

    CNetHandler(const CNetHandler&) = delete;
    CNetHandler& operator=(const CNetHandler&) = delete;

    // Socket callbacks. The result decides the socket's next time-out: 0 keeps the
    // registered time-out, a positive value re-arms it with that many microseconds, a
    // negative value cancels it. The defaults return -1.

    /// The socket `handle` became readable.
    virtual int handle_input(int handle);
    /// The socket `handle` became writable.
    virtual int handle_output(int handle);
    /// Error or hang-up on the socket `handle`.
    virtual int handle_exception(int handle);
    /// Nothing to read on `handle` within its time-out.
    virtual int handle_input_timeout(int handle);
    /// Nothing written on `handle` within its time-out.
    virtual int handle_output_timeout(int handle);
    /// Kept for derived classes; the framework never calls it.
    virtual int handle_exception_timeout(int handle);

    /// The timer `timer_id` set with SetTimer expired. A positive result becomes the new
    /// interval in microseconds, 0 repeats the previous interval, a negative result ends
    /// the timer. The default (-1) makes every timer fire once.
    virtual long long handle_timeout(long timer_id);

    /// Called once, with the object itself, when its last reference is dropped after
    /// Close(). Delete or recycle the object here. The result is ignored.
    virtual int handle_close(CNetHandler* handler);

    /// A message sent with Notify/NotifySerial/NotifyIO arrived from `from_id`. The
    /// result is ignored. Type 12 sent by an object to itself is reserved (it closes it).
    virtual int handle_message(long from_id, unsigned int type, long attach);

    /// Closes the object: guarded calls fail from now on, the id leaves the pool's table
    /// (pending messages to it are dropped) and handle_close follows when the last
    /// reference goes. A second Close does nothing.
    virtual void Close();

    /// Adds a reference; each AddRef needs one DecRef.
    void AddRef();
    /// Drops a reference; the drop from 1 to 0 calls handle_close (once).
    void DecRef();
    /// Counts a socket registered on the object (called by the socket registry).
    void AddSock();
    /// Uncounts a socket registered on the object (called by the socket registry).
    void DecSock();

    /// The object id (negative), truncated to 32 bits; valid ids fit. 0 when the object
    /// has no pool.
    long GetID();

    /// Sets the receiver of the forms of Notify that name none.
    void SetDefaultRcer(long id);

    /// Withdraws this object's interest in `sock`: removes the registration when it does
    /// not hold Read, else withdraws only Write. Returns 0 in every case.
    int CheckSock(CSock& sock);

protected:
    /// Registers interest in the events of `mask` (Read 1, Write 2, Except 4, Protect
    /// 2048) on `sock`, with a time-out in microseconds (0: none). Returns 0, or -1 on a
    /// bad socket or when the object is closed.
    int RegisterSock(CSock& sock, unsigned int mask, int time_out);
    /// RegisterSock without the check of the socket's type (for proxy handlers).
    int generalRegisterSock(CSock& sock, unsigned int mask, int time_out);
    /// Withdraws interest in the bits of `mask`. 0, or -1 for a socket protected by
    /// another object.
    int UnregisterSock(CSock& sock, unsigned int mask);
    int generalUnregisterSock(CSock& sock, unsigned int mask);
    /// Drops the registration of `sock`. 0, or -1 for a socket protected by another object.
    int RemoveSock(CSock& sock);
    int generalRemoveSock(CSock& sock);

    /// Starts a timer of `time_out` microseconds (clamped to 3 ms .. 24 h) owned by this
    /// object; handle_timeout(timer id) follows. Returns the timer id, or -1 when the
    /// object is closed.
    long SetTimer(long long time_out);
    /// Stops and frees a timer. A timer already on its way to handle_timeout fires once
    /// more but is not re-armed.
    void DestroyTimer(long timer_id);

    /// Posts a message to the object `to_id`; it arrives in handle_message on a thread of
    /// the receiver's pool. Messages to objects that no longer exist are dropped.
    void Notify(long to_id, unsigned int type, long attach);
    /// Posts a message to the default receiver.
    void Notify(unsigned int type, long attach);
    /// Posts a message on the serial queue of the receiver's pool: serial messages of a
    /// pool are handled one after another, in the order they were posted.
    void NotifySerial(long to_id, unsigned int type, long attach, unsigned int flag);
    void NotifySerial(unsigned int type, long attach, unsigned int flag);
    /// Posts a message that is handled on a file thread instead of a network thread.
    void NotifyIO(long to_id, unsigned int type, long attach);
    void NotifyIO(unsigned int type, long attach);

    /// Shared memory pool (any thread); see CTsMemory.
    void* Malloc(unsigned int size);
    void Free(void* p);
    /// Memory pool of the calling network thread, without locking; see CTsMemory.
    void* TsMalloc(unsigned int size);
    void TsFree(void* p);

private:
    void open_object(int pool);
    int guarded_begin();
    void guarded_end();

    SHandlerState* m_state;
};

}  // namespace Qelvar::Corvane
