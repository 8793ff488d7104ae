// The readiness multiplexer of a thread pool: epoll on Linux, select on Windows.
//
// Interest is kept per descriptor. A descriptor reported by Wait() is disarmed until
// Modify() arms it again, so one ready descriptor is handed to one thread at a time
// (EPOLLONESHOT on Linux; taken out of the master sets on Windows). A built-in wake-up
// descriptor (eventfd on Linux, the loopback pair CWINPipe on Windows) lets any thread
// end a Wait() early; it is never reported to the caller.
#pragma once

#include <cstddef>

namespace Qelvar::Platform {

/// Interest and readiness bits.
enum PollBits : unsigned int {
    POLLER_IN = 1,   ///< readable (select: read set)
    POLLER_OUT = 2,  ///< writable (select: write set)
    POLLER_PRI = 4,  ///< exceptional condition (epoll: EPOLLPRI; select: exception set)
    POLLER_ERR = 8,  ///< error on the descriptor (always reported; select: a writer's failed connect)
    POLLER_HUP = 16, ///< hang-up (epoll only; always reported)
};

/// One ready descriptor.
struct SPollReady {
    int fd;
    unsigned int events;  ///< PollBits
};

class CPoller {
public:
    CPoller();
    ~CPoller();
    CPoller(const CPoller&) = delete;
    CPoller& operator=(const CPoller&) = delete;

    /// Creates the multiplexer and its wake-up descriptor; 0, or -1 with last_error().
    /// A failed Open() leaves the poller closed; Open() on an open poller fails.
    /// On Windows the socket library must be started (sock_startup) first.
    /// With `keep_armed`, a reported descriptor stays armed (level-triggered) where the
    /// system allows it (Linux): see DisarmsOnReport().
    int Open(bool keep_armed = false);

    /// True when Wait() disarms what it reports (one-shot; always on Windows).
    bool DisarmsOnReport() const;

    /// Releases everything Open() made; safe to call twice. No other thread may be
    /// using the poller.
    void Close();

    /// Starts watching `fd` for the bits of `interest` (POLLER_IN | POLLER_OUT | POLLER_PRI),
    /// armed. 0 or -1. On Windows each set holds at most 4096 descriptors; a descriptor
    /// that does not fit is silently not watched for that bit (the call still returns 0).
    /// -1 when `fd` is watched already. On Windows a change wakes a running Wait().
    int Add(int fd, unsigned int interest);

    /// Replaces the interest of a watched descriptor and arms it again. 0, or -1 when
    /// `fd` is not watched (ENOENT; WSAENOTSOCK).
    int Modify(int fd, unsigned int interest);

    /// Stops watching `fd`; 0, or -1 when it is not watched (ENOENT; WSAENOTSOCK).
    /// Remove before closing: Windows select() fails as a whole on a closed socket.
    int Remove(int fd);

    /// Waits at most `timeout_us` microseconds (negative: without limit; 0: just looks)
    /// and stores up to `capacity` (at least 1) ready descriptors in `ready`, one entry
    /// per descriptor, each disarmed when DisarmsOnReport(); ready descriptors beyond
    /// `capacity` stay armed.
    /// A positive timeout is rounded up to the system's unit (milliseconds on Linux).
    /// Returns the number stored (0 on time-out, on Wake() or when interrupted), or -1
    /// with last_error() when the system call failed.
    int Wait(long long timeout_us, SPollReady* ready, int capacity);

    /// Ends the current or next Wait() early. Cheap to call often: at most one wake-up
    /// is outstanding at a time. Safe from any thread.
    void Wake();

private:
    struct Impl;
    Impl* m_impl;
};

}  // namespace Qelvar::Platform
