// The reliable-UDP transport's entry points that the socket layer and the reactor
// reach. Descriptors of the transport are numbered from getsockidbase() upwards, far
// above any system descriptor, so one number space serves both providers.
//
// No transport stands behind these entry points in this build: no descriptor at or
// above the base is ever handed out, and every call on one fails.
#pragma once

struct sockaddr;

namespace Qelvar::Mirt {

/// The first descriptor number of the transport.
int getsockidbase();

/// Closes a transport descriptor; 0 or -1.
int close(int fd);

/// The local or peer address of a transport descriptor; 0 or -1.
int getsockname(int fd, sockaddr* addr, int* len);
int getpeername(int fd, sockaddr* addr, int* len);

/// The last error of the calling thread, and its description.
int getlasterror();
const char* getlasterror_desc();

}  // namespace Qelvar::Mirt
