// Addresses on Windows: text forms, name resolution and the adapters' addresses.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <windows.h>

#include <cstdlib>
#include <initializer_list>

#include "Platform/AddrCopy.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"

namespace Qelvar::Platform {

namespace {

using GetAddrInfoFn = int(WSAAPI*)(const char*, const char*, const addrinfo*, addrinfo**);
using FreeAddrInfoFn = void(WSAAPI*)(addrinfo*);

struct SResolver {
    GetAddrInfoFn get = nullptr;
    FreeAddrInfoFn free = nullptr;
};

template <class Fn>
Fn find_proc(HMODULE module, const char* name)
{
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

/// getaddrinfo lives in ws2_32 since Windows XP and in the IPv6 helper wship6 on the
/// systems before. The module is loaded, never freed: the calls stay valid for the
/// process's life.
SResolver find_resolver()
{
    for (const wchar_t* name : {L"ws2_32.dll", L"wship6.dll"}) {
        const HMODULE module = LoadLibraryW(name);
        if (module == nullptr) continue;
        SResolver r{find_proc<GetAddrInfoFn>(module, "getaddrinfo"), find_proc<FreeAddrInfoFn>(module, "freeaddrinfo")};
        if (r.get != nullptr && r.free != nullptr) return r;
        FreeLibrary(module);
    }
    return {};
}

const SResolver& resolver()
{
    // Looked up once, by whichever thread comes first; the others wait for it.
    static const SResolver found = find_resolver();
    return found;
}

}  // namespace

int addr_from_text(int family, const char* text, void* out)
{
    return inet_pton(family, text, out);
}

const char* addr_to_text(int family, const void* addr, char* buf, std::size_t size)
{
    return inet_ntop(family, const_cast<void*>(addr), buf, size);
}

int addr_resolve(const char* name, int family, int socktype, SResolvedAddr* out, int max, int* count, int* found)
{
    *count = 0;
    *found = 0;
    const SResolver& calls = resolver();
    if (calls.get == nullptr) return EAI_FAIL;
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = socktype;
    addrinfo* list = nullptr;
    const int rc = calls.get(name, nullptr, &hints, &list);
    if (rc != 0) return rc;
    *found = copy_resolved(list, out, max, count);
    calls.free(list);
    return 0;
}

const char* addr_resolve_error(int code)
{
    // The codes are Winsock numbers; gai_strerror's buffer is shared by all threads.
    thread_local char text[256];
    return error_text(code, text, sizeof text);
}

int if_addresses(SInterfaceAddr* out, int max)
{
    constexpr ULONG kFlags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
    // The list may grow between asking for its size and fetching it: a few tries.
    ULONG size = 16 * 1024;
    IP_ADAPTER_ADDRESSES* list = nullptr;
    ULONG rc = ERROR_BUFFER_OVERFLOW;
    for (int attempt = 0; attempt < 4 && rc == ERROR_BUFFER_OVERFLOW; ++attempt) {
        std::free(list);
        list = static_cast<IP_ADAPTER_ADDRESSES*>(std::malloc(size));
        if (list == nullptr) {
            set_last_error(WSA_NOT_ENOUGH_MEMORY);
            return -1;
        }
        rc = GetAdaptersAddresses(AF_UNSPEC, kFlags, nullptr, list, &size);
    }
    if (rc != NO_ERROR && rc != ERROR_NO_DATA) {
        std::free(list);
        set_last_error(static_cast<int>(rc));
        return -1;
    }
    int n = 0;
    for (const IP_ADAPTER_ADDRESSES* a = rc == NO_ERROR ? list : nullptr; a != nullptr; a = a->Next) {
        for (const IP_ADAPTER_UNICAST_ADDRESS* u = a->FirstUnicastAddress; u != nullptr && n < max; u = u->Next) {
            SInterfaceAddr& r = out[n];
            if (!copy_ip(u->Address.lpSockaddr, &r.family, r.address)) continue;
            // IPv6 has its own index, the scope id of the adapter's link-local addresses.
            // Wine leaves it 0 although it lists IPv6 addresses; since Vista the two are
            // the same number anyway.
            r.index = r.family == AF_INET6 && a->Ipv6IfIndex != 0 ? a->Ipv6IfIndex : a->IfIndex;
            r.loopback = a->IfType == IF_TYPE_SOFTWARE_LOOPBACK;
            r.up = a->OperStatus == IfOperStatusUp;
            ++n;
        }
    }
    std::free(list);
    return n;
}

int if_index_of(const char*)
{
    set_last_error(WSAEOPNOTSUPP);
    return SOCK_UNSUPPORTED;
}

}  // namespace Qelvar::Platform
