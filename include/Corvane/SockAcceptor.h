// CSockAcceptor: the listening TCP socket.
#pragma once

#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

class CSockStream;

/// A listening TCP socket (type 6). Register it for reading and call Accept when it is
/// readable.
class CORVANE_API CSockAcceptor : public CSock {
public:
    CSockAcceptor();
    ~CSockAcceptor() override = default;

    /// Open(local, true).
    int Open(const CSockAddr& local);
    /// Creates the socket (replacing one already held), sets SO_REUSEADDR, for IPv6
    /// IPV6_V6ONLY as `ipv6_only` (false: dual stack, IPv4 clients too), binds to `local`,
    /// listens with a backlog of 1024 and applies the blocking flag.
    int Open(const CSockAddr& local, bool ipv6_only);
    /// Accepts one connection into `stream` (which applies its own blocking flag) and the
    /// peer's address into `remote` when given. -1 also when nothing is pending.
    int Accept(CSockStream& stream, CSockAddr* remote);
    /// Accepts into a new stream that the caller deletes; null on failure.
    CSockStream* Accept(CSockAddr* remote);

    int SetSockRecvBuf(unsigned int bytes);
    int GetSockRecvBuf();
    int SetSockSendBuf(unsigned int bytes);
    int GetSockSendBuf();
    /// Close-on-exec on or off (Linux); refused on Windows.
    int SetSockCLOEXEC(bool on);
};

}  // namespace Qelvar::Corvane
