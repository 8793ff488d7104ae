// A handler for the reactor tests: callbacks forward to optional functions, and
// handle_close reports to a signal that lives outside the object, so a test may delete
// the probe as soon as the signal fires.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <Corvane/NetHandler.h>
#include <Corvane/NetThread.h>

#include "Fundel/Time.h"

namespace Qelvar::Test {

/// A counter that tests wait on with a deadline.
class Signal {
public:
    void Add(int n = 1)
    {
        // Notified under the lock: once a waiter sees the count, Add no longer touches
        // the signal, so the waiter may destroy it.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_count += n;
        m_cv.notify_all();
    }
    /// Waits until the count reaches `target`; false on time-out.
    bool WaitFor(int target, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, timeout, [&] { return m_count >= target; });
    }
    int Count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    int m_count = 0;
};

/// Moments of callbacks, in microseconds since `start` (by default the construction).
class Moments {
public:
    std::int64_t start = Fundel::CTime::getCurrentMicroSecond();
    void Add()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_at.push_back(Fundel::CTime::getCurrentMicroSecond() - start);
    }
    std::vector<std::int64_t> Get()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_at;
    }

private:
    std::mutex m_mutex;
    std::vector<std::int64_t> m_at;
};

/// A probe on the stack waits in its destructor for its handle_close, once it was
/// closed, so tests never free an object the framework may still reach.
class Probe : public Corvane::CNetHandler {
public:
    explicit Probe(int pool = 0, Signal* closed = nullptr, bool delete_on_close = false)
        : CNetHandler(pool), m_closed(closed), m_delete_on_close(delete_on_close), m_had_id(GetID() != 0)
    {
    }
    ~Probe() override
    {
        if (m_close_requested && m_had_id && !m_in_handle_close) m_released->WaitFor(1);
    }

    void Close() override
    {
        m_close_requested = true;
        CNetHandler::Close();
    }

    // Callbacks; they live in this class so that they outlive the wait of its destructor.
    std::function<int(long, unsigned int, long)> on_message;
    std::function<long long(long)> on_timeout;
    std::function<int(int)> on_input, on_output, on_exception, on_input_timeout, on_output_timeout;

    int handle_message(long from, unsigned int type, long attach) override
    {
        return on_message ? on_message(from, type, attach) : -1;
    }
    long long handle_timeout(long timer_id) override { return on_timeout ? on_timeout(timer_id) : -1; }
    int handle_input(int fd) override { return on_input ? on_input(fd) : -1; }
    int handle_output(int fd) override { return on_output ? on_output(fd) : -1; }
    int handle_exception(int fd) override { return on_exception ? on_exception(fd) : -1; }
    int handle_input_timeout(int fd) override { return on_input_timeout ? on_input_timeout(fd) : -1; }
    int handle_output_timeout(int fd) override { return on_output_timeout ? on_output_timeout(fd) : -1; }
    int handle_close(CNetHandler*) override
    {
        // Everything needed after a self-delete is copied first.
        std::shared_ptr<Signal> released = m_released;
        Signal* closed = m_closed;
        m_in_handle_close = true;
        if (m_delete_on_close) delete this;
        released->Add();
        if (closed) closed->Add();
        return 0;
    }

    // The protected API, opened for the tests.
    using CNetHandler::DestroyTimer;
    using CNetHandler::generalRegisterSock;
    using CNetHandler::RegisterSock;
    using CNetHandler::RemoveSock;
    using CNetHandler::UnregisterSock;
    using CNetHandler::Free;
    using CNetHandler::Malloc;
    using CNetHandler::Notify;
    using CNetHandler::NotifyIO;
    using CNetHandler::NotifySerial;
    using CNetHandler::SetTimer;
    using CNetHandler::TsFree;
    using CNetHandler::TsMalloc;

private:
    Signal* m_closed;
    bool m_delete_on_close;
    bool m_had_id;
    std::atomic<bool> m_close_requested{false};
    std::atomic<bool> m_in_handle_close{false};
    std::shared_ptr<Signal> m_released = std::make_shared<Signal>();
};

/// Creates the public pool for one test and destroys it after.
class PoolScope {
public:
    explicit PoolScope(unsigned int count = 2, bool file_threads = false)
    {
        m_ok = Corvane::CNetThread::CreateThreadPool(count, file_threads) == 0;
    }
    ~PoolScope()
    {
        if (m_ok) Corvane::CNetThread::DestroyThreadPool();
    }
    bool ok() const { return m_ok; }

private:
    bool m_ok;
};

}  // namespace Qelvar::Test
