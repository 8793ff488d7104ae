// Handlers and helpers for the reactor tests: a handler whose socket callbacks forward
// to functions, loopback stream pairs, and a look into the registry's records.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include <Corvane/NetHandler.h>
#include <Corvane/NetThread.h>
#include <Corvane/SockAcceptor.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockStream.h>

#include "../core/Probe.h"
#include "Core/ThreadPool.h"
#include "TestSupport.h"

namespace Qelvar::Test {

/// The reactor tests use the core tests' probe: its socket callbacks forward too.
using SockProbe = Probe;

/// A connected TCP pair over loopback: `client` blocking, `server` non-blocking.
struct Connection {
    Corvane::CSockAcceptor acceptor;
    Corvane::CSockStream client;
    Corvane::CSockStream server;

    bool Make()
    {
        acceptor.SetBlockOpt(true);
        client.SetBlockOpt(true);
        Corvane::CSockAddrIPv4 local("127.0.0.1", 0), bound;
        return acceptor.Open(local) == 0 && acceptor.GetLocalAddr(&bound) == 0 &&
               client.Connect(bound, nullptr) == 0 && acceptor.Accept(server, nullptr) == 0;
    }
};

/// The mask of the registration of `fd` in pool `pool`; -1 when not registered.
inline long long registered_mask(int pool, int fd)
{
    return Corvane::CThreadPool::with_pool(pool, -1LL, [fd](Corvane::CThreadPool& p) {
        std::shared_lock<Fundel::CReadWriteMutex> table(p.Sockets().Lock());
        Corvane::SEvent* ev = p.Sockets().Find(fd);
        if (!ev) return -1LL;
        std::lock_guard<Fundel::CMutex> record(ev->m_mutex);
        return static_cast<long long>(ev->socket.m_event_mask);
    });
}

}  // namespace Qelvar::Test
