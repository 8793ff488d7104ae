// Sockets on Windows: Winsock 2.2, never inherited by child processes.
//
// A SOCKET is a 64-bit kernel handle, and the layers above keep descriptors as int.
// The cast is lossless: Windows keeps handles within 32 bits so that 64-bit and 32-bit
// processes can share them, and INVALID_SOCKET (all ones) becomes -1 and back again.
#include "Platform/Socket.h"

#include <Corvane/IoVec.h>

#include <winsock2.h>
#include <windows.h>

#include <climits>
#include <cstddef>

#include "Platform/Error.h"

namespace Qelvar::Platform {

namespace {

SOCKET to_socket(int fd)
{
    return static_cast<SOCKET>(fd);
}

int clamp_length(std::size_t len)
{
    return len > INT_MAX ? INT_MAX : static_cast<int>(len);
}

void close_keeping_error(SOCKET s)
{
    if (s == INVALID_SOCKET) return;
    const int err = WSAGetLastError();
    closesocket(s);
    WSASetLastError(err);
}

bool same_address(const sockaddr_in& a, const sockaddr_in& b)
{
    return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

/// Both ends of the pair are one connection: nobody else slipped into our listener
/// between listen() and accept().
bool is_our_connection(SOCKET accepted, SOCKET connected)
{
    sockaddr_in peer{};
    sockaddr_in local{};
    int peer_len = sizeof peer;
    int local_len = sizeof local;
    if (getpeername(accepted, reinterpret_cast<sockaddr*>(&peer), &peer_len) != 0 ||
        getsockname(connected, reinterpret_cast<sockaddr*>(&local), &local_len) != 0) {
        return false;
    }
    if (same_address(peer, local)) return true;
    WSASetLastError(WSAECONNREFUSED);
    return false;
}

/// A call this system does not offer.
int unsupported()
{
    WSASetLastError(WSAEOPNOTSUPP);
    return SOCK_UNSUPPORTED;
}

/// select()'s limit for a wait of `us` microseconds: null (no limit) when negative.
timeval* to_timeval(long long us, timeval* tv)
{
    if (us < 0) return nullptr;
    const long long seconds = us / 1000000;
    tv->tv_sec = seconds > INT_MAX ? INT_MAX : static_cast<long>(seconds);
    tv->tv_usec = static_cast<long>(us % 1000000);
    return tv;
}

/// The pair carries single bytes that someone waits for: Nagle would hold the next one
/// back until the peer's delayed ACK, up to 200 ms.
bool set_no_delay(SOCKET s)
{
    const BOOL on = TRUE;
    return setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on) == 0;
}

}  // namespace

int sock_startup()
{
    WSADATA data;
    const int err = WSAStartup(MAKEWORD(2, 2), &data);
    if (err != 0) return err;
    if (LOBYTE(data.wVersion) != 2 || HIBYTE(data.wVersion) != 2) {
        WSACleanup();
        return WSAVERNOTSUPPORTED;
    }
    return 0;
}

void sock_cleanup()
{
    WSACleanup();
}

int sock_open(int family, int type, int protocol)
{
    // Overlapped, as socket() makes them; not inheritable, the counterpart of close-on-exec.
    const SOCKET s = WSASocketW(family, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    return s == INVALID_SOCKET ? -1 : static_cast<int>(s);
}

int sock_close(int fd)
{
    return closesocket(to_socket(fd)) == 0 ? 0 : -1;
}

int sock_set_nonblocking(int fd, bool nonblocking)
{
    u_long on = nonblocking ? 1 : 0;
    return ioctlsocket(to_socket(fd), FIONBIO, &on) == 0 ? 0 : -1;
}

long sock_send(int fd, const void* buf, std::size_t len)
{
    // Windows has no SIGPIPE: a closed peer is just an error.
    const int n = send(to_socket(fd), static_cast<const char*>(buf), clamp_length(len), 0);
    return n == SOCKET_ERROR ? -1 : n;
}

long sock_recv(int fd, void* buf, std::size_t len)
{
    const int n = recv(to_socket(fd), static_cast<char*>(buf), clamp_length(len), 0);
    return n == SOCKET_ERROR ? -1 : n;
}

int sock_bind(int fd, const sockaddr* addr, int len)
{
    return bind(to_socket(fd), addr, len) == 0 ? 0 : -1;
}

int sock_listen(int fd, int backlog)
{
    return listen(to_socket(fd), backlog) == 0 ? 0 : -1;
}

int sock_accept(int fd, sockaddr* addr, int* len)
{
    const bool want_addr = addr != nullptr && len != nullptr;
    const SOCKET s = accept(to_socket(fd), want_addr ? addr : nullptr, want_addr ? len : nullptr);
    if (s == INVALID_SOCKET) return -1;
    // A new handle, inheritable by default whatever the listener was: taken back before
    // anyone sees it. Windows has no accept that does it at birth.
    if (!SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0)) {
        const DWORD err = GetLastError();
        closesocket(s);
        WSASetLastError(static_cast<int>(err));
        return -1;
    }
    return static_cast<int>(s);
}

int sock_connect(int fd, const sockaddr* addr, int len)
{
    return connect(to_socket(fd), addr, len) == 0 ? 0 : -1;
}

long sock_sendto(int fd, const void* buf, std::size_t len, const sockaddr* to, int to_len)
{
    const int n = sendto(to_socket(fd), static_cast<const char*>(buf), clamp_length(len), 0, to, to_len);
    return n == SOCKET_ERROR ? -1 : n;
}

long sock_recvfrom(int fd, void* buf, std::size_t len, sockaddr* from, int* from_len)
{
    const bool want_from = from != nullptr && from_len != nullptr;
    const int n = recvfrom(to_socket(fd), static_cast<char*>(buf), clamp_length(len), 0, want_from ? from : nullptr,
                           want_from ? from_len : nullptr);
    return n == SOCKET_ERROR ? -1 : n;
}

// The library's iovec is laid out as WSABUF, so an array goes to WSASend as it is.
static_assert(sizeof(Corvane::iovec) == sizeof(WSABUF) &&
                  offsetof(Corvane::iovec, iov_len) == offsetof(WSABUF, len) &&
                  offsetof(Corvane::iovec, iov_base) == offsetof(WSABUF, buf) &&
                  sizeof(Corvane::iovec::iov_len) == sizeof(WSABUF::len),
              "Corvane::iovec must be laid out as WSABUF");

long sock_sendv(int fd, const void* iov, int count, const sockaddr* to, int to_len)
{
    WSABUF* bufs = static_cast<WSABUF*>(const_cast<void*>(iov));
    const DWORD n = count > 0 ? static_cast<DWORD>(count) : 0;
    DWORD sent = 0;
    const int rc = to != nullptr ? WSASendTo(to_socket(fd), bufs, n, &sent, 0, to, to_len, nullptr, nullptr)
                                 : WSASend(to_socket(fd), bufs, n, &sent, 0, nullptr, nullptr);
    return rc == 0 ? static_cast<long>(sent) : -1;
}

long sock_recvmsg(int, void*, std::size_t, sockaddr*, int*, sockaddr*, int*)
{
    // The socket classes offer no RecvMsg on Windows. WSARecvMsg could tell the address,
    // but only through a function pointer fetched per socket with WSAIoctl.
    return unsupported();
}

int sock_setopt(int fd, int level, int name, const void* value, int len)
{
    return setsockopt(to_socket(fd), level, name, static_cast<const char*>(value), len) == 0 ? 0 : -1;
}

int sock_getopt(int fd, int level, int name, void* value, int* len)
{
    return getsockopt(to_socket(fd), level, name, static_cast<char*>(value), len) == 0 ? 0 : -1;
}

int sock_set_io_timeout(int fd, bool receive, int ms)
{
    if (ms < 0) {
        WSASetLastError(WSAEINVAL);
        return -1;
    }
    // Windows takes a DWORD of milliseconds where Linux takes a timeval.
    const DWORD value = static_cast<DWORD>(ms);
    return sock_setopt(fd, SOL_SOCKET, receive ? SO_RCVTIMEO : SO_SNDTIMEO, &value, sizeof value);
}

int sock_set_priority(int, int)
{
    return unsupported();
}

int sock_set_cloexec(int, bool)
{
    // Sockets are made non-inheritable at birth (sock_open, sock_accept) instead.
    return unsupported();
}

int sock_local_address(int fd, sockaddr* addr, int* len)
{
    return getsockname(to_socket(fd), addr, len) == 0 ? 0 : -1;
}

int sock_peer_address(int fd, sockaddr* addr, int* len)
{
    return getpeername(to_socket(fd), addr, len) == 0 ? 0 : -1;
}

int sock_wait(int fd, unsigned int want, long long timeout_us, unsigned int* ready)
{
    const SOCKET s = to_socket(fd);
    fd_set read_set;
    fd_set write_set;
    fd_set except_set;
    FD_ZERO(&read_set);
    FD_ZERO(&write_set);
    FD_ZERO(&except_set);
    if (want & SOCK_READABLE) FD_SET(s, &read_set);
    if (want & SOCK_WRITABLE) FD_SET(s, &write_set);
    // A failed non-blocking connect is reported here, not as writability.
    FD_SET(s, &except_set);
    timeval tv{};
    const int n = select(0, &read_set, &write_set, &except_set, to_timeval(timeout_us, &tv));
    if (n == SOCKET_ERROR) return -1;
    if (n == 0) return 0;
    unsigned int bits = 0;
    if (FD_ISSET(s, &read_set)) bits |= SOCK_READABLE;
    if (FD_ISSET(s, &write_set)) bits |= SOCK_WRITABLE;
    if (FD_ISSET(s, &except_set)) bits |= SOCK_EXCEPTION;
    *ready = bits;
    return 1;
}

int err_connection_reset()
{
    return WSAECONNRESET;
}

int sock_stream_pair(int fds[2])
{
    // select() takes sockets only, so the pair is a loopback TCP connection: listen on an
    // ephemeral port, connect, accept, and drop the listener. fds[0] is the accepted end.
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    int addr_len = sizeof addr;
    const SOCKET listener = to_socket(sock_open(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    SOCKET connected = INVALID_SOCKET;
    SOCKET accepted = INVALID_SOCKET;
    bool ok = listener != INVALID_SOCKET && bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
              listen(listener, 1) == 0 &&
              getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &addr_len) == 0;
    if (ok) {
        connected = to_socket(sock_open(AF_INET, SOCK_STREAM, IPPROTO_TCP));
        ok = connected != INVALID_SOCKET && connect(connected, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    if (ok) {
        accepted = to_socket(sock_accept(static_cast<int>(listener), nullptr, nullptr));
        ok = accepted != INVALID_SOCKET && is_our_connection(accepted, connected) && set_no_delay(accepted) &&
             set_no_delay(connected);
    }
    close_keeping_error(listener);
    if (!ok) {
        close_keeping_error(connected);
        close_keeping_error(accepted);
        return -1;
    }
    fds[0] = static_cast<int>(accepted);
    fds[1] = static_cast<int>(connected);
    return 0;
}

}  // namespace Qelvar::Platform
