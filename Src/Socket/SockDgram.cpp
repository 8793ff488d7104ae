#include <Corvane/SockDgram.h>

#include <cstdlib>
#include <cstring>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Platform/SockTypes.h"
#include "Socket/SockDetail.h"

namespace Qelvar::Corvane {

// The owned record of a datagram socket.
struct SSockDgramData {
    CSockAddr* m_remote_addr = nullptr;     // default destination: an IPv4 or IPv6 copy
    CSockAddr* m_multicast_addr = nullptr;  // group joined at Open: an IPv4 or IPv6 copy
    unsigned short m_port = 0;              // bound port, host order
    bool m_ipv4 = true;                     // AF_INET, else AF_INET6
    bool m_joined = false;                  // the group membership is in place
    unsigned int m_join_if = 0;             // IPv4 interface of the membership, host order

    ~SSockDgramData() { forget(); }

    // A new descriptor starts with no destination and no membership.
    void forget()
    {
        delete m_remote_addr;
        delete m_multicast_addr;
        m_remote_addr = nullptr;
        m_multicast_addr = nullptr;
        m_joined = false;
        m_join_if = 0;
    }
};

namespace {

int set_int(int fd, int level, int name, int value)
{
    return Platform::sock_setopt(fd, level, name, &value, sizeof value);
}

bool is_multicast_v4(unsigned int host_ip)
{
    return (host_ip >> 28) == 0xE;  // 224.0.0.0/4
}

bool is_multicast_v6(const sockaddr_in6& a)
{
    return a.sin6_addr.s6_addr[0] == 0xFF;
}

bool is_address_type(const CSockAddr* addr)
{
    const unsigned int type = addr->GetType();
    return type == SOCKADDR_TYPE_IPV4 || type == SOCKADDR_TYPE_IPV6 || type == SOCKADDR_TYPE_STORAGE;
}

// Writes a received address into `out` by the object's type. An IPv4 address goes into an
// IPv6 object IPv4-mapped; -2 when an IPv6 address is offered to an IPv4 object.
int put_address(CSockAddr* out, const USockAddr& raw)
{
    switch (out->GetType()) {
    case SOCKADDR_TYPE_IPV4:
        if (raw.base.sa_family != AF_INET) return -2;
        return static_cast<CSockAddrIPv4*>(out)->SetAddr(raw.v4);
    case SOCKADDR_TYPE_IPV6: {
        if (raw.base.sa_family == AF_INET6) return static_cast<CSockAddrIPv6*>(out)->SetAddr(&raw.v6);
        sockaddr_in6 mapped{};
        mapped.sin6_family = AF_INET6;
        mapped.sin6_port = raw.v4.sin_port;
        mapped.sin6_addr.s6_addr[10] = 0xFF;
        mapped.sin6_addr.s6_addr[11] = 0xFF;
        std::memcpy(&mapped.sin6_addr.s6_addr[12], &raw.v4.sin_addr, 4);
        return static_cast<CSockAddrIPv6*>(out)->SetAddr(&mapped);
    }
    default:
        return static_cast<CSockAddrStorage*>(out)->SetAddr(&raw.v4);
    }
}

// The address text of `addr` for log lines; empty when it has none.
const char* address_text(const CSockAddr& addr, char* buf, unsigned int len)
{
    const char* text = nullptr;
    switch (addr.GetType()) {
    case SOCKADDR_TYPE_IPV4: text = static_cast<const CSockAddrIPv4&>(addr).GetIpStr(buf, len); break;
    case SOCKADDR_TYPE_IPV6: text = static_cast<const CSockAddrIPv6&>(addr).GetIpStr(buf, len); break;
    case SOCKADDR_TYPE_STORAGE: text = static_cast<const CSockAddrStorage&>(addr).GetIpStr(buf, len); break;
    default: break;
    }
    return text ? text : "";
}

}  // namespace

// Logs at Warn the failure of the system call just made: `fmt` takes this, the
// arguments given, then the error number and its text.
#define DGRAM_LOG_SYSERR(fmt, ...)                                                            \
    do {                                                                                      \
        const int dgram_err_ = Platform::last_error();                                        \
        CVN_LOG(Fundel::LOG_WARN, fmt, static_cast<void*>(this), __VA_ARGS__, dgram_err_,     \
                SErrorText(dgram_err_).text);                                                 \
    } while (0)

CSockDgram::CSockDgram() : CSock(-1, SOCK_TYPE_DGRAM), m_data(new SSockDgramData)
{
}

CSockDgram::~CSockDgram()
{
    delete m_data;
}

int CSockDgram::Open(const CSockAddr* local)
{
    return Open(local, false, true);
}

int CSockDgram::Open(const CSockAddr* local, bool reuseaddr)
{
    return Open(local, reuseaddr, true);
}

int CSockDgram::Open(const CSockAddr* local, bool reuseaddr, bool ipv6_only)
{
    if (reuseaddr && !local) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : open failed!Invalid parameter: reuseaddr:%d, addr:%p \n",
                static_cast<void*>(this), "CSockDgram::Open", reuseaddr ? 1 : 0, static_cast<const void*>(local));
        return -1;
    }
    const bool ipv4 = !local || family_of(*local) == SOCKADDR_TYPE_IPV4;
    if (m_sockfd != -1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket fd[%d] has opened, close old first\n",
                static_cast<void*>(this), "CSockDgram::Open", m_sockfd);
        // The plain system close, as the stream's Connect does: the manager's records of the
        // old number are left to its other holders.
        Platform::sock_close(m_sockfd);
        m_sockfd = -1;
        m_data->forget();
    }
    m_data->m_ipv4 = ipv4;
    const int fd = Platform::sock_open(ipv4 ? AF_INET : AF_INET6, SOCK_DGRAM, 0);
    if (fd == -1) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : create socket failed, error:%d, %s\n.", static_cast<void*>(this),
                "CSockDgram::Open", err, SErrorText(err).text);
        return -1;
    }
    take_new_fd(fd);
    if (set_block_opt() != 0) return -1;
    if (!local) return 0;

    USockAddr addr{};
    if (!local->GetAddr(&addr.base) || addr.base.sa_family != (ipv4 ? AF_INET : AF_INET6)) {
        char text[65];
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : SetIp failed, fd[%d], ip[%s]\n", static_cast<void*>(this),
                "CSockDgram::Open", m_sockfd, address_text(*local, text, sizeof text));
        return -1;
    }
    // A group is bound as the wildcard address with the group's port, then joined.
    const USockAddr group = addr;
    const bool is_group = ipv4 ? is_multicast_v4(ntohl(addr.v4.sin_addr.s_addr)) : is_multicast_v6(addr.v6);
    if (is_group && ipv4) {
        addr.v4.sin_addr.s_addr = htonl(INADDR_ANY);
    } else if (is_group) {
        std::memset(&addr.v6.sin6_addr, 0, sizeof addr.v6.sin6_addr);
        addr.v6.sin6_scope_id = 0;
    }
    const unsigned short port = ntohs(ipv4 ? addr.v4.sin_port : addr.v6.sin6_port);
    m_data->m_port = port;

    if (reuseaddr && port != 0 && set_int(m_sockfd, SOL_SOCKET, SO_REUSEADDR, 1) != 0) {
        DGRAM_LOG_SYSERR("this:%p %s : set reuseaddr failed!, fd[%d], error:%d, %s\n", "CSockDgram::Open", m_sockfd);
        return -1;
    }
    if (!ipv4 && set_int(m_sockfd, IPPROTO_IPV6, IPV6_V6ONLY, ipv6_only ? 1 : 0) != 0) {
        DGRAM_LOG_SYSERR("this:%p %s : set IPV6_V6ONLY failed! fd[%d], error:%d, %s\n", "CSockDgram::Open", m_sockfd);
        return -1;
    }
    const int addr_len = ipv4 ? static_cast<int>(sizeof addr.v4) : static_cast<int>(sizeof addr.v6);
    if (Platform::sock_bind(m_sockfd, &addr.base, addr_len) != 0) {
        DGRAM_LOG_SYSERR(ipv4 ? "this:%p %s : bind failed! port[%d], fd[%d], error:%d, %s\n"
                              : "this:%p %s : bind failed! port[%d], fd[%d] error:%d, %s\n",
                         "CSockDgram::Open", static_cast<int>(port), m_sockfd);
        return -1;
    }
    if (!is_group) return 0;

    if (ipv4) {
        m_data->m_multicast_addr = new CSockAddrIPv4(group.v4);
        ip_mreq mreq{};
        mreq.imr_multiaddr = group.v4.sin_addr;
        mreq.imr_interface.s_addr = htonl(INADDR_ANY);
        if (Platform::sock_setopt(m_sockfd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq) != 0) {
            DGRAM_LOG_SYSERR("this:%p %s : IP_ADD_MEMBERSHIP failed, fd[%d], error:%d, %s\n", "CSockDgram::Open",
                             m_sockfd);
            return -1;
        }
    } else {
        m_data->m_multicast_addr = new CSockAddrIPv6(&group.v6);
        // The group's scope id names the interface (needed for link-local groups, ff02::).
        ipv6_mreq mreq{};
        mreq.ipv6mr_multiaddr = group.v6.sin6_addr;
        mreq.ipv6mr_interface = group.v6.sin6_scope_id;
        if (Platform::sock_setopt(m_sockfd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &mreq, sizeof mreq) != 0) {
            DGRAM_LOG_SYSERR("this:%p %s : IPV6_JOIN_GROUP failed, fd[%d], error:%d, %s\n", "CSockDgram::Open",
                             m_sockfd);
            return -1;
        }
    }
    m_data->m_joined = true;
    return 0;
}

int CSockDgram::SetRemote(const CSockAddr* remote)
{
    if (!remote) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : invalid remote addresst type! fd[%d]\n", static_cast<void*>(this),
                "CSockDgram::SetRemote", m_sockfd);
        return -1;
    }
    if (status_invalid("CSockDgram::SetRemote")) return -1;

    delete m_data->m_remote_addr;
    m_data->m_remote_addr = nullptr;
    USockAddr addr{};
    const unsigned int family = family_of(*remote);
    if (remote->GetAddr(&addr.base)) {
        if (family == SOCKADDR_TYPE_IPV4 && addr.base.sa_family == AF_INET) {
            m_data->m_remote_addr = new CSockAddrIPv4(addr.v4);
        } else if (family == SOCKADDR_TYPE_IPV6 && addr.base.sa_family == AF_INET6) {
            m_data->m_remote_addr = new CSockAddrIPv6(&addr.v6);
        }
    }
    if (!m_data->m_remote_addr) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : CSockDgram::SetRemote error! fd[%d]\n", static_cast<void*>(this),
                "CSockDgram::SetRemote", m_sockfd);
        return -1;
    }

    bool connect = true;
    if (addr.base.sa_family == AF_INET) {
        const unsigned int ip = ntohl(addr.v4.sin_addr.s_addr);
        // Any address ending in four one bits counts as a broadcast address: coarse, but
        // that is the rule callers rely on (x.x.x.255 of a /24, and .15 of a /28).
        if ((ip & 0xF) == 0xF) {
            if (set_int(m_sockfd, SOL_SOCKET, SO_BROADCAST, 1) != 0) {
                DGRAM_LOG_SYSERR("this:%p %s : set SO_BROADCAST failed, fd[%d], error:%d, %s\n",
                                 "CSockDgram::SetRemote", m_sockfd);
                return -1;
            }
            connect = false;
        }
        if (is_multicast_v4(ip)) connect = false;
    } else if (is_multicast_v6(addr.v6)) {
        connect = false;
    }
    // A connected socket would hear only from that one peer: broadcast and multicast
    // destinations stay unconnected.
    if (!connect) return 0;
    if (Platform::sock_connect(m_sockfd, &addr.base, static_cast<int>(m_data->m_remote_addr->GetAddrLen())) != 0) {
        const int err = Platform::last_error();
        if (Platform::is_already(err) || Platform::is_would_block(err)) return 0;
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : connect faield! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                "CSockDgram::SetRemote", m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    return 0;
}

int CSockDgram::Send(const char* buf, unsigned int len, const CSockAddr* remote)
{
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : send to failed! Invalid parameter: buf:%p, len:%u, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::Send", static_cast<const void*>(buf), len, m_sockfd);
        return -1;
    }
    const CSockAddr* to = remote ? remote : m_data->m_remote_addr;
    if (!to) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : send to failed! remote is null, fd[%d]\n", static_cast<void*>(this),
                "CSockDgram::Send", m_sockfd);
        return -1;
    }
    if (!to->IsValid()) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : send to failed! remote is invalid, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::Send", m_sockfd);
        return -1;
    }
    USockAddr addr{};
    to->GetAddr(&addr.base);
    const long sent = Platform::sock_sendto(m_sockfd, buf, len, &addr.base, static_cast<int>(to->GetAddrLen()));
    if (sent >= 0) return static_cast<int>(sent);
    const int err = Platform::last_error();
    if (try_later(err)) return 0;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : send to failed! fd[%d] error:%d, %s\n", static_cast<void*>(this),
            "CSockDgram::Send", m_sockfd, err, SErrorText(err).text);
    return -1;
}

int CSockDgram::WriteV(const iovec* vec, int count)
{
    const CSockAddr* to = m_data->m_remote_addr;
    if (!vec || !to || count < 1) {
        CVN_LOG(Fundel::LOG_ERROR,
                "this:%p %s : WriteV failed! Invalid parameter: vector:%p, m_remote_addr:%p fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::WriteV", static_cast<const void*>(vec),
                static_cast<const void*>(to), m_sockfd);
        return -1;
    }
    USockAddr addr{};
    to->GetAddr(&addr.base);
    const long sent = Platform::sock_sendv(m_sockfd, vec, count, &addr.base, static_cast<int>(to->GetAddrLen()));
    if (sent >= 0) return static_cast<int>(sent);
    const int err = Platform::last_error();
    if (try_later(err)) return 0;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : send failed! fd[%d] error:%d, %s\n", static_cast<void*>(this),
            "CSockDgram::WriteV", m_sockfd, err, SErrorText(err).text);
    return -1;
}

int CSockDgram::Recv(char* buf, unsigned int len, CSockAddr* remote)
{
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : recv failed! invalid parameter: buf:%p, len:%u, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::Recv", static_cast<void*>(buf), len, m_sockfd);
        return -1;
    }
    if (remote && !is_address_type(remote)) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : recv failed! invalid parameter,remote type:%u, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::Recv", remote->GetType(), m_sockfd);
        return -1;
    }
    USockAddr from{};
    int from_len = sizeof from;
    const long got = Platform::sock_recvfrom(m_sockfd, buf, len, &from.base, &from_len);
    if (got < 0) {
        const int err = Platform::last_error();
        if (try_later(err)) return 0;
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : recv from failed! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                "CSockDgram::Recv", m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    // An empty datagram reads as 0, like "nothing waiting": there is no sender to report.
    if (got >= 1 && remote && put_address(remote, from) == -2) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : a ipv6 address can not put into CSockAddrIPv4! fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::Recv", m_sockfd);
    }
    return static_cast<int>(got);
}

int CSockDgram::Recv_r(char* buf, unsigned int len, CSockAddr* remote, int timeout_us)
{
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : Recv_r failed! buf[%p], len[%d], timeout:%d, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::Recv_r", static_cast<void*>(buf), static_cast<int>(len),
                timeout_us, m_sockfd);
        return -1;
    }
    long long last_wait_us = 0;
    for (;;) {
        unsigned int ready = 0;
        const int ret = wait_step(Platform::SOCK_READABLE, timeout_us, &last_wait_us, &ready);
        if (ret < 0) {
            const int err = Platform::last_error();
            if (Platform::is_interrupted(err)) continue;  // the next wait is shortened by this one
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_r select failed, fd[%d], error:%d, %s\n",
                    static_cast<void*>(this), "CSockDgram::Recv_r", m_sockfd, err, SErrorText(err).text);
            return -1;
        }
        if (ret == 0) return 0;
        if (ready & Platform::SOCK_EXCEPTION) {
            // The pending error (an ICMP refusal, say) names the exception, and reading it
            // clears it for the next receive.
            int pending = 0;
            int size = sizeof pending;
            if (Platform::sock_getopt(m_sockfd, SOL_SOCKET, SO_ERROR, &pending, &size) != 0) {
                pending = Platform::last_error();
            }
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_r error, socket exception, fd[%d], error:%d, %s\n",
                    static_cast<void*>(this), "CSockDgram::Recv_r", m_sockfd, pending, SErrorText(pending).text);
            return -1;
        }
        return Recv(buf, len, remote);
    }
}

int CSockDgram::Recv_n(char* buf, unsigned int len, int timeout_us)
{
    return Recv_r(buf, len, nullptr, timeout_us);
}

int CSockDgram::RecvMsg(char* buf, unsigned int len, CSockAddr* remote, CSockAddr* local)
{
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : RecvMsg failed! invalid parameter: buf:%p, len:%u, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::RecvMsg", static_cast<void*>(buf), len, m_sockfd);
        return -1;
    }
    if (remote && !is_address_type(remote)) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : RecvMsg failed! invalid parameter,remote type:%u, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::RecvMsg", remote->GetType(), m_sockfd);
        return -1;
    }
    if (local && !is_address_type(local)) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : RecvMsg failed! invalid parameter,local type:%u, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::RecvMsg", local->GetType(), m_sockfd);
        return -1;
    }
    USockAddr from{};
    USockAddr to{};
    int from_len = sizeof from;
    int to_len = sizeof to;
    const long got = Platform::sock_recvmsg(m_sockfd, buf, len, &from.base, &from_len, &to.base, &to_len);
    if (got == Platform::SOCK_UNSUPPORTED) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : this interface is not support in windows system!\n",
                static_cast<void*>(this), "CSockDgram::RecvMsg");
        return -1;
    }
    if (got < 0) {
        const int err = Platform::last_error();
        if (try_later(err)) return 0;
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : recvmsg failed! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                "CSockDgram::RecvMsg", m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    if (got < 1) return 0;
    // The local address is written only when the system told it (to_len 0 otherwise).
    if ((remote && put_address(remote, from) == -2) || (local && to_len > 0 && put_address(local, to) == -2)) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : a ipv6 address can not put into CSockAddrIPv4! fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::RecvMsg", m_sockfd);
    }
    return static_cast<int>(got);
}

int CSockDgram::SetMulticastIF(unsigned int interface_addr)
{
    if (status_invalid("CSockDgram::SetMulticastIF")) return -1;
    if (!m_data->m_ipv4) {
        if (set_int(m_sockfd, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(interface_addr)) != 0) {
            DGRAM_LOG_SYSERR("this:%p %s : IPV6_MULTICAST_IF faied, fd[%d], error:%d, %s\n",
                             "CSockDgram::SetMulticastIF", m_sockfd);
            return -1;
        }
        return 0;
    }
    in_addr iface{};
    iface.s_addr = htonl(interface_addr);
    if (Platform::sock_setopt(m_sockfd, IPPROTO_IP, IP_MULTICAST_IF, &iface, sizeof iface) != 0) {
        DGRAM_LOG_SYSERR("this:%p %s : IP_MULTICAST_IF failed, fd[%d], error:%d, %s\n", "CSockDgram::SetMulticastIF",
                         m_sockfd);
        return -1;
    }
    if (!m_data->m_joined) return 0;

    // The group is heard on the new interface too: leave it where it was joined, join it there.
    ip_mreq mreq{};
    sockaddr_in group{};
    m_data->m_multicast_addr->GetAddr(reinterpret_cast<sockaddr*>(&group));
    mreq.imr_multiaddr = group.sin_addr;
    mreq.imr_interface.s_addr = htonl(m_data->m_join_if);
    if (Platform::sock_setopt(m_sockfd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &mreq, sizeof mreq) != 0) {
        DGRAM_LOG_SYSERR("this:%p %s : IP_DROP_MEMBERSHIP failed, fd[%d], error:%d, %s\n",
                         "CSockDgram::SetMulticastIF", m_sockfd);
        return -1;
    }
    m_data->m_joined = false;
    mreq.imr_interface = iface;
    if (Platform::sock_setopt(m_sockfd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq) != 0) {
        DGRAM_LOG_SYSERR("this:%p %s : IP_ADD_MEMBERSHIP failed, fd[%d], error:%d, %s\n",
                         "CSockDgram::SetMulticastIF", m_sockfd);
        return -1;
    }
    m_data->m_joined = true;
    m_data->m_join_if = interface_addr;
    return 0;
}

int CSockDgram::SetMulticastIF(const char* interface_addr)
{
    if (!interface_addr) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : SetMulticastIF failed! Invalid parameter: interface:%p, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::SetMulticastIF", static_cast<const void*>(interface_addr),
                m_sockfd);
        return -1;
    }
    // A text that is no address leaves no error behind: 0 then, not a stale number.
    Platform::set_last_error(0);
    if (m_data->m_ipv4) {
        in_addr iface{};
        if (Platform::addr_from_text(AF_INET, interface_addr, &iface) != 1) {
            DGRAM_LOG_SYSERR("this:%p %s : inet_pton failed, fd[%d], error:%d, %s\n", "CSockDgram::SetMulticastIF",
                             m_sockfd);
            return -1;
        }
        return SetMulticastIF(static_cast<unsigned int>(ntohl(iface.s_addr)));
    }
    // IPv6 interfaces are named by index: the number itself, or the interface's name.
    char* end = nullptr;
    const unsigned long number = std::strtoul(interface_addr, &end, 10);
    const bool numeric = end != interface_addr && *end == '\0';
    const int index = numeric ? static_cast<int>(number) : Platform::if_index_of(interface_addr);
    if (index <= 0) {
        DGRAM_LOG_SYSERR("this:%p %s : inet_pton failed, fd[%d], error:%d, %s\n", "CSockDgram::SetMulticastIF",
                         m_sockfd);
        return -1;
    }
    return SetMulticastIF(static_cast<unsigned int>(index));
}

int CSockDgram::SetMulticastTTL(unsigned char ttl)
{
    if (status_invalid("CSockDgram::SetMulticastTTL")) return -1;
    if (m_data->m_ipv4) {
        if (set_int(m_sockfd, IPPROTO_IP, IP_MULTICAST_TTL, ttl) != 0) {
            DGRAM_LOG_SYSERR("this:%p %s : IP_MULTICAST_TTL failed, fd[%d], error:%d, %s\n",
                             "CSockDgram::SetMulticastTTL", m_sockfd);
            return -1;
        }
        return 0;
    }
    if (set_int(m_sockfd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, ttl) != 0) {
        DGRAM_LOG_SYSERR("this:%p %s : IP_MULTICAST_HOPS failed, fd[%d], error:%d, %s\n",
                         "CSockDgram::SetMulticastTTL", m_sockfd);
        return -1;
    }
    return 0;
}

int CSockDgram::SetMulticastLoop(bool on)
{
    if (status_invalid("CSockDgram::SetMulticastLoop")) return -1;
    if (!m_data->m_ipv4) {
        if (set_int(m_sockfd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, on ? 1 : 0) != 0) {
            DGRAM_LOG_SYSERR("this:%p %s : IPV6_MULTICAST_LOOP failed, fd[%d], error:%d, %s\n",
                             "CSockDgram::SetMulticastLoop", m_sockfd);
            return -1;
        }
        return 0;
    }
    if (!m_data->m_multicast_addr) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : IP_MULTICAST_LOOP failed, multicast addr:%p, fd[%d]\n",
                static_cast<void*>(this), "CSockDgram::SetMulticastLoop",
                static_cast<const void*>(m_data->m_multicast_addr), m_sockfd);
        return -1;
    }
    if (set_int(m_sockfd, IPPROTO_IP, IP_MULTICAST_LOOP, on ? 1 : 0) != 0) {
        DGRAM_LOG_SYSERR("this:%p %s : IP_MULTICAST_LOOP failed, fd[%d], error:%d, %s\n",
                         "CSockDgram::SetMulticastLoop", m_sockfd);
        return -1;
    }
    return 0;
}

int CSockDgram::SetMulticastFilter(const char**, unsigned int, unsigned int)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Invalid setting, This feature is not supported on this platform! fd[%d]\n",
            static_cast<void*>(this), "CSockDgram::SetMulticastFilter", m_sockfd);
    return -1;
}

int CSockDgram::SetMulticastFilter(const unsigned int*, unsigned int, unsigned int)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Invalid setting, This feature is not supported on this platform! fd[%d]\n",
            static_cast<void*>(this), "CSockDgram::SetMulticastFilter", m_sockfd);
    return -1;
}

int CSockDgram::SetSockRecvBuf(unsigned int bytes)
{
    return set_buffer(true, bytes, "CSockDgram::SetSockRecvBuf");
}

int CSockDgram::GetSockRecvBuf()
{
    return get_buffer(true, "CSockDgram::GetSockRecvBuf");
}

int CSockDgram::SetSockSendBuf(unsigned int bytes)
{
    return set_buffer(false, bytes, "CSockDgram::SetSockSendBuf");
}

int CSockDgram::GetSockSendBuf()
{
    return get_buffer(false, "CSockDgram::GetSockSendBuf");
}

int CSockDgram::SetSockQos(int dscp)
{
    return set_qos(dscp, "CSockDgram::SetSockQos");
}

int CSockDgram::SetSockPriority(int priority)
{
    return set_priority(priority, "CSockDgram::SetSockPriority");
}

#undef DGRAM_LOG_SYSERR

}  // namespace Qelvar::Corvane
