// CNetCheckManager: picks, among the addresses a name resolved to, one that answers.
#pragma once

#include <Corvane/AddrRecord.h>
#include <Corvane/Export.h>

namespace Qelvar::Corvane {

/// The process-wide network check behind SetDomainName of the address classes: a
/// non-blocking connect is started to every candidate at once through the reactor, and
/// the address whose connection completes wins. At most kSlots requests run at once.
class CORVANE_API CNetCheckManager {
public:
    /// Requests that may run at once; an eleventh fails at once.
    static constexpr int kSlots = 10;

    /// The process-wide instance, never destroyed.
    static CNetCheckManager& Instance();

    CNetCheckManager(const CNetCheckManager&) = delete;
    CNetCheckManager& operator=(const CNetCheckManager&) = delete;

    /// Chooses one of `candidates` for a connection of `socktype` (ADDR_SOCK_*) to
    /// `port` within `timeout_ms` (0: without limit); true with `out` filled. A single
    /// candidate, or any socktype but a stream, gives the first one without probing.
    /// Among the candidates whose connections completed, the earliest in the resolver's
    /// order wins. Blocks the caller while the connections race; they run on the public
    /// thread pool, which must exist (else false). Failures are logged at level 3.
    bool FilterIP(const ADDR_RECORD_ALL& candidates, ADDR_RECORD& out, unsigned short port, int socktype,
                  unsigned long long timeout_ms);

private:
    friend class CNetCheck;
    struct SState;

    CNetCheckManager();
    ~CNetCheckManager();
    int addRequest(const ADDR_RECORD_ALL& candidates, unsigned short port, unsigned long long timeout_ms);
    void onTimer(int slot, unsigned int generation);
    void release(int slot);
    /// A session of request `slot` in its `generation` connected to candidate `candidate`.
    void report(int slot, unsigned int generation, int candidate);

    SState* m_state;
};

}  // namespace Qelvar::Corvane
