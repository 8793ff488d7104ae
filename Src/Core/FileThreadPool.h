// The process-wide file threads: they take messages posted with NotifyIO and file
// requests (FileRequest.h) from one queue and handle them off the network threads.
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

    /// Stops the threads. The file requests still queued then run in order on the
    /// calling thread (queued writes reach their device, closes happen); the messages
    /// still queued are dropped.
    void Stop();

    bool IsRunning();

    /// Queues a record for the file threads; false when they do not run (the record
    /// stays the caller's: a file request is then run by the caller itself).
    bool Post(SEvent* record);

private:
    using Threads = std::vector<std::unique_ptr<Fundel::CThreadLite>>;

    CFileThreadPool() = default;
    static void thread_loop(Fundel::CThreadLite& thread, CWorkQueue& queue);
    static void stop_threads(Threads& threads, CWorkQueue& queue);
    static void run_file_request(SEvent* record);

    // Guards the members only, never a join: a message handled on a file thread may
    // post again while the threads are being stopped.
    std::mutex m_mutex;
    Threads m_threads;
    std::shared_ptr<CWorkQueue> m_queue;  // shared with the threads, which outlive Stop's lock
    bool m_running = false;
};

}  // namespace Qelvar::Corvane
