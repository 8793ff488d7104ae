// CSockAddrIPv4: an IPv4 socket address.
#pragma once

#include <Corvane/SockAddr.h>

namespace Qelvar::Corvane {

/// An IPv4 address and port. Setters return 0 or -1; SetPort always 0.
class CORVANE_API CSockAddrIPv4 : public CSockAddr {
public:
    /// 0.0.0.0, port 0.
    CSockAddrIPv4();
    /// `ip` and `port` in host order.
    CSockAddrIPv4(unsigned int ip, unsigned short port);
    /// `ip` as for SetIp(const char*).
    CSockAddrIPv4(const char* ip, unsigned short port);
    /// A copy of a system address.
    explicit CSockAddrIPv4(const sockaddr_in& addr);
    /// Copies hold structures of their own.
    CSockAddrIPv4(const CSockAddrIPv4& other);
    CSockAddrIPv4& operator=(const CSockAddrIPv4& other);
    ~CSockAddrIPv4() override;

    /// Sets the address from a host-order number.
    int SetIp(unsigned int ip);
    /// Sets the address from text: null or empty gives 0.0.0.0; an IPv4-mapped IPv6
    /// literal gives its IPv4 address (any other IPv6 literal fails); a name is resolved
    /// to an IPv4 address within 3 s.
    int SetIp(const char* ip);
    /// The port, host order.
    int SetPort(unsigned short port);
    /// SetIp, then SetPort; a failed SetIp leaves the port.
    int SetAddr(unsigned int ip, unsigned short port);
    int SetAddr(const char* ip, unsigned short port);
    /// Takes a system address whole.
    int SetAddr(const sockaddr_in& addr);
    /// Resolves `name` (socktype 0 stream, 1 datagram, 2 raw; -1 resolves as 0, with a warning) to its IPv4
    /// addresses within `timeout` ms and takes one; a literal is taken as it stands.
    int SetDomainName(const char* name, unsigned short port, int socktype, unsigned long long timeout);

    /// The address, host order.
    unsigned int GetIp() const;
    /// The port, host order.
    unsigned short GetPort() const;
    /// Dotted-decimal text into `buf`; null when `buf` is null or `len` below 7.
    char* GetIpStr(char* buf, unsigned int len) const;

    sockaddr* GetAddr(sockaddr* out) const override;
    unsigned int GetAddrLen() const override;
    /// False only for 255.255.255.255 with port 0.
    bool IsValid() const override;

    /// Both valid, same address and port.
    bool operator==(const CSockAddrIPv4& other) const;

private:
    sockaddr_in* m_addrin;
};

}  // namespace Qelvar::Corvane
