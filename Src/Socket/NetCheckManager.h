// Chooses, among the addresses a name resolved to, one that can be reached: a
// non-blocking connect is started to every candidate at once through the reactor, and
// the address whose connection completes wins.
#pragma once

#include <mutex>
#include <vector>

#include "Fundel/Timer.h"
#include "Socket/GetHostByName.h"

namespace Qelvar::Corvane {

/// The process-wide network check behind CSockAddr*::SetDomainName.
class CNetCheckManager {
public:
    /// Requests that may run at once; an eleventh fails at once.
    static constexpr int kSlots = 10;

    /// The process-wide instance, never destroyed.
    static CNetCheckManager& Instance();

    /// Chooses one of `candidates` for a connection of `socktype` (ADDR_SOCK_*) to
    /// `port` within `timeout_ms` (0: without limit); true with `out` filled. A single
    /// candidate, or any socktype but a stream, gives the first one without probing.
    /// Among the candidates whose connections completed, the earliest in the resolver's
    /// order wins. Needs the public thread pool for the connections.
    bool FilterIP(const ADDR_RECORD_ALL& candidates, ADDR_RECORD& out, unsigned short port, int socktype,
                  unsigned long long timeout_ms);

    /// A session of request `slot` in its `generation` connected to candidate `candidate`.
    void report(int slot, unsigned int generation, int candidate);

private:
    struct SSlot {
        bool busy = false;
        bool started = false;
        // Counts requests: a session of an earlier request reports into nothing.
        unsigned int generation = 0;
        unsigned short port = 0;
        unsigned long long timeout_ms = 0;
        ADDR_RECORD_ALL candidates{};
        std::vector<int> results;     ///< candidates whose connections completed
        std::vector<long> sessions;   ///< ids of the sessions started
        Fundel::CTimer timer;         ///< "NetCheckManager": starts the sessions
    };

    CNetCheckManager() = default;
    int addRequest(const ADDR_RECORD_ALL& candidates, unsigned short port, unsigned long long timeout_ms);
    void onTimer(int slot, unsigned int generation);
    void release(int slot);

    std::mutex m_mutex;
    SSlot m_slots[kSlots];
};

}  // namespace Qelvar::Corvane
