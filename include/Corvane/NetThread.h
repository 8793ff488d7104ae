// CNetThread: creation, configuration and teardown of Corvane's network thread pools.
#pragma once

#include <Corvane/Export.h>

namespace Qelvar::Corvane {

/// The static facade over the thread pools. Pool 0 is the public pool; pools 1 to 63
/// are private pools. Every handler belongs to one pool, and all its socket events,
/// timers and messages are handled by that pool's threads.
///
/// The first CreateThreadPool or CreatePrivatePool initialises the library (socket
/// library, timer thread, public pool, file threads when asked); DestroyThreadPool
/// undoes it in reverse order. Creation and destruction are serialised.
class CORVANE_API CNetThread {
public:
    /// Initialises the library on first use and creates the public pool with `count`
    /// worker threads (see below); with `file_threads`, also starts the file threads
    /// once. Reference-counted: each call needs one DestroyThreadPool. 0 or -1.
    ///
    /// Thread count: a count with the top bit (0x80000000) set is taken exactly (its
    /// other 31 bits). Otherwise, with n processors (n > 1), a count below n becomes n and
    /// any other is rounded up to a multiple of n. Fewer than 2 becomes 2.
    static int CreateThreadPool(unsigned int count, bool file_threads = false);

    /// Drops one reference taken by CreateThreadPool; the last one destroys every pool
    /// and stops the library's threads. Handlers still open are detached from their
    /// pool and logged; closing them later calls their handle_close. 0 or -1.
    static int DestroyThreadPool();

    /// Creates a private pool in the lowest free index from 1 to 63 and returns that
    /// index, or -1.
    static int CreatePrivatePool(unsigned int count, bool file_threads = false);

    /// Destroys the private pool `index`. 0 or -1.
    static int DestroyPrivatePool(int index);

    /// Priority (1 low, 64 normal, 127 high), policy (0 time-sharing, 1 round-robin) and
    /// stack size (bytes, 0 default) of the next pool's threads; reset to 64, 0, 0 once a
    /// pool was made. 0, or -1 for a bad priority or policy.
    static int SetThreadPriority(int priority, int policy, int stack);

    /// The poller's wait in milliseconds (default 500; 0 waits without limit). Read when
    /// a pool is created, so set it before. 0, or -1 for a negative value.
    static int SetMultiplexerTimeOut(int ms);

    /// Number of stream receiver threads per group, 1 to 256 (default: one per
    /// processor). 0, or -1 for a value out of range.
    static int SetRecvThreadNum(int num);

    /// Priority (1, 64 or 127), policy (0 or 1) and stack size (bytes, 0 default) of the
    /// stream receiver threads, as for SetThreadPriority; they apply to the threads that
    /// start afterwards (a thread starts with its first receiver). 0, or -1 (logged) for a
    /// bad priority or policy.
    static int SetRecvThreadPriority(int priority, int policy, int stack);

    /// The priority alone of the stream receiver threads (1, 64 or 127). 0, or -1 (logged).
    static int SetRcvPriority(int priority);

    /// Tick of the stream receivers' receive threads in milliseconds (default 20). Read
    /// when the library starts, so set it before. 0, or -1 (logged) below 1.
    static int SetRecvTickPeriod(int ms);

    /// Switches the stream receivers' trace lines on the telnet console on (non-zero) or
    /// off (0, the default): one line before and after each receiver's hook.
    static void SetRecvTrace(int on);

    /// Starts the reliable-UDP transport and its dispatcher thread ("Mirt_IoDispatcher");
    /// the library's start calls it. 0 (a build without the transport starts nothing).
    static int InitMirtEnvironment();
    /// Stops the dispatcher and the transport; the library's stop calls it.
    static void CleanupMirtEnvironment();

    /// Arms a watch on every callback of the next pools' threads: a callback running
    /// longer than `ms` milliseconds is reported by the pool's daemon. 0 (the default)
    /// switches the watch off. 0, or -1 for a negative value.
    static int SetThreadTimeOut(int ms);

    /// Logs every registered socket of every pool at level 4.
    static void TraversalSock();

    /// Logs the registration of socket `fd` in every pool that has it, at level 3.
    static void DumpSockEvent(int fd);

    /// Switches the socket trace on or off: "<Corvane Debug>" lines of the reactor for
    /// the traced sockets, written at `level` (default 4).
    static void SetSockTrace(bool on, int level = 4);
    /// Adds socket `fd` to the traced set, or takes it out.
    static void AddSockTrace(int fd);
    static void RemoveSockTrace(int fd);

    /// Allows the telnet console (Corvane/R3.h) to start. Off by default: R3ServerStart
    /// and EnableR3 refuse until it is switched on.
    static void SetR3Enabled(bool on);
    /// Starts the telnet console on `port` (or one of the next 100) with the prompt
    /// `name`, holding a reference of the public pool as CreateThreadPool does (it starts
    /// the library when it does not run yet). Each success needs one DisableR3. On
    /// failure, "R3ServerStart failed!!" is logged and the reference given back. 0 or -1.
    static int EnableR3(unsigned short port = 9023, const char* name = nullptr);
    /// Stops the console started by EnableR3 and gives its pool reference back (the last
    /// one stops the library, as DestroyThreadPool). 0, or -1 without an EnableR3.
    static int DisableR3();

    /// Prepares the TLS library for use from several threads; call once before the
    /// threads use TLS (OpenSSL 3 locks itself, so this only records that it was done).
    /// A second call logs "SSLThreadSetup have been set!" and does nothing.
    static void SSLThreadSetup();
    /// Undoes SSLThreadSetup after the threads stopped; logs "SSLThreadSetup have not
    /// set !" when it was not done.
    static void SSLThreadCleanup();
};

}  // namespace Qelvar::Corvane

extern "C" {
/// The same as Qelvar::Corvane::CNetThread::CreateThreadPool.
CORVANE_API int CreateThreadPool(unsigned int count, bool file_threads);
/// The same as Qelvar::Corvane::CNetThread::DestroyThreadPool.
CORVANE_API int DestroyThreadPool(void);
}
