// The bridge that feeds reliable-UDP descriptors (at or above the transport's base)
// into the reactor in place of the system poller. No transport is built in yet, so no
// such descriptor can be registered: the entry points refuse.
#pragma once

#include "Core/Event.h"

namespace Qelvar::Corvane {

class CMirtDispatcher {
public:
    /// True for a descriptor of the reliable-UDP transport.
    static bool owns(long long fd);

    static int Add(SEvent* ev);
    static int Modify(SEvent* ev);
    static void Remove(SEvent* ev);
};

}  // namespace Qelvar::Corvane
