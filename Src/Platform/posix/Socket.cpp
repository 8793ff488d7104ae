// Sockets on Linux: BSD sockets, close-on-exec from birth, no SIGPIPE.
#include "Platform/Socket.h"

#include <Corvane/IoVec.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <type_traits>

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
    // Close-on-exec from birth, as sock_open(): no window for a fork+exec to inherit it.
    socklen_t n = addr != nullptr && len != nullptr ? static_cast<socklen_t>(*len) : 0;
    const int s = ::accept4(fd, n != 0 ? addr : nullptr, n != 0 ? &n : nullptr, SOCK_CLOEXEC);
    if (s >= 0 && addr != nullptr && len != nullptr) *len = static_cast<int>(n);
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
    socklen_t n = from != nullptr && from_len != nullptr ? static_cast<socklen_t>(*from_len) : 0;
    const ssize_t r = ::recvfrom(fd, buf, len, 0, n != 0 ? from : nullptr, n != 0 ? &n : nullptr);
    if (r >= 0 && from != nullptr && from_len != nullptr) *from_len = static_cast<int>(n);
    return static_cast<long>(r);
}

// The library's iovec is the system's own struct here, handed over as it is.
static_assert(std::is_same_v<Corvane::iovec, ::iovec>, "Corvane::iovec must be struct iovec on Linux");

long sock_sendv(int fd, const void* iov, int count, const sockaddr* to, int to_len)
{
    msghdr msg{};
    msg.msg_name = const_cast<sockaddr*>(to);
    msg.msg_namelen = to != nullptr ? static_cast<socklen_t>(to_len) : 0;
    msg.msg_iov = static_cast<::iovec*>(const_cast<void*>(iov));
    msg.msg_iovlen = count > 0 ? static_cast<std::size_t>(count) : 0;
    return static_cast<long>(::sendmsg(fd, &msg, MSG_NOSIGNAL));
}

namespace {

/// Asks for the address each datagram was sent to. Switched on at every call: one cheap
/// call, and no record per descriptor to keep in step with numbers the system hands out
/// again. A datagram queued before still carries it: the kernel takes it from the
/// packet when it is received.
bool want_pktinfo(int fd, int family)
{
    const int on = 1;
    if (family == AF_INET6) return ::setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on) == 0;
    return ::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) == 0;
}

/// Replaces the address of `self` (the socket's own, port included) by the one the
/// datagram was sent to. A scope id goes only with a link-local address, as
/// getsockname gives it.
void take_destination(msghdr& msg, sockaddr_storage& self)
{
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO && self.ss_family == AF_INET) {
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            reinterpret_cast<sockaddr_in&>(self).sin_addr = info.ipi_addr;
        } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO && self.ss_family == AF_INET6) {
            in6_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            sockaddr_in6& a = reinterpret_cast<sockaddr_in6&>(self);
            a.sin6_addr = info.ipi6_addr;
            a.sin6_scope_id = IN6_IS_ADDR_LINKLOCAL(&info.ipi6_addr) ? info.ipi6_ifindex : 0;
        }
    }
}

}  // namespace

long sock_recvmsg(int fd, void* buf, std::size_t len, sockaddr* from, int* from_len, sockaddr* local,
                  int* local_len)
{
    sockaddr_storage self{};
    socklen_t self_len = sizeof self;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&self), &self_len) != 0) return -1;
    if (!want_pktinfo(fd, self.ss_family)) return -1;

    ::iovec vec{buf, len};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(in_pktinfo))];
    msghdr msg{};
    msg.msg_name = from != nullptr && from_len != nullptr ? from : nullptr;
    msg.msg_namelen = msg.msg_name != nullptr ? static_cast<socklen_t>(*from_len) : 0;
    msg.msg_iov = &vec;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t r = ::recvmsg(fd, &msg, 0);
    if (r < 0) return -1;
    if (msg.msg_name != nullptr) *from_len = static_cast<int>(msg.msg_namelen);
    if (local != nullptr && local_len != nullptr) {
        take_destination(msg, self);
        // Cut to the caller's room, the length saying what it takes, as getsockname does.
        const std::size_t room = *local_len > 0 ? static_cast<std::size_t>(*local_len) : 0;
        std::memcpy(local, &self, std::min(room, static_cast<std::size_t>(self_len)));
        *local_len = static_cast<int>(self_len);
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
    if (ms < 0) {
        errno = EINVAL;
        return -1;
    }
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
    if (p.revents & POLLNVAL) {
        // Not a descriptor: a failure, as select() makes it on Windows.
        errno = EBADF;
        return -1;
    }
    // A hang-up is readiness, as select() reports it: the next recv gives what is left
    // and then 0, the next send fails. Only a pending error (a failed connect, which
    // Windows puts in the exception set) and urgent data are exceptional.
    unsigned int bits = 0;
    if (p.revents & (POLLIN | POLLHUP)) bits |= want & SOCK_READABLE;
    if (p.revents & (POLLOUT | POLLHUP)) bits |= want & SOCK_WRITABLE;
    if (p.revents & (POLLPRI | POLLERR)) bits |= SOCK_EXCEPTION;
    *ready = bits;
    return 1;
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
