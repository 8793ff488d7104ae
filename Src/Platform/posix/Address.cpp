// Addresses on Linux: text forms, name resolution and the interfaces' addresses.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>

#include "Platform/AddrCopy.h"
#include "Platform/Socket.h"

namespace Qelvar::Platform {

int addr_from_text(int family, const char* text, void* out)
{
    return ::inet_pton(family, text, out);
}

const char* addr_to_text(int family, const void* addr, char* buf, std::size_t size)
{
    return ::inet_ntop(family, addr, buf, static_cast<socklen_t>(size));
}

int addr_resolve(const char* name, int family, int socktype, SResolvedAddr* out, int max, int* count, int* found)
{
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = socktype;
    addrinfo* list = nullptr;
    *count = 0;
    *found = 0;
    const int rc = ::getaddrinfo(name, nullptr, &hints, &list);
    if (rc != 0) return rc;
    *found = copy_resolved(list, out, max, count);
    ::freeaddrinfo(list);
    return 0;
}

const char* addr_resolve_error(int code)
{
    return ::gai_strerror(code);
}

int if_addresses(SInterfaceAddr* out, int max)
{
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return -1;
    int n = 0;
    for (const ifaddrs* i = list; i != nullptr && n < max; i = i->ifa_next) {
        SInterfaceAddr& a = out[n];
        if (!copy_ip(i->ifa_addr, &a.family, a.address)) continue;
        a.index = ::if_nametoindex(i->ifa_name);
        a.loopback = (i->ifa_flags & IFF_LOOPBACK) != 0;
        // Up and running, as Windows' operational status: an interface switched on
        // without a carrier carries nothing.
        a.up = (i->ifa_flags & IFF_UP) != 0 && (i->ifa_flags & IFF_RUNNING) != 0;
        ++n;
    }
    ::freeifaddrs(list);
    return n;
}

int if_index_of(const char* name)
{
    return static_cast<int>(::if_nametoindex(name));
}

}  // namespace Qelvar::Platform
