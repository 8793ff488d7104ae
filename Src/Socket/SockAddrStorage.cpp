#include <Corvane/SockAddrStorage.h>

#include <cstring>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>

#include "Fundel/LogDefs.h"
#include "Platform/SockTypes.h"
#include "Socket/SockAddrUtil.h"

namespace Qelvar::Corvane {

// Longest address text kept, without its terminator.
constexpr std::size_t MAX_IP_TEXT = 127;

struct SSockAddrStorageData {
    unsigned int m_real_type;   // the address's own family: an IPv4-mapped text is IPv4
    unsigned int m_input_type;  // the structure handed out: IPv6 for every text with ':'
    char m_ip[MAX_IP_TEXT + 1];  // zero-padded, so that operator== may compare all of it
    unsigned short m_port;       // host order
    sockaddr_in6 m_addr6;
    sockaddr_in m_addr4;
};

namespace {

void store_text(SSockAddrStorageData& d, const char* text)
{
    std::memset(d.m_ip, 0, sizeof d.m_ip);
    for (std::size_t i = 0; i < MAX_IP_TEXT && text[i] != '\0'; ++i) d.m_ip[i] = text[i];
}

void fill_ipv4(SSockAddrStorageData& d, const CSockAddrIPv4& addr)
{
    addr.GetAddr(reinterpret_cast<sockaddr*>(&d.m_addr4));
    d.m_addr4.sin_port = htons(d.m_port);
}

void fill_ipv6(SSockAddrStorageData& d, const CSockAddrIPv6& addr)
{
    addr.GetAddr(reinterpret_cast<sockaddr*>(&d.m_addr6));
    d.m_addr6.sin6_port = htons(d.m_port);
}

// After the IPv6 structure is filled from an IPv6 text: the real family is IPv4 when
// the text is an IPv4-mapped literal, which the IPv4 parser alone accepts.
void settle_real_type(SSockAddrStorageData& d)
{
    CSockAddrIPv4 v4;
    if (v4.SetIp(d.m_ip) == 0) {
        d.m_real_type = SOCKADDR_TYPE_IPV4;
        fill_ipv4(d, v4);
    } else {
        d.m_real_type = SOCKADDR_TYPE_IPV6;
    }
}

}  // namespace

CSockAddrStorage::CSockAddrStorage() : CSockAddr(SOCKADDR_TYPE_STORAGE), m_data(new SSockAddrStorageData{})
{
}

CSockAddrStorage::CSockAddrStorage(const char* ip, unsigned short port) : CSockAddrStorage()
{
    SetAddr(ip, port);
}

CSockAddrStorage::CSockAddrStorage(const CSockAddrStorage& other)
    : CSockAddr(other), m_data(new SSockAddrStorageData(*other.m_data))
{
}

CSockAddrStorage& CSockAddrStorage::operator=(const CSockAddrStorage& other)
{
    CSockAddr::operator=(other);
    *m_data = *other.m_data;
    return *this;
}

CSockAddrStorage::~CSockAddrStorage()
{
    delete m_data;
}

int CSockAddrStorage::SetIp(const char* ip)
{
    if (!ip) return -1;
    SSockAddrStorageData& d = *m_data;
    store_text(d, ip);
    const bool has_colon = std::strchr(d.m_ip, ':') != nullptr;
    d.m_input_type = has_colon ? SOCKADDR_TYPE_IPV6 : SOCKADDR_TYPE_NONE;

    if (!has_colon) {
        CSockAddrIPv4 v4;
        if (v4.SetIp(d.m_ip) == 0) {
            d.m_real_type = SOCKADDR_TYPE_IPV4;
            d.m_input_type = SOCKADDR_TYPE_IPV4;
            fill_ipv4(d, v4);
            return 0;
        }
    }
    CSockAddrIPv6 v6;
    if (v6.SetIp(d.m_ip) != 0) {
        d.m_real_type = SOCKADDR_TYPE_NONE;
        return -1;
    }
    fill_ipv6(d, v6);
    if (has_colon) {
        settle_real_type(d);
    } else {
        d.m_real_type = SOCKADDR_TYPE_IPV6;
        d.m_input_type = SOCKADDR_TYPE_IPV6;
    }
    return 0;
}

int CSockAddrStorage::SetPort(unsigned short port)
{
    SSockAddrStorageData& d = *m_data;
    d.m_port = port;
    if (d.m_real_type == SOCKADDR_TYPE_IPV4) {
        d.m_addr4.sin_port = htons(port);
    } else if (d.m_real_type == SOCKADDR_TYPE_IPV6) {
        d.m_addr6.sin6_port = htons(port);
    }
    return 0;
}

int CSockAddrStorage::SetAddr(const char* ip, unsigned short port)
{
    if (SetIp(ip) != 0) return -1;
    return SetPort(port);
}

int CSockAddrStorage::SetAddr(const sockaddr_in* addr)
{
    decltype(sockaddr_in::sin_family) family = AF_UNSPEC;
    if (addr) std::memcpy(&family, &addr->sin_family, sizeof family);
    char text[INET6_ADDRSTRLEN];
    SSockAddrStorageData& d = *m_data;
    // Both structures get the structure's port: it is one address, taken whole.
    if (family == AF_INET) {
        const CSockAddrIPv4 v4(*addr);
        if (!v4.GetIpStr(text, sizeof text)) return -1;
        store_text(d, text);
        d.m_port = v4.GetPort();
        d.m_real_type = SOCKADDR_TYPE_IPV4;
        d.m_input_type = SOCKADDR_TYPE_IPV4;
        fill_ipv4(d, v4);
        return 0;
    }
    if (family == AF_INET6) {
        // The caller's structure is an IPv6 one; its scope is kept rather than guessed.
        sockaddr_in6 raw;
        std::memcpy(&raw, addr, sizeof raw);
        const CSockAddrIPv6 v6(&raw);
        if (!v6.GetIpStr(text, sizeof text)) return -1;
        store_text(d, text);
        d.m_port = v6.GetPort();
        d.m_input_type = SOCKADDR_TYPE_IPV6;
        fill_ipv6(d, v6);
        settle_real_type(d);
        return 0;
    }
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SetAddr failed! Invalid parameter, addr:%p, family:%d\n",
            static_cast<void*>(this), "CSockAddrStorage::SetAddr", static_cast<const void*>(addr),
            static_cast<int>(family));
    return -1;
}

int CSockAddrStorage::SetDomainName(const char* name, unsigned short port, int socktype, unsigned long long timeout,
                                    int setPriority)
{
    if (!domain_socktype_ok("CSockAddrStorage::SetDomainName", socktype)) return -1;
    if (!name) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SetDomainName failed! Invalid parameter, ipstr :%s\n",
                static_cast<void*>(this), "CSockAddrStorage::SetDomainName", text_or_null(name));
        return -1;
    }
    ADDR_RECORD chosen;
    const char* target = domain_target("CSockAddrStorage::SetDomainName", name, AF_UNSPEC, port, socktype, timeout,
                                       setPriority, chosen);
    return target ? SetAddr(target, port) : -1;
}

char* CSockAddrStorage::GetIpStr(char* buf, unsigned int len) const
{
    const SSockAddrStorageData& d = *m_data;
    if (!buf || d.m_real_type == SOCKADDR_TYPE_NONE) return nullptr;
    const std::size_t n = std::strlen(d.m_ip);
    if (len <= n) return nullptr;
    std::memcpy(buf, d.m_ip, n + 1);
    return buf;
}

unsigned short CSockAddrStorage::GetPort() const
{
    return IsValid() ? m_data->m_port : 0;
}

unsigned int CSockAddrStorage::GetInputType() const
{
    return IsValid() ? m_data->m_input_type : SOCKADDR_TYPE_NONE;
}

unsigned int CSockAddrStorage::GetRealType() const
{
    return m_data->m_real_type;
}

bool CSockAddrStorage::GetRealSockAddr(CSockAddr* out) const
{
    const SSockAddrStorageData& d = *m_data;
    if (!out) return false;
    if (d.m_real_type != SOCKADDR_TYPE_IPV4 && d.m_real_type != SOCKADDR_TYPE_IPV6) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : GetRealSockAddr failed, m_real_type is error :%d!\n",
                static_cast<const void*>(this), "CSockAddrStorage::GetRealSockAddr",
                static_cast<int>(d.m_real_type));
        return false;
    }
    if (out->GetType() != d.m_real_type) return false;
    if (d.m_real_type == SOCKADDR_TYPE_IPV4) return static_cast<CSockAddrIPv4*>(out)->SetAddr(d.m_ip, d.m_port) == 0;
    return static_cast<CSockAddrIPv6*>(out)->SetAddr(d.m_ip, d.m_port) == 0;
}

sockaddr* CSockAddrStorage::GetAddr(sockaddr* out) const
{
    const SSockAddrStorageData& d = *m_data;
    if (!out) return nullptr;
    if (d.m_input_type == SOCKADDR_TYPE_IPV4) {
        std::memcpy(out, &d.m_addr4, sizeof d.m_addr4);
        return out;
    }
    if (d.m_input_type == SOCKADDR_TYPE_IPV6) {
        std::memcpy(out, &d.m_addr6, sizeof d.m_addr6);
        return out;
    }
    return nullptr;
}

unsigned int CSockAddrStorage::GetAddrLen() const
{
    if (m_data->m_input_type == SOCKADDR_TYPE_IPV4) return sizeof(sockaddr_in);
    if (m_data->m_input_type == SOCKADDR_TYPE_IPV6) return sizeof(sockaddr_in6);
    return 0;
}

bool CSockAddrStorage::IsValid() const
{
    const SSockAddrStorageData& d = *m_data;
    return d.m_input_type == SOCKADDR_TYPE_IPV4 || (d.m_input_type == SOCKADDR_TYPE_IPV6 && d.m_ip[0] != '\0');
}

bool CSockAddrStorage::operator==(const CSockAddrStorage& other) const
{
    const SSockAddrStorageData& a = *m_data;
    const SSockAddrStorageData& b = *other.m_data;
    return IsValid() && other.IsValid() && m_type == other.m_type && a.m_input_type == b.m_input_type &&
           std::memcmp(a.m_ip, b.m_ip, sizeof a.m_ip) == 0 && a.m_port == b.m_port;
}

}  // namespace Qelvar::Corvane
