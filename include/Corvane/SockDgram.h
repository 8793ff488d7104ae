// CSockDgram: the UDP socket, unicast, broadcast and multicast.
#pragma once

#include <Corvane/IoVec.h>
#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

struct SSockDgramData;

/// A UDP socket (type 2). Opening on a multicast group binds the group's port on the
/// wildcard address and joins the group. The default destination (SetRemote) is
/// connected for unicast and kept unconnected for broadcast and multicast.
///
/// Transfers return the byte count, 0 when the call would block (or for an empty
/// datagram), or -1.
class CORVANE_API CSockDgram : public CSock {
public:
    CSockDgram();
    ~CSockDgram() override;
    CSockDgram(const CSockDgram&) = delete;
    CSockDgram& operator=(const CSockDgram&) = delete;

    /// Open(local, false, true).
    int Open(const CSockAddr* local);
    /// Open(local, reuseaddr, true).
    int Open(const CSockAddr* local, bool reuseaddr);
    /// Creates the socket (IPv4 when `local` is null; replacing one already held),
    /// applies the blocking flag and, when `local` is given, binds it (SO_REUSEADDR as
    /// asked; IPV6_V6ONLY as `ipv6_only`) and joins its group when it is a multicast
    /// address. `reuseaddr` needs a `local`.
    int Open(const CSockAddr* local, bool reuseaddr, bool ipv6_only);
    /// Sets the default destination. An IPv4 address whose low 4 bits are all ones is
    /// taken for a broadcast address (SO_BROADCAST is set). Broadcast and multicast
    /// destinations stay unconnected; a unicast one is connected, so the socket then
    /// hears from that peer only.
    int SetRemote(const CSockAddr* remote);
    /// One datagram to `remote`, or to the default destination when null.
    int Send(const char* buf, unsigned int len, const CSockAddr* remote);
    /// One gathered datagram to the default destination.
    int WriteV(const iovec* vec, int count);
    /// One datagram, and its sender into `remote` when given: an IPv4 sender goes into a
    /// CSockAddrIPv6 IPv4-mapped; an IPv6 one does not fit a CSockAddrIPv4 (logged, the
    /// count is still returned).
    int Recv(char* buf, unsigned int len, CSockAddr* remote);
    /// Waits up to `timeout_us` for a datagram and receives it; 0 on time-out (a wait of 0
    /// looks once). A pending error on the socket (an ICMP refusal) gives -1.
    int Recv_r(char* buf, unsigned int len, CSockAddr* remote, int timeout_us);
    /// Recv_r without the sender.
    int Recv_n(char* buf, unsigned int len, int timeout_us);
    /// One datagram with its sender and the local address it was sent to (Linux);
    /// refused on Windows.
    int RecvMsg(char* buf, unsigned int len, CSockAddr* remote, CSockAddr* local);

    /// Outgoing interface of multicast: an IPv4 address in host order (the group is
    /// joined again on it) or an IPv6 interface index.
    int SetMulticastIF(unsigned int interface_addr);
    /// Outgoing interface of multicast by address text (IPv4), or for IPv6 an interface
    /// index in decimal or (Linux) an interface name.
    int SetMulticastIF(const char* interface_addr);
    /// TTL (IPv4) or hop limit (IPv6) of multicast datagrams sent.
    int SetMulticastTTL(unsigned char ttl);
    /// Whether multicast sent here loops back to the host's own members; IPv4 needs the
    /// group joined at Open.
    int SetMulticastLoop(bool on);
    /// Source filters are not supported: -1.
    int SetMulticastFilter(const char** ips, unsigned int count, unsigned int flag);
    int SetMulticastFilter(const unsigned int* ips, unsigned int count, unsigned int flag);

    int SetSockRecvBuf(unsigned int bytes);
    int GetSockRecvBuf();
    int SetSockSendBuf(unsigned int bytes);
    int GetSockSendBuf();
    int SetSockQos(int dscp);
    int SetSockPriority(int priority);

private:
    SSockDgramData* m_data;
};

}  // namespace Qelvar::Corvane
