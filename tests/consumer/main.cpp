// Uses the installed library through its one public header: a handler sends itself a
// message through the thread pool, is closed, and reports its release.
#include <Corvane/Corvane.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace {

using Qelvar::Corvane::CNetHandler;
using Qelvar::Corvane::CNetThread;

/// What the handler saw, shared with main under one mutex.
struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    bool message = false;
    long from_id = 0;
    unsigned int type = 0;
    long attach = 0;
    bool closed = false;

    template <class Pred>
    bool WaitFor(Pred pred)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(5), pred);
    }
};

class SelfNotifier : public CNetHandler {
public:
    explicit SelfNotifier(Seen& seen) : m_seen(seen) {}

    void NotifySelf() { Notify(GetID(), 1, 42); }

    int handle_message(long from_id, unsigned int type, long attach) override
    {
        std::lock_guard<std::mutex> lock(m_seen.mutex);
        m_seen.message = true;
        m_seen.from_id = from_id;
        m_seen.type = type;
        m_seen.attach = attach;
        m_seen.changed.notify_all();
        return 0;
    }

    int handle_close(CNetHandler*) override
    {
        {
            std::lock_guard<std::mutex> lock(m_seen.mutex);
            m_seen.closed = true;
            m_seen.changed.notify_all();
        }
        delete this;
        return 0;
    }

private:
    Seen& m_seen;
};

/// Reports and leaves at once: the pool's threads may still be running.
[[noreturn]] void Fail(const char* what)
{
    std::printf("corvane_consumer: FAILED: %s\n", what);
    std::fflush(stdout);
    std::_Exit(1);
}

}  // namespace

int main()
{
    if (CNetThread::CreateThreadPool(2) != 0) Fail("CreateThreadPool");

    Seen seen;
    auto* handler = new SelfNotifier(seen);
    const long id = handler->GetID();
    handler->NotifySelf();
    if (!seen.WaitFor([&] { return seen.message; })) Fail("no message within 5 s");
    if (seen.from_id != id || seen.type != 1 || seen.attach != 42) {
        Fail("message arrived with other contents");
    }

    // The network check is exported: a single candidate comes back without a probe.
    Qelvar::Corvane::ADDR_RECORD_ALL candidates{};
    std::snprintf(candidates.records[0].addr, sizeof candidates.records[0].addr, "127.0.0.1");
    candidates.count = 1;
    Qelvar::Corvane::ADDR_RECORD chosen{};
    if (!Qelvar::Corvane::CNetCheckManager::Instance().FilterIP(candidates, chosen, 80, 0, 1000) ||
        std::string(chosen.addr) != "127.0.0.1") {
        Fail("FilterIP did not hand back its only candidate");
    }

    handler->Close();  // from here on it may be gone: handle_close deletes it
    if (!seen.WaitFor([&] { return seen.closed; })) Fail("no handle_close within 5 s");

    if (CNetThread::DestroyThreadPool() != 0) Fail("DestroyThreadPool");
    std::printf("corvane_consumer: handler %ld got its message (type 1, attach 42) and was released\n",
                id);
    return 0;
}
