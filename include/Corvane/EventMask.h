// The interest bits of a socket registration (CNetHandler::RegisterSock).
#pragma once

#include <cstdint>

namespace Qelvar::Corvane {

/// Bits of the mask of RegisterSock, UnregisterSock and of a registration.
enum EventMask : std::uint32_t {
    MASK_NONE = 0,
    MASK_READ = 1,       ///< readiness to read (and, on an acceptor, a pending connection)
    MASK_WRITE = 2,      ///< readiness to write (and the end of a non-blocking connect)
    MASK_EXCEPT = 4,     ///< an exceptional condition: out-of-band data, error, hang-up
    MASK_TIMEOUT = 8,    ///< time-out interest
    MASK_DEALING = 16,   ///< the event is being handled
    MASK_DELETE = 32,    ///< removal asked for while the event was being handled
    MASK_PROTECT = 2048, ///< only the registering object may change or remove it
};

}  // namespace Qelvar::Corvane
