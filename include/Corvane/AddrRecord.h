// The records a name lookup hands back, shared by the resolver and the network check.
#pragma once

#include <cstdint>

namespace Qelvar::Corvane {

/// Most addresses one lookup hands back, and most lookups in flight in the process.
constexpr int ADDR_RECORD_MAX = 10;

/// Socktype codes of a lookup.
enum : int {
    ADDR_SOCK_STREAM = 0,
    ADDR_SOCK_DGRAM = 1,
    ADDR_SOCK_RAW = 2,
    ADDR_SOCK_TYPE_ALL = 3,  ///< no socktype hint: every kind the system knows
};

/// One address a name resolved to.
struct ADDR_RECORD {
    char addr[48];        ///< the address text, NUL-terminated
    std::int32_t family;  ///< AF_INET or AF_INET6
};
static_assert(sizeof(ADDR_RECORD) == 52, "the record is 48 characters and a 32-bit family");

/// Every address a name resolved to, in the resolver's order.
struct ADDR_RECORD_ALL {
    ADDR_RECORD records[ADDR_RECORD_MAX];
    std::int32_t count;
};

}  // namespace Qelvar::Corvane
