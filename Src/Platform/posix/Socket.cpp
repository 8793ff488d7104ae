// Sockets on Linux: BSD sockets, close-on-exec from birth, no SIGPIPE.
#include "Platform/Socket.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <arpa/inet.h>

namespace Qelvar::Platform {

int sock_startup()
{
    return 0;
}

void sock_cleanup()
{
}

int sock_open(int family, int type, int protocol)
{
    // Set at creation: a separate fcntl would race with a fork+exec on another thread.
    return ::socket(family, type | SOCK_CLOEXEC, protocol);
}

int sock_close(int fd)
{
    // Linux releases the descriptor even when close is interrupted; retrying could close
    // a descriptor another thread has just been given, so EINTR counts as closed.
    if (::close(fd) != 0 && errno != EINTR) return -1;
    return 0;
}

int sock_set_nonblocking(int fd, bool nonblocking)
{
    // One call, like ioctlsocket(FIONBIO) on Windows, instead of F_GETFL + F_SETFL.
    int on = nonblocking ? 1 : 0;
    return ::ioctl(fd, FIONBIO, &on) == 0 ? 0 : -1;
}

long sock_send(int fd, const void* buf, std::size_t len)
{
    // A closed peer gives EPIPE instead of killing the process.
    return static_cast<long>(::send(fd, buf, len, MSG_NOSIGNAL));
}

long sock_recv(int fd, void* buf, std::size_t len)
{
    return static_cast<long>(::recv(fd, buf, len, 0));
}

int sock_bind(int fd, const sockaddr* addr, int len)
{
    return ::bind(fd, addr, static_cast<socklen_t>(len)) == 0 ? 0 : -1;
}

int sock_listen(int fd, int backlog)
{
    return ::listen(fd, backlog) == 0 ? 0 : -1;
}

int sock_accept(int fd, sockaddr* addr, int* len)
{
    socklen_t n = len ? static_cast<socklen_t>(*len) : 0;
    const int s = ::accept4(fd, addr, addr ? &n : nullptr, SOCK_CLOEXEC);
    if (s >= 0 && len) *len = static_cast<int>(n);
    return s;
}

int sock_connect(int fd, const sockaddr* addr, int len)
{
    return ::connect(fd, addr, static_cast<socklen_t>(len)) == 0 ? 0 : -1;
}

long sock_sendto(int fd, const void* buf, std::size_t len, const sockaddr* to, int to_len)
{
    return static_cast<long>(::sendto(fd, buf, len, MSG_NOSIGNAL, to, static_cast<socklen_t>(to_len)));
}

long sock_recvfrom(int fd, void* buf, std::size_t len, sockaddr* from, int* from_len)
{
    socklen_t n = from_len ? static_cast<socklen_t>(*from_len) : 0;
    const ssize_t r = ::recvfrom(fd, buf, len, 0, from, from ? &n : nullptr);
    if (r >= 0 && from_len) *from_len = static_cast<int>(n);
    return static_cast<long>(r);
}

long sock_sendv(int fd, const void* iov, int count, const sockaddr* to, int to_len)
{
    // The library's iovec is the system's struct iovec here: handed over as it is.
    msghdr msg{};
    msg.msg_name = const_cast<sockaddr*>(to);
    msg.msg_namelen = to ? static_cast<socklen_t>(to_len) : 0;
    msg.msg_iov = static_cast<iovec*>(const_cast<void*>(iov));
    msg.msg_iovlen = static_cast<std::size_t>(count);
    return static_cast<long>(::sendmsg(fd, &msg, MSG_NOSIGNAL));
}

namespace {

// Asks for the destination address of each datagram, once per descriptor family.
bool enable_pktinfo(int fd, int family)
{
    const int on = 1;
    if (family == AF_INET6) return ::setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on) == 0;
    return ::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) == 0;
}

}  // namespace

long sock_recvmsg(int fd, void* buf, std::size_t len, sockaddr* from, int* from_len, sockaddr* local,
                  int* local_len)
{
    sockaddr_storage self{};
    socklen_t self_len = sizeof self;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&self), &self_len) != 0) return -1;
    if (!enable_pktinfo(fd, self.ss_family)) return -1;

    iovec vec{buf, len};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(in_pktinfo))];
    msghdr msg{};
    msg.msg_name = from;
    msg.msg_namelen = from && from_len ? static_cast<socklen_t>(*from_len) : 0;
    msg.msg_iov = &vec;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t r = ::recvmsg(fd, &msg, 0);
    if (r < 0) return -1;
    if (from_len) *from_len = static_cast<int>(msg.msg_namelen);
    if (local && local_len) {
        int written = 0;
        for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO &&
                *local_len >= static_cast<int>(sizeof(sockaddr_in))) {
                in_pktinfo info;
                std::memcpy(&info, CMSG_DATA(c), sizeof info);
                sockaddr_in a{};
                a.sin_family = AF_INET;
                a.sin_addr = info.ipi_addr;
                a.sin_port = reinterpret_cast<sockaddr_in&>(self).sin_port;
                std::memcpy(local, &a, sizeof a);
                written = sizeof a;
            } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO &&
                       *local_len >= static_cast<int>(sizeof(sockaddr_in6))) {
                in6_pktinfo info;
                std::memcpy(&info, CMSG_DATA(c), sizeof info);
                sockaddr_in6 a{};
                a.sin6_family = AF_INET6;
                a.sin6_addr = info.ipi6_addr;
                a.sin6_port = reinterpret_cast<sockaddr_in6&>(self).sin6_port;
                a.sin6_scope_id = info.ipi6_ifindex;
                std::memcpy(local, &a, sizeof a);
                written = sizeof a;
            }
        }
        *local_len = written;
    }
    return static_cast<long>(r);
}

int sock_setopt(int fd, int level, int name, const void* value, int len)
{
    return ::setsockopt(fd, level, name, value, static_cast<socklen_t>(len)) == 0 ? 0 : -1;
}

int sock_getopt(int fd, int level, int name, void* value, int* len)
{
    socklen_t n = static_cast<socklen_t>(*len);
    if (::getsockopt(fd, level, name, value, &n) != 0) return -1;
    *len = static_cast<int>(n);
    return 0;
}

int sock_set_io_timeout(int fd, bool receive, int ms)
{
    // Linux takes a timeval where Windows takes milliseconds.
    timeval tv{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>((ms % 1000) * 1000)};
    return ::setsockopt(fd, SOL_SOCKET, receive ? SO_RCVTIMEO : SO_SNDTIMEO, &tv, sizeof tv) == 0 ? 0 : -1;
}

int sock_set_priority(int fd, int priority)
{
    return ::setsockopt(fd, SOL_SOCKET, SO_PRIORITY, &priority, sizeof priority) == 0 ? 0 : -1;
}

int sock_set_cloexec(int fd, bool on)
{
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0) return -1;
    const int next = on ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC);
    return ::fcntl(fd, F_SETFD, next) == 0 ? 0 : -1;
}

int sock_local_address(int fd, sockaddr* addr, int* len)
{
    socklen_t n = static_cast<socklen_t>(*len);
    if (::getsockname(fd, addr, &n) != 0) return -1;
    *len = static_cast<int>(n);
    return 0;
}

int sock_peer_address(int fd, sockaddr* addr, int* len)
{
    socklen_t n = static_cast<socklen_t>(*len);
    if (::getpeername(fd, addr, &n) != 0) return -1;
    *len = static_cast<int>(n);
    return 0;
}

int sock_wait(int fd, unsigned int want, long long timeout_us, unsigned int* ready)
{
    pollfd p{fd, 0, 0};
    if (want & SOCK_READABLE) p.events |= POLLIN;
    if (want & SOCK_WRITABLE) p.events |= POLLOUT;
    p.events |= POLLPRI;
    // Rounded up: a positive wait never becomes a busy look.
    int ms = -1;
    if (timeout_us >= 0) {
        const long long whole = timeout_us / 1000 + (timeout_us % 1000 != 0 ? 1 : 0);
        ms = whole > INT_MAX ? INT_MAX : static_cast<int>(whole);
    }
    const int n = ::poll(&p, 1, ms);
    if (n <= 0) return n;
    unsigned int bits = 0;
    if (p.revents & POLLIN) bits |= SOCK_READABLE;
    if (p.revents & POLLOUT) bits |= SOCK_WRITABLE;
    if (p.revents & (POLLPRI | POLLERR | POLLHUP | POLLNVAL)) bits |= SOCK_EXCEPTION;
    *ready = bits;
    return 1;
}

int addr_from_text(int family, const char* text, void* out)
{
    return ::inet_pton(family, text, out);
}

const char* addr_to_text(int family, const void* addr, char* buf, std::size_t size)
{
    return ::inet_ntop(family, addr, buf, static_cast<socklen_t>(size));
}

int addr_resolve(const char* name, int family, int socktype, SResolvedAddr* out, int max, int* count, int* found)
{
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = socktype;
    addrinfo* list = nullptr;
    const int rc = ::getaddrinfo(name, nullptr, &hints, &list);
    *count = 0;
    *found = 0;
    if (rc != 0) return rc;
    for (addrinfo* ai = list; ai; ai = ai->ai_next) {
        if (!ai->ai_addr || (ai->ai_family != AF_INET && ai->ai_family != AF_INET6)) continue;
        ++*found;
        if (*count >= max) continue;
        SResolvedAddr& r = out[(*count)++];
        r.family = ai->ai_family;
        std::memset(r.address, 0, sizeof r.address);
        if (ai->ai_family == AF_INET) {
            std::memcpy(r.address, &reinterpret_cast<sockaddr_in*>(ai->ai_addr)->sin_addr, 4);
        } else {
            std::memcpy(r.address, &reinterpret_cast<sockaddr_in6*>(ai->ai_addr)->sin6_addr, 16);
        }
    }
    ::freeaddrinfo(list);
    return 0;
}

const char* addr_resolve_error(int code)
{
    return ::gai_strerror(code);
}

int if_addresses(SInterfaceAddr* out, int max)
{
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return -1;
    int n = 0;
    for (ifaddrs* i = list; i && n < max; i = i->ifa_next) {
        if (!i->ifa_addr || (i->ifa_addr->sa_family != AF_INET && i->ifa_addr->sa_family != AF_INET6)) continue;
        SInterfaceAddr& a = out[n++];
        a.index = ::if_nametoindex(i->ifa_name);
        a.family = i->ifa_addr->sa_family;
        std::memset(a.address, 0, sizeof a.address);
        if (a.family == AF_INET) {
            std::memcpy(a.address, &reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr, 4);
        } else {
            std::memcpy(a.address, &reinterpret_cast<sockaddr_in6*>(i->ifa_addr)->sin6_addr, 16);
        }
        a.loopback = (i->ifa_flags & IFF_LOOPBACK) != 0;
        a.up = (i->ifa_flags & IFF_UP) != 0;
    }
    ::freeifaddrs(list);
    return n;
}

int if_index_of(const char* name)
{
    return static_cast<int>(::if_nametoindex(name));
}

int err_connection_reset()
{
    return ECONNRESET;
}

int sock_stream_pair(int fds[2])
{
    return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0 ? 0 : -1;
}

}  // namespace Qelvar::Platform
