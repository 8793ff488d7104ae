// Sockets on Linux: BSD sockets, close-on-exec from birth, no SIGPIPE.
#include "Platform/Socket.h"

#include <cerrno>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

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

int sock_stream_pair(int fds[2])
{
    return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0 ? 0 : -1;
}

}  // namespace Qelvar::Platform
