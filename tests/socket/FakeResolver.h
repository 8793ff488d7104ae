// Answers the name resolver's lookups from a table instead of the system, so the tests
// decide what a name resolves to, and when.
#pragma once

#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Platform/SockTypes.h"
#include "Socket/GetHostByName.h"

namespace Qelvar::Test {

using AddressTable = std::map<std::string, std::vector<std::string>>;

/// Installed while alive. A lookup for one family gets that family's addresses only, as
/// from the system; a name not in the table fails as unknown. The destructor releases
/// held lookups, restores the system resolver and waits until every slot is free.
class FakeResolver {
public:
    struct State {
        std::mutex mutex;
        std::condition_variable cv;
        AddressTable table;
        std::set<std::string> held;  // lookups of these names wait (10 s at most)
        std::chrono::milliseconds delay{0};
        int started = 0;
        int last_family = -1;
        int last_socktype = -1;
    };

    /// Runs `f` on the state under its lock, and wakes the held lookups to look again.
    template <class F>
    auto Locked(F f)
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->cv.notify_all();
        return f(*m_state);
    }

    explicit FakeResolver(std::initializer_list<AddressTable::value_type> table) : m_state(std::make_shared<State>())
    {
        m_state->table = table;
        // The function keeps the state: a lookup may still hold it after the fake is gone.
        Corvane::CGetHostByName::SetResolverForTest(
            [state = m_state](const char* name, int family, int socktype, Platform::SResolvedAddr* out, int max,
                              int* count, int* found) { return lookup(*state, name, family, socktype, out, max, count, found); });
    }
    ~FakeResolver()
    {
        Locked([](State& s) { s.held.clear(); });
        Corvane::CGetHostByName::SetResolverForTest({});
        WaitIdle(std::chrono::seconds(15));
    }
    FakeResolver(const FakeResolver&) = delete;
    FakeResolver& operator=(const FakeResolver&) = delete;

    /// Waits until `count` lookups have reached the resolver in all.
    bool WaitStarted(int count, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(m_state->mutex);
        return m_state->cv.wait_for(lock, timeout, [&] { return m_state->started >= count; });
    }

    /// Waits until every slot of the resolver is free; it has no event for that, so
    /// this looks every few milliseconds.
    static bool WaitIdle(std::chrono::milliseconds timeout)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (Corvane::CGetHostByName::Instance().FreeSlotCount() < Corvane::ADDR_RECORD_MAX) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

private:
    static int lookup(State& s, const char* name, int family, int socktype, Platform::SResolvedAddr* out, int max,
                      int* count, int* found)
    {
        std::unique_lock<std::mutex> lock(s.mutex);
        ++s.started;
        s.last_family = family;
        s.last_socktype = socktype;
        s.cv.notify_all();
        s.cv.wait_for(lock, std::chrono::seconds(10), [&] { return s.held.count(name) == 0; });
        std::this_thread::sleep_for(s.delay);
        *count = 0;
        *found = 0;
        for (const std::string& text : s.table[name]) {
            Platform::SResolvedAddr a{};
            a.family = text.find(':') != std::string::npos ? AF_INET6 : AF_INET;
            if ((family != AF_UNSPEC && a.family != family) ||
                Platform::addr_from_text(a.family, text.c_str(), a.address) != 1) {
                continue;
            }
            ++*found;
            if (*count < max) out[(*count)++] = a;
        }
        return *found > 0 ? 0 : EAI_NONAME;
    }

    std::shared_ptr<State> m_state;
};

}  // namespace Qelvar::Test
