// Sockets on Windows: Winsock 2.2, never inherited by child processes.
//
// A SOCKET is a 64-bit kernel handle, and the layers above keep descriptors as int.
// The cast is lossless: Windows keeps handles within 32 bits so that 64-bit and 32-bit
// processes can share them, and INVALID_SOCKET (all ones) becomes -1 and back again.
#include "Platform/Socket.h"

#include <winsock2.h>
#include <windows.h>

#include <climits>

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
        accepted = accept(listener, nullptr, nullptr);
        // An accepted socket is a new handle: make sure it is not inheritable either.
        ok = accepted != INVALID_SOCKET &&
             SetHandleInformation(reinterpret_cast<HANDLE>(accepted), HANDLE_FLAG_INHERIT, 0) &&
             is_our_connection(accepted, connected) && set_no_delay(accepted) && set_no_delay(connected);
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
