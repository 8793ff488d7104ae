// Small pieces shared by the socket classes' sources: the text of a system error for
// log lines, a buffer for a socket address of either family, and the errors that mean
// "try again later".
#pragma once

#include "Platform/Error.h"
#include "Platform/SockTypes.h"

namespace Qelvar::Corvane {

/// The system's text of `err`, for the "error:%d, %s" ends of log lines.
struct SErrorText {
    explicit SErrorText(int err) { Platform::error_text(err, text, sizeof text); }
    char text[256];
};

/// Room for a socket address of either family (28 bytes, the size of an IPv6 one).
union USockAddr {
    sockaddr base;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

/// The error of a transfer means "nothing now, try again": would block (the platform
/// counts 11, EAGAIN's number, in on every system) or interrupted.
inline bool try_later(int err)
{
    return Platform::is_would_block(err) || Platform::is_interrupted(err);
}

}  // namespace Qelvar::Corvane
