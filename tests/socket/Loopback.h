// A connected TCP pair over loopback made with the library's own classes.
#pragma once

#include <Corvane/SockAcceptor.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockStream.h>

namespace Qelvar::Test {

struct StreamPair {
    Corvane::CSockAcceptor acceptor;
    Corvane::CSockStream client;
    Corvane::CSockStream server;

    /// Listens on the loopback address of the family, connects and accepts, all
    /// blocking. True when the three sockets are ready.
    bool Make(bool ipv6 = false)
    {
        acceptor.SetBlockOpt(true);
        client.SetBlockOpt(true);
        server.SetBlockOpt(true);
        if (ipv6) {
            Corvane::CSockAddrIPv6 local("::1", 0), bound;
            return acceptor.Open(local) == 0 && acceptor.GetLocalAddr(&bound) == 0 &&
                   client.Connect(bound, nullptr) == 0 && acceptor.Accept(server, nullptr) == 0;
        }
        Corvane::CSockAddrIPv4 local("127.0.0.1", 0), bound;
        return acceptor.Open(local) == 0 && acceptor.GetLocalAddr(&bound) == 0 &&
               client.Connect(bound, nullptr) == 0 && acceptor.Accept(server, nullptr) == 0;
    }
};

}  // namespace Qelvar::Test
