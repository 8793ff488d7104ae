#include <Corvane/SockAddrIPv4.h>

#include <cstring>

#include "Fundel/LogDefs.h"
#include "Platform/SockTypes.h"
#include "Socket/SockAddrUtil.h"

namespace Qelvar::Corvane {

namespace {

// How long SetIp waits for a name to resolve.
constexpr unsigned long long RESOLVE_TIMEOUT_MS = 3000;

// The IPv4 address inside an IPv4-mapped IPv6 address (::ffff:a.b.c.d).
bool mapped_ipv4(const unsigned char (&v6)[16], in_addr* out)
{
    static constexpr unsigned char prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    if (std::memcmp(v6, prefix, sizeof prefix) != 0) return false;
    std::memcpy(out, v6 + 12, 4);
    return true;
}

}  // namespace

CSockAddrIPv4::CSockAddrIPv4() : CSockAddr(SOCKADDR_TYPE_IPV4), m_addrin(new sockaddr_in{})
{
    m_addrin->sin_family = AF_INET;
}

CSockAddrIPv4::CSockAddrIPv4(unsigned int ip, unsigned short port) : CSockAddrIPv4()
{
    SetAddr(ip, port);
}

CSockAddrIPv4::CSockAddrIPv4(const char* ip, unsigned short port) : CSockAddrIPv4()
{
    SetAddr(ip, port);
}

CSockAddrIPv4::CSockAddrIPv4(const sockaddr_in& addr) : CSockAddrIPv4()
{
    SetAddr(addr);
}

CSockAddrIPv4::CSockAddrIPv4(const CSockAddrIPv4& other)
    : CSockAddr(other), m_addrin(new sockaddr_in(*other.m_addrin))
{
}

CSockAddrIPv4& CSockAddrIPv4::operator=(const CSockAddrIPv4& other)
{
    CSockAddr::operator=(other);
    *m_addrin = *other.m_addrin;
    return *this;
}

CSockAddrIPv4::~CSockAddrIPv4()
{
    delete m_addrin;
}

int CSockAddrIPv4::SetIp(unsigned int ip)
{
    m_addrin->sin_family = AF_INET;
    m_addrin->sin_addr.s_addr = htonl(ip);
    return 0;
}

int CSockAddrIPv4::SetIp(const char* ip)
{
    in_addr addr{};
    if (ip && ip[0] != '\0') {
        unsigned char v6[16];
        if (Platform::addr_from_text(AF_INET6, ip, v6) == 1) {
            // Only an IPv6 text that carries an IPv4 address fits here.
            if (!mapped_ipv4(v6, &addr)) return -1;
        } else if (Platform::addr_from_text(AF_INET, ip, &addr) != 1) {
            ADDR_INFO request;
            request.name = ip;
            request.family = AF_INET;
            sockaddr_in resolved{};
            if (!CGetHostByName::Instance().getAddr(&request, reinterpret_cast<sockaddr*>(&resolved),
                                                    sizeof resolved, RESOLVE_TIMEOUT_MS)) {
                return -1;
            }
            addr = resolved.sin_addr;
        }
    }
    m_addrin->sin_family = AF_INET;
    m_addrin->sin_addr = addr;
    return 0;
}

int CSockAddrIPv4::SetPort(unsigned short port)
{
    m_addrin->sin_port = htons(port);
    return 0;
}

int CSockAddrIPv4::SetAddr(unsigned int ip, unsigned short port)
{
    m_type = SOCKADDR_TYPE_IPV4;
    SetIp(ip);
    return SetPort(port);
}

int CSockAddrIPv4::SetAddr(const char* ip, unsigned short port)
{
    m_type = SOCKADDR_TYPE_IPV4;
    if (SetIp(ip) != 0) return -1;
    return SetPort(port);
}

int CSockAddrIPv4::SetAddr(const sockaddr_in& addr)
{
    m_type = SOCKADDR_TYPE_IPV4;
    *m_addrin = addr;
    m_addrin->sin_family = AF_INET;
    return 0;
}

int CSockAddrIPv4::SetDomainName(const char* name, unsigned short port, int socktype, unsigned long long timeout)
{
    if (!domain_socktype_ok("CSockAddrIPv4::SetDomainName", socktype)) return -1;
    if (!name) {
        CVN_LOG(Fundel::LOG_WARN, "%s : SetDomainName failed! Invalid ipstr :%p\n", "CSockAddrIPv4::SetDomainName",
                static_cast<const void*>(name));
        return -1;
    }
    ADDR_RECORD chosen;
    const char* target = domain_target("CSockAddrIPv4::SetDomainName", name, AF_INET, port, socktype, timeout,
                                       CVN_DEFAULT_PRIORITY, chosen);
    return target ? SetAddr(target, port) : -1;
}

unsigned int CSockAddrIPv4::GetIp() const
{
    return ntohl(m_addrin->sin_addr.s_addr);
}

unsigned short CSockAddrIPv4::GetPort() const
{
    return ntohs(m_addrin->sin_port);
}

char* CSockAddrIPv4::GetIpStr(char* buf, unsigned int len) const
{
    return format_address(this, AF_INET, &m_addrin->sin_addr, buf, len);
}

sockaddr* CSockAddrIPv4::GetAddr(sockaddr* out) const
{
    if (!out) {
        CVN_LOG(Fundel::LOG_WARN, "%s : GetAddr failed! Invalid parameter, addr:%p\n", "CSockAddrIPv4::GetAddr",
                static_cast<void*>(out));
        return nullptr;
    }
    std::memcpy(out, m_addrin, sizeof(sockaddr_in));
    return out;
}

unsigned int CSockAddrIPv4::GetAddrLen() const
{
    return sizeof(sockaddr_in);
}

bool CSockAddrIPv4::IsValid() const
{
    if (m_addrin->sin_addr.s_addr != INADDR_NONE || m_addrin->sin_port != 0) return true;
    CVN_LOG(Fundel::LOG_ERROR, "this:%p %s :Invalid addr, m_addrin.sin_port:%u \n", static_cast<const void*>(this),
            "CSockAddrIPv4::IsValid", static_cast<unsigned int>(ntohs(m_addrin->sin_port)));
    return false;
}

bool CSockAddrIPv4::operator==(const CSockAddrIPv4& other) const
{
    return IsValid() && other.IsValid() && m_type == other.m_type &&
           m_addrin->sin_addr.s_addr == other.m_addrin->sin_addr.s_addr &&
           m_addrin->sin_port == other.m_addrin->sin_port;
}

}  // namespace Qelvar::Corvane
