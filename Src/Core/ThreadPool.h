// A network thread pool: its worker threads, their queue with the poll and serial
// tokens, the serial queue, the daemon, the id pool and the object and socket tables.
// The process-wide pool table (64 entries) and its per-index guards live here too.
#pragma once

#include <Corvane/NetHandler.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "Core/BTree.h"
#include "Core/Event.h"
#include "Core/HandlerState.h"
#include "Core/IdPool.h"
#include "Core/Multiplexer.h"
#include "Core/PoolSettings.h"
#include "Core/WorkQueue.h"
#include "Fundel/Semaphore.h"
#include "Fundel/ThreadLite.h"

namespace Qelvar::Corvane {

class CDumpLines;

class CThreadPool {
public:
    static constexpr int kMaxPools = 64;

    /// A pool at `index` with the worker count that `count` gives on `processors`
    /// processors (adjustThreadNumber).
    CThreadPool(int index, unsigned int count, const SPoolSettings& settings, int processors);
    /// Stops the pool if it still runs.
    ~CThreadPool();
    CThreadPool(const CThreadPool&) = delete;
    CThreadPool& operator=(const CThreadPool&) = delete;

    /// Makes the poller, starts the daemon, queues the tokens and starts the workers.
    /// 0, or -1 (logged) when the poller or a worker could not be made.
    int Start();

    /// Stops the daemon and the workers, frees what waits in the queues and detaches
    /// the objects still in the table (see CNetThread::DestroyThreadPool).
    void Stop();

    int Index() const { return m_index; }
    unsigned int ThreadCount() const { return m_thread_count; }
    CIdPool& IdPool() { return m_id_pool; }
    CBTree<SHandlerState>& Objects() { return m_objects; }
    CBTree<SEvent>& Sockets() { return m_sockets; }
    CMultiplexer& Multiplexer() { return m_mux; }

    /// printf-style destination of the dumps below other than the log (the console).
    using Printer = void (*)(const char* fmt, ...);

    /// Logs every registered socket with its owner, or prints the lines to `out`.
    void Traversal(Printer out = nullptr);
    /// Traversal() of every pool.
    static void traversal_all(Printer out = nullptr);
    /// Logs the record of socket `fd` in every pool that has one, or prints it to `out`.
    static void dump_sock_event_all(int fd, Printer out = nullptr);
    /// Prints every pool (threads, objects, sockets) and every open handler to `out`.
    static void dump_pools(Printer out);

    // The pool table. A pool is published in it once started and withdrawn before it
    // stops; posting and lookups hold the index's guard for reading, so they never race
    // with the pool's destruction.

    /// Publishes `pool` at its index (the entry must be empty).
    static void publish(CThreadPool* pool);
    /// Withdraws and returns the pool at `index` (null when empty).
    static CThreadPool* withdraw(int index);
    /// True when a pool exists at `index`.
    static bool exists(int index);

    /// Read-locks the guard of pool `index` into `guard` and returns the pool; null, with
    /// the guard released, when there is none. The pool stays while the guard is held.
    static CThreadPool* acquire(int index, std::shared_lock<Fundel::CReadWriteMutex>& guard);

    /// Runs f(pool) under the guard of pool `index` when it exists; returns `absent`
    /// otherwise.
    template <class R, class F>
    static R with_pool(int index, R absent, F&& f)
    {
        std::shared_lock<Fundel::CReadWriteMutex> guard;
        CThreadPool* pool = acquire(index, guard);
        return pool ? f(*pool) : absent;
    }

    /// acquire() without waiting: null also when the guard is busy (a pool is being
    /// made or destroyed at that index).
    static CThreadPool* try_acquire(int index, std::shared_lock<Fundel::CReadWriteMutex>& guard);

    /// Hands a socket record whose time-out expired to this pool's workers: out of the
    /// poller, into the worker queue. The caller holds the record's lock.
    void post_timeout(SEvent* ev);

    /// Appends a chain of `count` records to the worker queue of pool `index`. False when
    /// there is no such pool: the records stay the caller's.
    static bool post(int index, SEvent* head, SEvent* tail, unsigned int count);
    /// Puts one record at the head of the worker queue of pool `index`; false: as post.
    static bool post_front(int index, SEvent* record);
    /// Appends a serial message to the serial queue of pool `index`; false: as post.
    static bool post_serial(int index, SEvent* record);

    /// Looks an object id up in its pool's table and adds a reference to it; null when
    /// there is no such object. The caller drops the reference with DecRef.
    static SHandlerState* find_object(std::int64_t id);
    /// The handler of object `id` (a negative id), with a reference the caller drops with
    /// DecRef; null when there is no such object.
    static CNetHandler* find_handler(std::int64_t id);
    /// Runs `call(handler)` with a reference to the handler of `id` held across the call;
    /// false, calling nothing, when there is no such object.
    template <class F>
    static bool with_handler(std::int64_t id, F&& call)
    {
        CNetHandler* handler = find_handler(id);
        if (!handler) return false;
        call(*handler);
        handler->DecRef();
        return true;
    }
    /// Takes a new id from the id pool of pool `index`; 0 when there is no such pool.
    static std::int64_t new_id(int index);
    /// Returns an id to its pool's id pool.
    static void put_id(std::int64_t id);
    /// Inserts an opened handler's state under a new id of pool `index` (the table's
    /// reference is counted by the caller). The id, or 0 when there is no such pool.
    static std::int64_t insert_object(int index, SHandlerState* state);
    /// Removes `id` from its pool's table and returns its id to the id pool; the state
    /// when it was there, else null. Its table reference is the caller's to drop.
    static SHandlerState* remove_object(std::int64_t id);

    /// The pool index carried in bits 4 to 9 of an object or timer id.
    static int pool_of(std::int64_t id) { return static_cast<int>((id >> 4) & 63); }

    /// The worker count for a requested `count` on `processors` processors.
    static unsigned int adjustThreadNumber(unsigned int count, int processors, const void* logged_as);

    // Daemon timing, in milliseconds. Tests shorten them; nothing else changes them.
    static std::atomic<int> sm_deadlock_period_ms;  ///< 60000: no progress for this long is a deadlock
    static std::atomic<int> sm_daemon_wait_ms;      ///< 5000: the daemon's wait between passes

private:
    void worker_loop(Fundel::CThreadLite& thread);
    void dispatch(SEvent* record, Fundel::CThreadLite& thread);
    void drain_serial(SEvent* token, Fundel::CThreadLite& thread);
    void daemon_loop();
    void console_step(int& failures);
    void collect_sockets(CDumpLines& lines);
    static constexpr int kConsoleTries = 5;
    void report_deadlock();
    void report_stuck_callbacks();
    void free_records(SEvent* chain);
    void free_sockets();

    /// Runs a callback under the per-callback watch, when one is set.
    template <class F>
    void watched(Fundel::CThreadLite& thread, F&& callback)
    {
        const int ms = m_settings.thread_timeout_ms;
        if (ms > 0) thread.SetThreadTimeout(ms);
        callback();
        if (ms > 0) thread.SetThreadTimeout(0);
    }
    void detach_objects();

    const int m_index;
    const unsigned int m_thread_count;
    const SPoolSettings m_settings;
    std::vector<std::unique_ptr<Fundel::CThreadLite>> m_workers;
    Fundel::CThreadLite m_daemon;
    std::atomic<std::int64_t> m_progress{0};
    Fundel::CSemaphore m_daemon_sem;
    std::mutex m_serial_mutex;
    bool m_serial_idle = false;  ///< the serial token is out of the queue; guarded by m_serial_mutex
    SEvent* m_serial_head = nullptr;
    SEvent* m_serial_tail = nullptr;
    bool m_ready = false;  ///< the poller was made
    CIdPool m_id_pool;
    CBTree<SHandlerState> m_objects;
    CBTree<SEvent> m_sockets;
    CMultiplexer m_mux;
    CWorkQueue m_queue;
    bool m_stopped = false;
};

}  // namespace Qelvar::Corvane
