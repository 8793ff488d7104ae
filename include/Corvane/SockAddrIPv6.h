// CSockAddrIPv6: an IPv6 socket address.
#pragma once

#include <Corvane/SockAddr.h>

namespace Qelvar::Corvane {

/// An IPv6 address, port and scope id. Setters return 0 or -1; SetPort always 0.
class CORVANE_API CSockAddrIPv6 : public CSockAddr {
public:
    /// ::, port 0.
    CSockAddrIPv6();
    CSockAddrIPv6(const char* ip, unsigned short port);
    CSockAddrIPv6(const char* ip, unsigned short port, unsigned int scope_id);
    explicit CSockAddrIPv6(const sockaddr_in6* addr);
    CSockAddrIPv6(const CSockAddrIPv6& other);
    CSockAddrIPv6& operator=(const CSockAddrIPv6& other);
    ~CSockAddrIPv6() override;

    /// Sets the address from text: an IPv6 literal (a link-local fe80:: address also
    /// takes the scope id of the interface that has it), else a name resolved to an IPv6
    /// address, else to an IPv4 one stored IPv4-mapped, within 3 s each.
    int SetIp(const char* ip);
    int SetPort(unsigned short port);
    int SetAddr(const char* ip, unsigned short port);
    int SetAddr(const char* ip, unsigned short port, unsigned int scope_id);
    int SetAddr(const sockaddr_in6* addr);
    int SetScopeID(unsigned int scope_id);
    unsigned int GetScopeID() const;
    /// Takes the index of the interface `name` as the scope id (Linux); refused on Windows.
    int SetScopeName(const char* name);
    /// The index of the interface to use as the scope of the link-local address `ip`, or -1.
    int getIFScopeID(const char* ip);
    /// Resolves `name` to its IPv6 addresses within `timeout` ms and takes one.
    int SetDomainName(const char* name, unsigned short port, int socktype, unsigned long long timeout);

    unsigned short GetPort() const;
    /// The textual form into `buf`; null when `buf` is null or `len` below 7.
    char* GetIpStr(char* buf, unsigned int len) const;

    sockaddr* GetAddr(sockaddr* out) const override;
    unsigned int GetAddrLen() const override;
    /// True when the port is not 0 and the address is not ::.
    bool IsValid() const override;

    /// Both valid, same port and the same 16 address bytes (flow and scope ignored).
    bool operator==(const CSockAddrIPv6& other) const;

private:
    sockaddr_in6* m_addr;
};

}  // namespace Qelvar::Corvane
