// The reliable-UDP transport's entry points that the socket layer and the reactor
// reach. Descriptors of the transport are numbered from getsockidbase() upwards, far
// above any system descriptor, so one number space serves both providers.
//
// libsrt stands behind these entry points when the build found it (CORVANE_HAVE_SRT in
// Corvane/Config.h). Without it no descriptor at or above the base is ever handed out,
// and every call fails with MIRT_ERR_NO_TRANSPORT.
//
// Every function is thread-safe. Failures return -1 (or a negative number) and leave
// their reason to getlasterror()/getlasterror_desc() of the calling thread. Option ids
// and event bits are the transport's own (SRTO_* of <srt/srt.h>; 1 in, 4 out, 8 error).
#pragma once

struct sockaddr;

namespace Qelvar::Mirt {

/// Readiness bits of the transport's epoll.
enum : unsigned int {
    MIRT_EPOLL_IN = 1,   ///< readable, or a connection waits on a listener
    MIRT_EPOLL_OUT = 4,  ///< writable, or a non-blocking connect completed
    MIRT_EPOLL_ERR = 8,  ///< the next call on the socket fails
};

/// Socket states of getsockstate() (the transport's numbering).
enum EMirtSockState {
    MIRT_STATE_INIT = 1,
    MIRT_STATE_OPENED,
    MIRT_STATE_LISTENING,
    MIRT_STATE_CONNECTING,
    MIRT_STATE_CONNECTED,
    MIRT_STATE_BROKEN,
    MIRT_STATE_CLOSING,
    MIRT_STATE_CLOSED,
    MIRT_STATE_NONEXIST,
};

/// Transfer types for settranstype().
enum EMirtTransType {
    MIRT_TRANSTYPE_LIVE = 0,  ///< messages with a latency budget; late ones are dropped
    MIRT_TRANSTYPE_FILE = 1,  ///< everything arrives, at the pace the link allows
};

/// Errors the facade reports itself; every other code of getlasterror() is the
/// transport's. The numbers are the transport's closest codes.
enum : int {
    MIRT_ERR_NO_TRANSPORT = 5001,   ///< the build has no transport
    MIRT_ERR_BAD_DESCRIPTOR = 5004, ///< below the base, never handed out, or closed
    MIRT_ERR_NOT_STARTED = 5000,    ///< startup() has not been called (or cleanup() ended it)
    MIRT_ERR_INVALID_ARG = 5003,    ///< a null pointer or a non-positive count
    MIRT_ERR_TOO_MANY = 3000,       ///< no descriptor number left
};

/// The transport's own codes that callers tell apart.
enum : int {
    MIRT_ERR_CONN_FAIL = 2000,   ///< the connection failed
    MIRT_ERR_CONN_LOST = 2001,   ///< the connection was lost (the peer closed or vanished)
    MIRT_ERR_NO_CONN = 2002,     ///< not connected
    MIRT_ERR_ASYNC_SEND = 6001,  ///< a non-blocking send would block
    MIRT_ERR_ASYNC_RECV = 6002,  ///< a non-blocking receive (or accept) would block
    MIRT_ERR_TIMEOUT = 6003,     ///< a blocking call ran out of time
};

/// One ready socket reported by epoll_wait().
struct SMirtEvent {
    int fd;               ///< the facade descriptor
    unsigned int events;  ///< MIRT_EPOLL_* bits
};

/// Starts the transport; reference-counted, only the first call starts it. 0, or -1 when
/// the transport cannot start (the count is then unchanged).
int startup();

/// Balances one startup(); the last stops the transport, which closes every socket and
/// epoll set still open. 0, or -1 (MIRT_ERR_NOT_STARTED) without a matching startup().
int cleanup();

/// The first descriptor number of the transport.
int getsockidbase();

/// A new socket (blocking, live mode: set options before bind/connect); its descriptor
/// or -1.
int socket();

/// Binds, listens, connects: 0 or -1. A blocking connect returns once connected or
/// refused; a non-blocking one returns 0 at once and reports completion as MIRT_EPOLL_OUT
/// (or MIRT_EPOLL_ERR).
int bind(int fd, const sockaddr* addr, int len);
int listen(int fd, int backlog);
int connect(int fd, const sockaddr* addr, int len);

/// The next connection of a listener as a new descriptor, or -1 (on a non-blocking
/// listener with nothing waiting too). `addr`/`len` may be null.
int accept(int fd, sockaddr* addr, int* len);

/// Sends or receives one message (live mode) or bytes of the stream (file mode). The
/// number of bytes, or -1; a non-blocking socket that cannot proceed fails with the
/// transport's "again" codes (6001 send, 6002 receive).
int send(int fd, const char* buf, int len);
int recv(int fd, char* buf, int len);

/// The transport's options, passed through (`opt` an SRTO_* id): 0 or -1.
int setsockopt(int fd, int opt, const void* value, int len);
int getsockopt(int fd, int opt, void* value, int* len);

/// Convenience setters over setsockopt(): 0 or -1. settranstype() resets the options
/// that depend on the type, so it comes first.
int setnonblocking(int fd, bool on);  ///< sending and receiving alike
int settranstype(int fd, EMirtTransType type);
int setlatency(int fd, int ms);
int setpayloadsize(int fd, int bytes);
/// 10 to 79 characters; null or "" takes encryption off again.
int setpassphrase(int fd, const char* phrase);

/// The socket's EMirtSockState, or -1 for a refused descriptor.
int getsockstate(int fd);

/// Closes a transport descriptor: 0 or -1. The descriptor is refused from the moment the
/// call starts; its number is handed out again only after the call returned.
int close(int fd);

/// The local or peer address of a transport descriptor; 0 or -1.
int getsockname(int fd, sockaddr* addr, int* len);
int getpeername(int fd, sockaddr* addr, int* len);

/// A new epoll set, or -1. An empty set may be waited on (the wait just times out).
int epoll_create();

/// Puts a socket into a set or changes its event word (null: all three bits; no bits:
/// takes it out). Negative on failure, 0 when the socket was already in the set, 1 when
/// this call added it.
/// A listener that joins a set with connections already waiting is reported by the set's
/// next wait, which the transport alone does not do.
int epoll_add_usock(int epid, int fd, const int* events);
int epoll_modify_usock(int epid, int fd, const int* events);

/// Takes a socket out of a set: 0 or -1.
int epoll_remove_usock(int epid, int fd);

/// Waits up to `timeout_ms` (-1: no limit) for ready sockets and fills at most `max`
/// entries. The number filled, 0 on time-out, negative on failure.
int epoll_wait(int epid, SMirtEvent* events, int max, long long timeout_ms);

/// Releases an epoll set: 0 or -1.
int epoll_release(int epid);

/// The last error of the calling thread, and its description.
int getlasterror();
const char* getlasterror_desc();

}  // namespace Qelvar::Mirt
