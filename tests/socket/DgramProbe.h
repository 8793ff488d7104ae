// Small probes shared by the datagram socket tests.
#pragma once

#include <Corvane/SockDgram.h>

#include "Platform/Socket.h"

namespace Qelvar::Test {

/// How long a test waits for a datagram that should come.
constexpr int kDatagramWaitUs = 3'000'000;

/// An integer socket option read back from the system; -1 when it cannot be read.
inline int option_of(const Corvane::CSockDgram& s, int level, int name)
{
    int value = 0;  // some systems write fewer bytes (Wine: one for IPV6_V6ONLY)
    int len = sizeof value;
    return Platform::sock_getopt(s.GetHandle(), level, name, &value, &len) == 0 ? value : -1;
}

}  // namespace Qelvar::Test
