// Helpers for the reactor tests: the core tests' probe (its socket callbacks forward
// too), loopback stream pairs, and a look into the registry's records.
#pragma once

#include <mutex>
#include <shared_mutex>

#include "../core/Probe.h"
#include "Core/ThreadPool.h"
#include "LoopbackPair.h"
#include "TestSupport.h"

namespace Qelvar::Test {

/// A connected TCP pair over loopback: `client` blocking, `server` non-blocking.
using Connection = LoopbackPair;

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
