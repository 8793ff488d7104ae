// The reliable-UDP echo beside the TCP one (live mode): one handler owns the listening
// socket and every connection, and sends each message straight back on the connection
// it came from. A message the transport does not take now is kept, reading pauses, and
// it goes out once the socket is writable again. Stop closes the connections as well:
// the transport ends with the thread pool, and a connection left open would be a leak.
#pragma once

#include <Corvane/Corvane.h>

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "EchoServer.h"

namespace Echo {

using namespace Qelvar::Corvane;

class CSrtEcho : public CNetHandler {
public:
    CSrtEcho(int pool, SEchoStats& stats) : CNetHandler(pool), m_stats(stats) {}

    /// Listens on `local`; `latency_ms` is the latency budget accepted streams inherit
    /// (negative: the transport's default). 0 or -1.
    int Start(const CSockAddr& local, int latency_ms)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        // The largest message there is, so that whatever a caller sends goes back whole.
        if (m_acceptor.SetPayloadSize(kMessageMax) != 0) return -1;
        if (latency_ms >= 0 && m_acceptor.SetLatency(latency_ms) != 0) return -1;
        if (m_acceptor.Open(local) != 0) return -1;
        return RegisterSock(m_acceptor, MASK_READ, 0);
    }

    /// The port it listens on.
    unsigned short Port()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        CSockAddrStorage bound;
        return m_acceptor.GetLocalAddr(&bound) == 0 ? bound.GetPort() : 0;
    }

    /// Stops accepting and closes every connection.
    void Stop()
    {
        std::map<int, std::shared_ptr<SConnection>> connections;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            connections.swap(m_connections);
            if (m_acceptor.IsValid()) {
                RemoveSock(m_acceptor);
                m_acceptor.Close();
            }
        }
        for (auto& entry : connections) {
            std::lock_guard<std::mutex> lock(entry.second->mutex);
            close_stream(*entry.second);
        }
        Close();
    }

    int handle_input(int handle) override
    {
        if (accept_all(handle)) return 0;
        const std::shared_ptr<SConnection> c = find(handle);
        if (!c) return 0;
        std::lock_guard<std::mutex> lock(c->mutex);
        if (!c->stream.IsValid() || !c->pending.empty()) return 0;
        char buf[kMessageMax];
        // Bounded, so that one busy peer cannot hold a reactor thread; the socket stays
        // readable and comes back.
        for (int reads = 0; reads < 64; ++reads) {
            const int n = c->stream.Recv(buf, sizeof buf);
            if (n < 0) return drop(c);
            if (n == 0) return 0;
            m_stats.bytes.fetch_add(n, std::memory_order_relaxed);
            const int sent = c->stream.Send(buf, static_cast<unsigned int>(n));
            if (sent < 0) return drop(c);
            if (sent < n) {
                c->pending.assign(buf + sent, buf + n);
                UnregisterSock(c->stream, MASK_READ);
                RegisterSock(c->stream, MASK_WRITE, 0);
                return 0;
            }
        }
        return 0;
    }

    int handle_output(int handle) override
    {
        const std::shared_ptr<SConnection> c = find(handle);
        if (!c) return 0;
        std::lock_guard<std::mutex> lock(c->mutex);
        if (!c->stream.IsValid()) return 0;
        while (!c->pending.empty()) {
            const int n = c->stream.Send(c->pending.data(), static_cast<unsigned int>(c->pending.size()));
            if (n < 0) return drop(c);
            if (n == 0) return 0;  // still full: writability comes again
            c->pending.erase(c->pending.begin(), c->pending.begin() + n);
        }
        UnregisterSock(c->stream, MASK_WRITE);
        RegisterSock(c->stream, MASK_READ, 0);
        return 0;
    }

    /// The transport reports a broken or closed connection this way.
    int handle_exception(int handle) override
    {
        const std::shared_ptr<SConnection> c = find(handle);
        if (!c) return 0;
        std::lock_guard<std::mutex> lock(c->mutex);
        return drop(c);
    }

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

private:
    struct SConnection {
        std::mutex mutex;  // the stream and its pending message; the reactor and Stop
        CMirtStream stream;
        std::vector<char> pending;  // the rest of a message the transport did not take
    };

    // True when `handle` is the listening socket (everything pending then accepted).
    bool accept_all(int handle)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_acceptor.IsValid() || handle != m_acceptor.GetHandle()) return false;
        for (;;) {
            auto c = std::make_shared<SConnection>();
            if (m_acceptor.Accept(c->stream, nullptr) != 0) return true;
            m_stats.accepted.fetch_add(1, std::memory_order_relaxed);
            if (RegisterSock(c->stream, MASK_READ, 0) != 0) {
                close_stream(*c);
                continue;
            }
            m_connections[c->stream.GetHandle()] = std::move(c);
        }
    }

    std::shared_ptr<SConnection> find(int handle)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_connections.find(handle);
        return it == m_connections.end() ? nullptr : it->second;
    }

    // Under the connection's lock.
    int drop(const std::shared_ptr<SConnection>& c)
    {
        const int handle = c->stream.GetHandle();
        close_stream(*c);
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_connections.find(handle);
        if (it != m_connections.end() && it->second == c) m_connections.erase(it);
        return -1;
    }

    void close_stream(SConnection& c)
    {
        if (!c.stream.IsValid()) return;
        RemoveSock(c.stream);
        c.stream.Close();
        c.pending.clear();
        m_stats.closed.fetch_add(1, std::memory_order_relaxed);
    }

    static constexpr int kMessageMax = 1456;

    SEchoStats& m_stats;
    std::mutex m_mutex;  // the acceptor and the table of connections
    CMirtAcceptor m_acceptor;
    std::map<int, std::shared_ptr<SConnection>> m_connections;
};

}  // namespace Echo
