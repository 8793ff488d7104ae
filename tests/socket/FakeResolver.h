// Answers the name resolver's lookups from a table instead of the system, so the tests
// decide what a name resolves to, and when.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace Qelvar::Test {

/// Installed while alive. A name it does not know fails as unknown to the system. The
/// destructor releases held lookups, restores the system resolver and waits until no
/// lookup is left, so the next test starts with every slot free.
class FakeResolver {
public:
    FakeResolver();
    ~FakeResolver();
    FakeResolver(const FakeResolver&) = delete;
    FakeResolver& operator=(const FakeResolver&) = delete;

    /// `name` resolves to `addresses` (IPv4 and IPv6 texts), in this order; a lookup for
    /// one family gets that family's addresses only, as from the system.
    void Add(const std::string& name, std::vector<std::string> addresses);
    /// Lookups of `name` wait from now until Release (10 s at the most).
    void Hold(const std::string& name);
    void Release();
    /// Every lookup takes this long.
    void Delay(std::chrono::milliseconds delay);

    /// Waits until `count` lookups have reached the resolver in all.
    bool WaitStarted(int count, std::chrono::milliseconds timeout) const;
    int Started() const;
    /// The family and socktype hints of the last lookup.
    int LastFamily() const;
    int LastSocktype() const;

    /// Waits until every slot of the resolver is free again.
    static bool WaitIdle(std::chrono::milliseconds timeout);

private:
    struct State;
    std::shared_ptr<State> m_state;
};

}  // namespace Qelvar::Test
