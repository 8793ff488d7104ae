// CSockAddrStorage: a textual address of either family.
#pragma once

#include <Corvane/SockAddr.h>

namespace Qelvar::Corvane {

struct SSockAddrStorageData;

/// Holds an address text of either family and decides the family from it.
///
/// Two families are kept: the input type (GetInputType: 2 for every text with ':', else
/// 1), which selects the structure GetAddr hands out, and the real type (GetRealType: 1
/// for IPv4 and IPv4-mapped IPv6 texts, 2 for other IPv6), which selects where SetPort
/// writes and what GetRealSockAddr produces. They differ for an IPv4-mapped text.
class CORVANE_API CSockAddrStorage : public CSockAddr {
public:
    /// Holds nothing: invalid until an address is set.
    CSockAddrStorage();
    /// SetAddr(ip, port).
    CSockAddrStorage(const char* ip, unsigned short port);
    /// Copies hold records of their own.
    CSockAddrStorage(const CSockAddrStorage& other);
    CSockAddrStorage& operator=(const CSockAddrStorage& other);
    ~CSockAddrStorage() override;

    /// Sets the address from text (at most 127 characters): an IPv4 literal or name,
    /// else an IPv6 literal or name.
    int SetIp(const char* ip);
    /// Keeps the port and writes it into the structure of the real type only.
    int SetPort(unsigned short port);
    /// SetIp, then SetPort; a failed SetIp leaves the port.
    int SetAddr(const char* ip, unsigned short port);
    /// From a system address of either family (the family is read from it; an IPv6
    /// one must hold a whole sockaddr_in6), with its port and scope.
    int SetAddr(const sockaddr_in* addr);
    /// Resolves `name` (socktype 0, 1, 2 or -1) within `timeout` ms; among several
    /// addresses the network check chooses one that answers, else `setPriority`
    /// (CVN_DEFAULT_PRIORITY, CVN_IPV4_PRIORITY, CVN_IPV6_PRIORITY) decides.
    int SetDomainName(const char* name, unsigned short port, int socktype, unsigned long long timeout,
                      int setPriority = CVN_DEFAULT_PRIORITY);

    /// The stored text into `buf`; null when it does not fit or nothing is held.
    char* GetIpStr(char* buf, unsigned int len) const;
    /// The port, host order; 0 unless valid.
    unsigned short GetPort() const;
    /// 1 IPv4, 2 IPv6 (the structure handed out); 0 unless valid.
    unsigned int GetInputType() const;
    /// 1 IPv4 (IPv4-mapped included), 2 IPv6, 0 none.
    unsigned int GetRealType() const;
    /// Fills `out` (a CSockAddrIPv4 for real type 1, a CSockAddrIPv6 for 2) with the
    /// address and port; false when `out` is null or of the other type.
    bool GetRealSockAddr(CSockAddr* out) const;

    /// The structure of the input type; null when none is held.
    sockaddr* GetAddr(sockaddr* out) const override;
    /// 16 or 28 by the input type; 0 when none is held.
    unsigned int GetAddrLen() const override;
    /// An IPv4 input type, or an IPv6 one with a text.
    bool IsValid() const override;

    /// Both valid, same input type, text and port.
    bool operator==(const CSockAddrStorage& other) const;

private:
    SSockAddrStorageData* m_data;
};

}  // namespace Qelvar::Corvane
