// iovec: the gather element of WriteV and of media frames.
#pragma once

#if defined(_WIN32)
namespace Qelvar::Corvane {
/// Laid out as the system's WSABUF (length first), so an array goes to the system's
/// gathered send as it is.
struct iovec {
    unsigned long iov_len;
    char* iov_base;
};
}  // namespace Qelvar::Corvane
#else
#include <sys/uio.h>
namespace Qelvar::Corvane {
/// The system's own struct iovec (base first). Set the fields by name: their order
/// differs between systems.
using iovec = ::iovec;
}  // namespace Qelvar::Corvane
#endif
