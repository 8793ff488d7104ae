// Helpers that the address classes share: their text formatting and the steps of
// SetDomainName (check, resolve, let the network check choose, else a priority rule).
#pragma once

#include "Socket/GetHostByName.h"
#include "Socket/SockDetail.h"

namespace Qelvar::Corvane {

/// The text of a 4-byte (AF_INET) or 16-byte (AF_INET6) address into `buf` for GetIpStr:
/// null when `buf` is null or `len` below 7, or, logged for `self`, when it does not fit.
char* format_address(const void* self, int family, const void* addr, char* buf, unsigned int len);

class CSockAddr;

/// Puts an accepted peer's address into `remote` by its class: an IPv6 peer does not fit
/// a CSockAddrIPv4 (logged for `self`, left unchanged).
void put_peer_address(const void* self, const USockAddr& peer, CSockAddr* remote);

/// `text`, or "(null)" for log lines.
inline const char* text_or_null(const char* text)
{
    return text ? text : "(null)";
}

/// Whether SetDomainName takes `socktype` (0 stream, 1 datagram, 2 raw, -1 any); logs
/// for `caller` when not.
bool domain_socktype_ok(const char* caller, int socktype);

/// What SetDomainName sets for `name`: the name itself when it is an address literal,
/// else the address chosen among those of `family` (AF_UNSPEC: both) it resolves to for
/// `socktype` within `timeout_ms`: the network check's choice, else the first by
/// `priority` (CVN_*_PRIORITY). Null after a failure, logged for `caller`. The result
/// may point into `chosen`.
const char* domain_target(const char* caller, const char* name, int family, unsigned short port, int socktype,
                          unsigned long long timeout_ms, int priority, ADDR_RECORD& chosen);

}  // namespace Qelvar::Corvane
