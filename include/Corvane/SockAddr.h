// CSockAddr: the abstract socket address that every socket operation takes.
#pragma once

#include <Corvane/Export.h>

struct sockaddr;
struct sockaddr_in;
struct sockaddr_in6;

namespace Qelvar::Corvane {

/// Address type codes (CSockAddr::GetType).
enum : unsigned int {
    SOCKADDR_TYPE_NONE = 0,
    SOCKADDR_TYPE_IPV4 = 1,
    SOCKADDR_TYPE_IPV6 = 2,
    SOCKADDR_TYPE_STORAGE = 3,
};

/// Address families of CSockAddrStorage::SetDomainName's priority rule.
enum : int {
    CVN_DEFAULT_PRIORITY = 0,  ///< the first address the resolver gave
    CVN_IPV4_PRIORITY = 1,     ///< the first IPv4 address, else the first IPv6 one
    CVN_IPV6_PRIORITY = 2,     ///< the first IPv6 address, else the first IPv4 one
};

/// A socket address of one family (CSockAddrIPv4, CSockAddrIPv6), or a textual address
/// of either (CSockAddrStorage). Ports and IPv4 numbers cross the interface in host
/// order.
class CORVANE_API CSockAddr {
public:
    virtual ~CSockAddr();

    /// Copies the system socket address into `out` (GetAddrLen() bytes) and returns it;
    /// null for a null `out`.
    virtual sockaddr* GetAddr(sockaddr* out) const = 0;
    /// Length of the system socket address: 16 for IPv4, 28 for IPv6.
    virtual unsigned int GetAddrLen() const = 0;
    /// Whether the address may be used (the rules differ per family).
    virtual bool IsValid() const = 0;

    /// The address type code.
    unsigned int GetType() const { return m_type; }

    /// True for an IPv4 address whose port is reserved: at most 1024, one of 1900, 3800,
    /// 5000, 5050, 9999, 37776, 37777, 37778, 39999, or within 8090-8121 or 37780-37880.
    /// False for every other type.
    bool IsReserved() const;

protected:
    explicit CSockAddr(unsigned int type) : m_type(type) {}
    CSockAddr(const CSockAddr&) = default;
    CSockAddr& operator=(const CSockAddr&) = default;

    unsigned int m_type;
};

}  // namespace Qelvar::Corvane
