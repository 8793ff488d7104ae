// A connected TCP pair over loopback made with the library's own classes, for every
// suite that needs a real stream connection.
#pragma once

#include <Corvane/SockAcceptor.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockStream.h>

namespace Qelvar::Test {

/// The acceptor and `client` block; `server` takes the blocking flag it holds when Make
/// runs (non-blocking unless set before), since Accept applies it.
struct LoopbackPair {
    Corvane::CSockAcceptor acceptor;
    Corvane::CSockStream client;
    Corvane::CSockStream server;

    /// Listens on the family's loopback address, connects and accepts. A non-zero
    /// `listen_recv_bytes` sizes the listener's receive buffer, so that the connection
    /// starts with a small window too. True when the three sockets are ready.
    bool Make(bool ipv6 = false, unsigned int listen_recv_bytes = 0)
    {
        acceptor.SetBlockOpt(true);
        client.SetBlockOpt(true);
        Corvane::CSockAddrIPv4 local4("127.0.0.1", 0), bound4;
        Corvane::CSockAddrIPv6 local6("::1", 0), bound6;
        const Corvane::CSockAddr& local = ipv6 ? static_cast<const Corvane::CSockAddr&>(local6) : local4;
        Corvane::CSockAddr& bound = ipv6 ? static_cast<Corvane::CSockAddr&>(bound6) : bound4;
        return acceptor.Open(local) == 0 &&
               (listen_recv_bytes == 0 || acceptor.SetSockRecvBuf(listen_recv_bytes) == 0) &&
               acceptor.GetLocalAddr(&bound) == 0 && client.Connect(bound, nullptr) == 0 &&
               acceptor.Accept(server, nullptr) == 0;
    }
};

}  // namespace Qelvar::Test
