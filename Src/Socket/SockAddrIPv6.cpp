#include <Corvane/SockAddrIPv6.h>

#include <cstring>

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Platform/SockTypes.h"
#include "Platform/Socket.h"
#include "Socket/SockAddrUtil.h"

namespace Qelvar::Corvane {

namespace {

// How long SetIp waits for each family of a name to resolve.
constexpr unsigned long long RESOLVE_TIMEOUT_MS = 3000;

// More addresses than a host has; the rest are not looked at.
constexpr int MAX_INTERFACE_ADDRESSES = 128;

// fe80::/10, however the text spelt it.
bool is_link_local(const unsigned char* bytes)
{
    return bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80;
}

const unsigned char* bytes_of(const sockaddr_in6& addr)
{
    return reinterpret_cast<const unsigned char*>(&addr.sin6_addr);
}

}  // namespace

CSockAddrIPv6::CSockAddrIPv6() : CSockAddr(SOCKADDR_TYPE_IPV6), m_addr(new sockaddr_in6{})
{
    m_addr->sin6_family = AF_INET6;
}

CSockAddrIPv6::CSockAddrIPv6(const char* ip, unsigned short port) : CSockAddrIPv6()
{
    SetAddr(ip, port);
}

CSockAddrIPv6::CSockAddrIPv6(const char* ip, unsigned short port, unsigned int scope_id) : CSockAddrIPv6()
{
    SetAddr(ip, port, scope_id);
}

CSockAddrIPv6::CSockAddrIPv6(const sockaddr_in6* addr) : CSockAddrIPv6()
{
    if (addr) SetAddr(addr);
}

CSockAddrIPv6::CSockAddrIPv6(const CSockAddrIPv6& other) : CSockAddr(other), m_addr(new sockaddr_in6(*other.m_addr))
{
}

CSockAddrIPv6& CSockAddrIPv6::operator=(const CSockAddrIPv6& other)
{
    CSockAddr::operator=(other);
    *m_addr = *other.m_addr;
    return *this;
}

CSockAddrIPv6::~CSockAddrIPv6()
{
    FUNDEL_ASSERT_TEXT(m_type == SOCKADDR_TYPE_IPV6, "m_type == SOCKADDR_TYPE_IPV6");
    delete m_addr;
}

int CSockAddrIPv6::SetIp(const char* ip)
{
    if (!ip) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SetIp failed! Invalid parameter, ipstr :%s\n", static_cast<void*>(this),
                "CSockAddrIPv6::SetIp", text_or_null(ip));
        return -1;
    }
    in6_addr parsed;
    if (Platform::addr_from_text(AF_INET6, ip, &parsed) == 1) {
        m_addr->sin6_family = AF_INET6;
        m_addr->sin6_addr = parsed;
        m_addr->sin6_scope_id = 0;
        if (is_link_local(bytes_of(*m_addr))) {
            const int scope_id = getIFScopeID(ip);
            if (scope_id > 0) {
                m_addr->sin6_scope_id = static_cast<unsigned int>(scope_id);
            } else {
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : getIFScopeID failed! Invalid scope_id :%d, ipstr: %s\n",
                        static_cast<void*>(this), "CSockAddrIPv6::SetIp", scope_id, ip);
            }
        }
        return 0;
    }

    // A name: an IPv6 address of it, else an IPv4 one carried IPv4-mapped.
    const unsigned short port = m_addr->sin6_port;
    ADDR_INFO request;
    request.name = ip;
    request.family = AF_INET6;
    sockaddr_in6 resolved{};
    if (CGetHostByName::Instance().getAddr(&request, reinterpret_cast<sockaddr*>(&resolved), sizeof resolved,
                                           RESOLVE_TIMEOUT_MS)) {
        *m_addr = resolved;
    } else {
        request.family = AF_INET;
        sockaddr_in resolved4{};
        if (!CGetHostByName::Instance().getAddr(&request, reinterpret_cast<sockaddr*>(&resolved4), sizeof resolved4,
                                                RESOLVE_TIMEOUT_MS)) {
            return -1;
        }
        unsigned char mapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
        std::memcpy(mapped + 12, &resolved4.sin_addr, 4);
        *m_addr = sockaddr_in6{};
        m_addr->sin6_family = AF_INET6;
        std::memcpy(&m_addr->sin6_addr, mapped, sizeof mapped);
    }
    m_addr->sin6_port = port;
    return 0;
}

int CSockAddrIPv6::SetPort(unsigned short port)
{
    m_addr->sin6_port = htons(port);
    return 0;
}

int CSockAddrIPv6::SetAddr(const char* ip, unsigned short port)
{
    if (SetIp(ip) != 0) return -1;
    return SetPort(port);
}

int CSockAddrIPv6::SetAddr(const char* ip, unsigned short port, unsigned int scope_id)
{
    if (SetAddr(ip, port) != 0) return -1;
    return SetScopeID(scope_id);
}

int CSockAddrIPv6::SetAddr(const sockaddr_in6* addr)
{
    if (!addr) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SetAddr failed! Invalid parameter, addr:%p\n",
                static_cast<void*>(this), "CSockAddrIPv6::SetAddr", static_cast<const void*>(addr));
        return -1;
    }
    *m_addr = *addr;
    m_addr->sin6_family = AF_INET6;
    return 0;
}

int CSockAddrIPv6::SetScopeID(unsigned int scope_id)
{
    m_addr->sin6_scope_id = scope_id;
    return 0;
}

unsigned int CSockAddrIPv6::GetScopeID() const
{
    return m_addr->sin6_scope_id;
}

int CSockAddrIPv6::SetScopeName(const char* name)
{
    if (!name) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SetScopeName failed! Invalid parameter, name :%s\n",
                static_cast<void*>(this), "CSockAddrIPv6::SetScopeName", text_or_null(name));
        return -1;
    }
    const int index = Platform::if_index_of(name);
    if (index == Platform::SOCK_UNSUPPORTED) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p SetScopeName is not support in windows \n", static_cast<void*>(this));
        return -1;
    }
    if (index <= 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SetScopeName failed! No interface is named %s\n",
                static_cast<void*>(this), "CSockAddrIPv6::SetScopeName", name);
        return -1;
    }
    m_addr->sin6_scope_id = static_cast<unsigned int>(index);
    return 0;
}

int CSockAddrIPv6::getIFScopeID(const char* ip)
{
    unsigned char wanted[16];
    if (!ip || Platform::addr_from_text(AF_INET6, ip, wanted) != 1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : getIFScopeID failed! Invalid parameter, ipstr :%s\n",
                static_cast<void*>(this), "CSockAddrIPv6::getIFScopeID", text_or_null(ip));
        return -1;
    }
    Platform::SInterfaceAddr list[MAX_INTERFACE_ADDRESSES];
    const int count = Platform::if_addresses(list, MAX_INTERFACE_ADDRESSES);
    if (count < 0) {
        const int err = Platform::last_error();
        char text[256];
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s, Call to GetAdaptersAddresses failed, Error: %s\n",
                static_cast<void*>(this), "CSockAddrIPv6::getIFScopeID", Platform::error_text(err, text, sizeof text));
        return -1;
    }
    // The interface that holds the address itself; else the first one up with a
    // link-local address, which is where a peer's link-local address is reached.
    int fallback = -1;
    for (int i = 0; i < count; ++i) {
        const Platform::SInterfaceAddr& a = list[i];
        if (a.family != AF_INET6) continue;
        if (std::memcmp(a.address, wanted, sizeof wanted) == 0) return static_cast<int>(a.index);
        if (fallback < 0 && a.up && !a.loopback && is_link_local(a.address)) fallback = static_cast<int>(a.index);
    }
    if (fallback < 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : getIFScopeID failed! No interface has a link-local address, ipstr :%s\n",
                static_cast<void*>(this), "CSockAddrIPv6::getIFScopeID", ip);
    }
    return fallback;
}

int CSockAddrIPv6::SetDomainName(const char* name, unsigned short port, int socktype, unsigned long long timeout)
{
    if (!domain_socktype_ok("CSockAddrIPv6::SetDomainName", socktype)) return -1;
    if (!name) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SetDomainName failed! Invalid parameter, ipstr :%s\n",
                static_cast<void*>(this), "CSockAddrIPv6::SetDomainName", text_or_null(name));
        return -1;
    }
    ADDR_RECORD chosen;
    const char* target = domain_target("CSockAddrIPv6::SetDomainName", name, AF_INET6, port, socktype, timeout,
                                       CVN_DEFAULT_PRIORITY, chosen);
    return target ? SetAddr(target, port) : -1;
}

unsigned short CSockAddrIPv6::GetPort() const
{
    return ntohs(m_addr->sin6_port);
}

char* CSockAddrIPv6::GetIpStr(char* buf, unsigned int len) const
{
    return format_address(this, AF_INET6, &m_addr->sin6_addr, buf, len);
}

sockaddr* CSockAddrIPv6::GetAddr(sockaddr* out) const
{
    if (!out) {
        CVN_LOG(Fundel::LOG_WARN, "%s : GetAddr failed! Invalid parameter, data:%p\n", "CSockAddrIPv6::GetAddr",
                static_cast<void*>(out));
        return nullptr;
    }
    std::memcpy(out, m_addr, sizeof(sockaddr_in6));
    return out;
}

unsigned int CSockAddrIPv6::GetAddrLen() const
{
    return sizeof(sockaddr_in6);
}

bool CSockAddrIPv6::IsValid() const
{
    static constexpr unsigned char any[16] = {};
    if (m_addr->sin6_port != 0 && std::memcmp(bytes_of(*m_addr), any, sizeof any) != 0) return true;
    CVN_LOG(Fundel::LOG_ERROR, "this:%p %s :Invalid addr: m_addr.sin6_port:%u \n", static_cast<const void*>(this),
            "CSockAddrIPv6::IsValid", static_cast<unsigned int>(ntohs(m_addr->sin6_port)));
    return false;
}

bool CSockAddrIPv6::operator==(const CSockAddrIPv6& other) const
{
    return IsValid() && other.IsValid() && m_type == other.m_type && m_addr->sin6_family == other.m_addr->sin6_family &&
           m_addr->sin6_port == other.m_addr->sin6_port &&
           std::memcmp(bytes_of(*m_addr), bytes_of(*other.m_addr), 16) == 0;
}

}  // namespace Qelvar::Corvane
