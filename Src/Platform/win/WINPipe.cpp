// The loopback pair comes from sock_stream_pair(); this class only owns the two ends
// and tells "nothing to do" apart from a real failure.
#include "Platform/win/WINPipe.h"

#include <winsock2.h>

#include "Platform/Error.h"
#include "Platform/Socket.h"

namespace Qelvar::Platform {

namespace {

/// A would-block or interrupted call moved no bytes; anything else is a failure.
int transferred(long n)
{
    if (n >= 0) return static_cast<int>(n);
    const int err = last_error();
    return is_would_block(err) || is_interrupted(err) ? 0 : -1;
}

}  // namespace

CWINPipe::~CWINPipe()
{
    Close();
}

int CWINPipe::Create(bool nonblocking)
{
    if (m_read_handle != -1) {
        set_last_error(WSAEALREADY);
        return -1;
    }
    int fds[2];
    if (sock_stream_pair(fds) != 0) return -1;
    if (sock_set_nonblocking(fds[0], nonblocking) != 0 || sock_set_nonblocking(fds[1], nonblocking) != 0) {
        const int err = last_error();
        sock_close(fds[0]);
        sock_close(fds[1]);
        set_last_error(err);
        return -1;
    }
    m_read_handle = fds[0];
    m_write_handle = fds[1];
    return 0;
}

void CWINPipe::Close()
{
    if (m_read_handle != -1) sock_close(m_read_handle);
    if (m_write_handle != -1) sock_close(m_write_handle);
    m_read_handle = -1;
    m_write_handle = -1;
}

int CWINPipe::Write(const void* buf, int len)
{
    return transferred(sock_send(m_write_handle, buf, static_cast<std::size_t>(len)));
}

int CWINPipe::Read(void* buf, int len)
{
    const long n = sock_recv(m_read_handle, buf, static_cast<std::size_t>(len));
    if (n == 0 && len > 0) {
        set_last_error(WSAEDISCON);  // the write end is gone
        return -1;
    }
    return transferred(n);
}

}  // namespace Qelvar::Platform
