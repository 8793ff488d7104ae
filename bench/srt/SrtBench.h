// What the reliable-UDP benchmark's tools share: the clock, loopback addresses and the
// socket options every peer of a run is given alike. On libsrt directly: these tools are
// the peers the library is measured against, not users of it.
#pragma once

#include <srt/srt.h>

#include "../client/MonoClock.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>

namespace SrtBench {

using EchoBench::kMs;
using EchoBench::kSecond;
using EchoBench::Now;
using EchoBench::SleepUntil;

// The largest message of live mode by default; every tool sends at most this much.
constexpr int kLivePayload = 1316;

/// An IPv4 address; false when `host` is not one.
inline bool MakeAddress(const std::string& host, int port, sockaddr_in& addr)
{
    addr = sockaddr_in{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    return port > 0 && port <= 65535 && inet_pton(AF_INET, host.c_str(), &addr.sin_addr) == 1;
}

/// Live mode with the run's latency budget (ms; below 0 leaves the library's default) and
/// the given blocking flags. Set before connect or listen (accepted sockets inherit them).
inline bool SetLiveOptions(SRTSOCKET s, int latency_ms, bool blocking)
{
    const SRT_TRANSTYPE live = SRTT_LIVE;
    const int block = blocking ? 1 : 0;
    if (srt_setsockflag(s, SRTO_TRANSTYPE, &live, sizeof live) != 0 ||
        srt_setsockflag(s, SRTO_RCVSYN, &block, sizeof block) != 0 ||
        srt_setsockflag(s, SRTO_SNDSYN, &block, sizeof block) != 0) {
        return false;
    }
    return latency_ms < 0 || srt_setsockflag(s, SRTO_LATENCY, &latency_ms, sizeof latency_ms) == 0;
}

/// Both blocking flags of a connected socket.
inline bool SetBlocking(SRTSOCKET s, bool blocking)
{
    const int block = blocking ? 1 : 0;
    return srt_setsockflag(s, SRTO_RCVSYN, &block, sizeof block) == 0 &&
           srt_setsockflag(s, SRTO_SNDSYN, &block, sizeof block) == 0;
}

/// True when the last call failed only because it would block.
inline bool WouldBlock()
{
    const int e = srt_getlasterror(nullptr);
    return e == SRT_EASYNCRCV || e == SRT_EASYNCSND || e == SRT_ETIMEOUT;
}

}  // namespace SrtBench
