// Error numbers on Linux: errno and strerror_r.
#include "Platform/Error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Qelvar::Platform {

int last_error()
{
    return errno;
}

void set_last_error(int err)
{
    errno = err;
}

const char* error_text(int err, char* buf, std::size_t size)
{
    if (size == 0) return buf;
    // GNU strerror_r may return a static string instead of filling buf.
    const char* text = strerror_r(err, buf, size);
    if (text != buf) {
        std::snprintf(buf, size, "%s", text);
    }
    return buf;
}

bool is_would_block(int err)
{
    return err == EAGAIN || err == EWOULDBLOCK;
}

bool is_interrupted(int err)
{
    return err == EINTR;
}

bool is_in_progress(int err)
{
    return err == EINPROGRESS;
}

bool is_already(int err)
{
    return err == EALREADY;
}

bool is_connection_reset(int err)
{
    return err == ECONNRESET || err == ECONNABORTED || err == EPIPE;
}

bool is_unsupported_version(int)
{
    return false;
}

}  // namespace Qelvar::Platform
