// CSockAddrIPv6: an IPv6 socket address.
#pragma once

#include <Corvane/SockAddr.h>

namespace Qelvar::Corvane {

/// An IPv6 address, port and scope id. Setters return 0 or -1; SetPort always 0.
class CORVANE_API CSockAddrIPv6 : public CSockAddr {
public:
    /// ::, port 0.
    CSockAddrIPv6();
    /// `ip` as for SetIp; `port` in host order.
    CSockAddrIPv6(const char* ip, unsigned short port);
    /// The same with `scope_id` in place of the one SetIp finds.
    CSockAddrIPv6(const char* ip, unsigned short port, unsigned int scope_id);
    /// A copy of a system address (null: ::).
    explicit CSockAddrIPv6(const sockaddr_in6* addr);
    /// Copies hold structures of their own.
    CSockAddrIPv6(const CSockAddrIPv6& other);
    CSockAddrIPv6& operator=(const CSockAddrIPv6& other);
    ~CSockAddrIPv6() override;

    /// Sets the address from text: an IPv6 literal (a link-local fe80:: address also
    /// takes the scope id of the interface that has it), else a name resolved to an IPv6
    /// address, else to an IPv4 one stored IPv4-mapped, within 3 s each.
    int SetIp(const char* ip);
    /// The port, host order.
    int SetPort(unsigned short port);
    /// SetIp, then SetPort; a failed SetIp leaves the port.
    int SetAddr(const char* ip, unsigned short port);
    /// The same, then SetScopeID.
    int SetAddr(const char* ip, unsigned short port, unsigned int scope_id);
    /// Takes a system address whole; -1 for null.
    int SetAddr(const sockaddr_in6* addr);
    /// The interface index that a link-local address is reached through.
    int SetScopeID(unsigned int scope_id);
    unsigned int GetScopeID() const;
    /// Takes the index of the interface `name` as the scope id (Linux); refused on Windows.
    int SetScopeName(const char* name);
    /// The index of the interface to use as the scope of the link-local address `ip`, or -1.
    int getIFScopeID(const char* ip);
    /// Resolves `name` (socktype as for CSockAddrIPv4) to its IPv6 addresses within
    /// `timeout` ms and takes one; a literal is taken as it stands.
    int SetDomainName(const char* name, unsigned short port, int socktype, unsigned long long timeout);

    /// The port, host order.
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
