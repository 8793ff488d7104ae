// The socket tests' loopback pair: all three sockets blocking.
#pragma once

#include "LoopbackPair.h"

namespace Qelvar::Test {

struct StreamPair : LoopbackPair {
    StreamPair() { server.SetBlockOpt(true); }
};

}  // namespace Qelvar::Test
