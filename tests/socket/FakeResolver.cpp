#include "FakeResolver.h"

#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "Platform/SockTypes.h"
#include "Socket/GetHostByName.h"

namespace Qelvar::Test {

using Corvane::ADDR_RECORD_MAX;
using Corvane::CGetHostByName;

// Shared with the installed function: a lookup may still hold a copy of it after the
// fake is gone.
struct FakeResolver::State {
    mutable std::mutex mutex;
    mutable std::condition_variable cv;
    std::map<std::string, std::vector<std::string>> table;
    std::set<std::string> held;
    std::chrono::milliseconds delay{0};
    int started = 0;
    int last_family = -1;
    int last_socktype = -1;

    int lookup(const char* name, int family, int socktype, Platform::SResolvedAddr* out, int max, int* count,
               int* found)
    {
        std::unique_lock<std::mutex> lock(mutex);
        ++started;
        last_family = family;
        last_socktype = socktype;
        cv.notify_all();
        cv.wait_for(lock, std::chrono::seconds(10), [&] { return held.count(name) == 0; });
        if (delay.count() > 0) {
            const auto pause = delay;
            lock.unlock();
            std::this_thread::sleep_for(pause);
            lock.lock();
        }
        *count = 0;
        *found = 0;
        const auto it = table.find(name);
        if (it == table.end()) return EAI_NONAME;
        for (const std::string& text : it->second) {
            Platform::SResolvedAddr a{};
            a.family = text.find(':') != std::string::npos ? AF_INET6 : AF_INET;
            if (family != AF_UNSPEC && a.family != family) continue;
            if (Platform::addr_from_text(a.family, text.c_str(), a.address) != 1) continue;
            ++*found;
            if (*count < max) out[(*count)++] = a;
        }
        return *found > 0 ? 0 : EAI_NONAME;
    }
};

FakeResolver::FakeResolver() : m_state(std::make_shared<State>())
{
    std::shared_ptr<State> state = m_state;
    CGetHostByName::SetResolverForTest([state](const char* name, int family, int socktype,
                                               Platform::SResolvedAddr* out, int max, int* count, int* found) {
        return state->lookup(name, family, socktype, out, max, count, found);
    });
}

FakeResolver::~FakeResolver()
{
    Release();
    CGetHostByName::SetResolverForTest({});
    WaitIdle(std::chrono::seconds(15));
}

void FakeResolver::Add(const std::string& name, std::vector<std::string> addresses)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->table[name] = std::move(addresses);
}

void FakeResolver::Hold(const std::string& name)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->held.insert(name);
}

void FakeResolver::Release()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->held.clear();
    m_state->cv.notify_all();
}

void FakeResolver::Delay(std::chrono::milliseconds delay)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->delay = delay;
}

bool FakeResolver::WaitStarted(int count, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->cv.wait_for(lock, timeout, [&] { return m_state->started >= count; });
}

int FakeResolver::Started() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->started;
}

int FakeResolver::LastFamily() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->last_family;
}

int FakeResolver::LastSocktype() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->last_socktype;
}

bool FakeResolver::WaitIdle(std::chrono::milliseconds timeout)
{
    // The resolver has no event for a slot coming free; look every few milliseconds.
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (CGetHostByName::Instance().FreeSlotCount() < ADDR_RECORD_MAX) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace Qelvar::Test
