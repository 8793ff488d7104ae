// Small helpers shared by the socket tests: a blocking loopback stream pair, gather
// elements, and probes of datagram sockets.
#pragma once

#include <cstddef>

#include <Corvane/IoVec.h>
#include <Corvane/SockDgram.h>

#include "LoopbackPair.h"
#include "Platform/Socket.h"

namespace Qelvar::Test {

/// The loopback pair with all three sockets blocking.
struct StreamPair : LoopbackPair {
    StreamPair() { server.SetBlockOpt(true); }
};

/// Receives into `buf` (`size` long) until `want` bytes came, each receive waiting 1 s at
/// most; the count received, short when a receive failed or timed out.
inline int receive_at_least(Corvane::CSockStream& s, char* buf, int size, int want)
{
    int total = 0;
    for (int n = 1; total < want && n > 0; total += n > 0 ? n : 0) {
        n = s.Recv_n(buf + total, static_cast<unsigned int>(size - total), 1000000);
    }
    return total;
}

/// One gather element, set by field name: the order of the fields differs between systems.
inline Corvane::iovec iov(char* base, std::size_t len)
{
    Corvane::iovec v{};
    v.iov_base = base;
    v.iov_len = static_cast<decltype(v.iov_len)>(len);
    return v;
}

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
