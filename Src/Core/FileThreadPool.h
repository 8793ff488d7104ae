// The process-wide file threads: they take messages posted with NotifyIO (and, later,
// file requests) from one queue and handle them off the network threads.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "Core/Event.h"
#include "Core/WorkQueue.h"
#include "Fundel/ThreadLite.h"

namespace Qelvar::Corvane {

class CFileThreadPool {
public:
    /// The process-wide instance (never destroyed).
    static CFileThreadPool& Instance();

    /// Starts `count` threads named "Corvane::FileThread". 0, or -1 (logged) when they
    /// run already or a thread could not be made (those made are stopped again).
    int Start(unsigned int count);

    /// Stops the threads and frees the records still queued.
    void Stop();

    bool IsRunning();

    /// Queues a record for the file threads; false when they do not run (the record
    /// stays the caller's).
    bool Post(SEvent* record);

private:
    using Threads = std::vector<std::unique_ptr<Fundel::CThreadLite>>;

    CFileThreadPool() = default;
    static void thread_loop(Fundel::CThreadLite& thread, CWorkQueue& queue);
    static void stop_threads(Threads& threads, CWorkQueue& queue);

    // Guards the members only, never a join: a message handled on a file thread may
    // post again while the threads are being stopped.
    std::mutex m_mutex;
    Threads m_threads;
    std::shared_ptr<CWorkQueue> m_queue;  // shared with the threads, which outlive Stop's lock
    bool m_running = false;
};

}  // namespace Qelvar::Corvane
