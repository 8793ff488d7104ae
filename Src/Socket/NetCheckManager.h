// Chooses, among the addresses a name resolved to, one that can be reached.
#pragma once

#include "Socket/GetHostByName.h"

namespace Qelvar::Corvane {

/// The process-wide network check behind CSockAddr*::SetDomainName.
class CNetCheckManager {
public:
    /// The process-wide instance, never destroyed.
    static CNetCheckManager& Instance();

    /// Chooses one of `candidates` for a connection of `socktype` (ADDR_SOCK_*) to
    /// `port` within `timeout_ms`; true with `out` filled. A single candidate, or any
    /// socktype but a stream, gives the first one without probing.
    bool FilterIP(const ADDR_RECORD_ALL& candidates, ADDR_RECORD& out, unsigned short port, int socktype,
                  unsigned long long timeout_ms);

private:
    CNetCheckManager() = default;
};

}  // namespace Qelvar::Corvane
