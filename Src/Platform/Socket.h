// The system's socket calls, reduced to what the layers above need. Descriptors are
// signed 32-bit values with -1 for none on both systems (a Windows SOCKET is a kernel
// handle, which fits in 32 bits). Failures return -1 and leave the reason in
// last_error(); a call this system does not offer returns SOCK_UNSUPPORTED.
//
// Addresses travel as the system's own structures (sockaddr_in, sockaddr_in6), declared
// by Platform/SockTypes.h; lengths are int on both systems.
#pragma once

#include <cstddef>

struct sockaddr;

namespace Qelvar::Platform {

/// Result of a call that this system does not offer.
constexpr int SOCK_UNSUPPORTED = -2;

/// Starts the socket library (Windows Sockets 2.2); 0 on success, else the error number.
/// On Linux there is nothing to start and it returns 0.
int sock_startup();

/// Undoes one successful sock_startup().
void sock_cleanup();

/// socket(2); every descriptor is made close-on-exec on Linux.
int sock_open(int family, int type, int protocol);

/// Closes a descriptor; 0 or -1.
int sock_close(int fd);

/// Switches the descriptor to non-blocking (true) or blocking (false) mode; 0 or -1.
int sock_set_nonblocking(int fd, bool nonblocking);

/// Sends bytes; the count sent or -1. Never raises SIGPIPE.
long sock_send(int fd, const void* buf, std::size_t len);

/// Receives bytes; the count received, 0 when the peer closed, or -1.
long sock_recv(int fd, void* buf, std::size_t len);

/// bind(2); 0 or -1.
int sock_bind(int fd, const sockaddr* addr, int len);

/// listen(2); 0 or -1.
int sock_listen(int fd, int backlog);

/// accept(2): the new descriptor (close-on-exec on Linux, not inheritable on Windows) or
/// -1. `addr` may be null; otherwise `*len` holds its size on entry and the address's
/// length on return.
int sock_accept(int fd, sockaddr* addr, int* len);

/// connect(2); 0 or -1 (a non-blocking connect under way is -1 with is_in_progress()).
int sock_connect(int fd, const sockaddr* addr, int len);

/// sendto(2) without SIGPIPE; the count sent or -1.
long sock_sendto(int fd, const void* buf, std::size_t len, const sockaddr* to, int to_len);

/// recvfrom(2); the count received or -1. `from` may be null.
long sock_recvfrom(int fd, void* buf, std::size_t len, sockaddr* from, int* from_len);

/// One gathered send of `count` elements of the library's iovec (Corvane/IoVec.h, laid
/// out as the system's own gather element), to `to` when given; the count sent or -1.
long sock_sendv(int fd, const void* iov, int count, const sockaddr* to, int to_len);

/// Receives one datagram with the address it was sent to and the socket's port in
/// `local` (IP_PKTINFO / IPV6_RECVPKTINFO, switched on by the first call; the socket's
/// own address when the datagram carries none). `*local_len` and `*from_len` in and out
/// as for accept. The count, -1, or SOCK_UNSUPPORTED where the system cannot tell the
/// local address (Windows).
long sock_recvmsg(int fd, void* buf, std::size_t len, sockaddr* from, int* from_len, sockaddr* local,
                  int* local_len);

/// setsockopt(2) / getsockopt(2); 0 or -1.
int sock_setopt(int fd, int level, int name, const void* value, int len);
int sock_getopt(int fd, int level, int name, void* value, int* len);

/// SO_RCVTIMEO (`receive`) or SO_SNDTIMEO in milliseconds, 0 for none; 0 or -1. A
/// blocking call that runs out of time fails with EAGAIN on Linux (is_would_block()) but
/// with WSAETIMEDOUT on Windows.
int sock_set_io_timeout(int fd, bool receive, int ms);

/// SO_PRIORITY; SOCK_UNSUPPORTED on Windows.
int sock_set_priority(int fd, int priority);

/// FD_CLOEXEC on or off; SOCK_UNSUPPORTED on Windows.
int sock_set_cloexec(int fd, bool on);

/// getsockname(2) / getpeername(2); `*len` in and out as for accept. 0 or -1.
int sock_local_address(int fd, sockaddr* addr, int* len);
int sock_peer_address(int fd, sockaddr* addr, int* len);

/// Readiness bits of sock_wait().
enum SockWaitBits : unsigned int {
    SOCK_READABLE = 1,
    SOCK_WRITABLE = 2,
    SOCK_EXCEPTION = 4,  ///< a pending error (a failed connect) or out-of-band data
};

/// Waits up to `timeout_us` microseconds (negative: without limit) for `fd` to become
/// readable (`want` SOCK_READABLE) or writable (SOCK_WRITABLE), or for an exceptional
/// condition. 1 with `*ready` set, 0 on time-out, -1 on failure (interrupted: -1 with
/// is_interrupted()). A closed peer makes the socket readable, as select() has it.
/// select on Windows; poll on Linux, which has no descriptor limit and rounds up to
/// whole milliseconds.
int sock_wait(int fd, unsigned int want, long long timeout_us, unsigned int* ready);

/// inet_pton: 1 when `text` is an address of `family` (AF_INET: 4 bytes to `out`,
/// AF_INET6: 16 bytes), 0 when not, -1 for another family.
int addr_from_text(int family, const char* text, void* out);

/// inet_ntop: the text of a 4- or 16-byte address of `family` in `buf`, or null.
const char* addr_to_text(int family, const void* addr, char* buf, std::size_t size);

/// One address that a name resolved to.
struct SResolvedAddr {
    int family;                 ///< AF_INET or AF_INET6
    unsigned char address[16];  ///< 4 or 16 bytes, network order
};

/// getaddrinfo of `name` with the hints `family` (AF_UNSPEC, AF_INET, AF_INET6) and
/// `socktype` (0 for any, else SOCK_STREAM, SOCK_DGRAM, SOCK_RAW). Stores up to `max`
/// addresses in the system's order and their number in `*count`; `*found` receives the
/// number the system gave (which may exceed `max`), an address listed once per socket
/// type counted once. 0, or the resolver's error code (EAI_*; a Winsock number on
/// Windows). getaddrinfo is looked up at first use on Windows.
int addr_resolve(const char* name, int family, int socktype, SResolvedAddr* out, int max, int* count, int* found);

/// The text of a resolver error code of addr_resolve(); valid until the thread's next call.
const char* addr_resolve_error(int code);

/// One address of a network interface. `up`: switched on and running (Windows: the
/// operational status).
struct SInterfaceAddr {
    unsigned int index;         ///< the interface index (the scope id of its link-local addresses)
    int family;                 ///< AF_INET or AF_INET6
    unsigned char address[16];  ///< 4 or 16 bytes, network order
    bool loopback;
    bool up;
};

/// The addresses of the system's interfaces (getifaddrs; GetAdaptersAddresses): up to
/// `max` in `out`, their number returned, -1 on failure.
int if_addresses(SInterfaceAddr* out, int max);

/// if_nametoindex: the index, 0 when there is no such interface, SOCK_UNSUPPORTED on
/// Windows.
int if_index_of(const char* name);

/// The error number a closed peer is reported with (ECONNRESET; WSAECONNRESET).
int err_connection_reset();

/// A connected pair of stream descriptors in blocking mode: a socketpair on Linux, a
/// loopback TCP connection on Windows (where select only accepts sockets; both ends
/// without Nagle delay, fds[0] the accepted end); 0 or -1.
int sock_stream_pair(int fds[2]);

}  // namespace Qelvar::Platform
