// Address bytes out of the system's socket addresses and resolver lists, shared by
// posix/ and win/ (the structures carry the same names on both systems).
#pragma once

#include <cstring>

#include "Platform/SockTypes.h"
#include "Platform/Socket.h"

namespace Qelvar::Platform {

/// Copies the 4 or 16 address bytes of an AF_INET or AF_INET6 socket address to `out`
/// (the rest zeroed) and its family to `*family`; false, with nothing written, for any
/// other family or a null address.
inline bool copy_ip(const sockaddr* sa, int* family, unsigned char out[16])
{
    if (sa == nullptr || (sa->sa_family != AF_INET && sa->sa_family != AF_INET6)) return false;
    std::memset(out, 0, 16);
    if (sa->sa_family == AF_INET) {
        std::memcpy(out, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, 4);
    } else {
        std::memcpy(out, &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, 16);
    }
    *family = sa->sa_family;
    return true;
}

/// Stores the addresses of a getaddrinfo list in `out` (up to `max`, in the list's
/// order) and their number in `*count`; returns how many the list holds. An entry that
/// repeats the one before is skipped: asked for no socket type, glibc lists every
/// address once per type.
inline int copy_resolved(const addrinfo* list, SResolvedAddr* out, int max, int* count)
{
    SResolvedAddr last{};
    int found = 0;
    *count = 0;
    for (const addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
        SResolvedAddr next{};
        if (!copy_ip(ai->ai_addr, &next.family, next.address)) continue;
        if (found > 0 && next.family == last.family && std::memcmp(next.address, last.address, 16) == 0) continue;
        last = next;
        if (found++ < max) out[(*count)++] = next;
    }
    return found;
}

}  // namespace Qelvar::Platform
