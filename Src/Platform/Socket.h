// The system's socket calls, reduced to what the layers above need. Descriptors are
// signed 32-bit values with -1 for none on both systems (a Windows SOCKET is a kernel
// handle, which fits in 32 bits). Failures return -1 and leave the reason in last_error().
#pragma once

#include <cstddef>

namespace Qelvar::Platform {

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

/// A connected pair of stream descriptors in blocking mode: a socketpair on Linux, a
/// loopback TCP connection on Windows (where select only accepts sockets; both ends
/// without Nagle delay, fds[0] the accepted end); 0 or -1.
int sock_stream_pair(int fds[2]);

}  // namespace Qelvar::Platform
