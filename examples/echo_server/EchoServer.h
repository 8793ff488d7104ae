// A TCP echo server on the Corvane reactor, in two handlers:
//   CEchoServer      owns the listening socket, registered for reading; each readable
//                    event accepts every pending connection.
//   CEchoConnection  owns one connection: it echoes what it reads, and when the peer
//                    does not take the bytes fast enough it stops reading, keeps the rest
//                    and waits for the socket to become writable (back-pressure).
// Each handler deletes itself in handle_close, once the framework releases it.
#pragma once

#include <Corvane/Corvane.h>

#include <atomic>
#include <cstring>
#include <vector>

namespace Echo {

using namespace Qelvar::Corvane;

/// Counts what the server did, for whoever wants to report it.
struct SEchoStats {
    std::atomic<long> accepted{0};
    std::atomic<long> closed{0};
    std::atomic<long long> bytes{0};
};

class CEchoConnection : public CNetHandler {
public:
    CEchoConnection(int pool, SEchoStats& stats) : CNetHandler(pool), m_stats(stats) {}

    /// Takes the accepted stream's descriptor and starts reading.
    bool Start(CSockStream& accepted)
    {
        m_stream.Attach(accepted.Detach());
        m_stream.SetSockNoDelay(true);
        return RegisterSock(m_stream, MASK_READ, 0) == 0;
    }

    int handle_input(int) override
    {
        // On the stack: an idle connection holds no buffer.
        char buf[16384];
        for (;;) {
            const int n = m_stream.Recv(buf, sizeof buf);
            if (n < 0) return stop();  // the peer closed or failed
            if (n == 0) return 0;       // drained: wait for the next readiness
            m_stats.bytes.fetch_add(n, std::memory_order_relaxed);
            if (!echo(buf, static_cast<unsigned int>(n))) return 0;  // waiting for room
            if (n < static_cast<int>(sizeof buf)) return 0;  // likely all that was there
        }
    }

    int handle_output(int) override
    {
        const int n = m_stream.Send(m_pending.data() + m_sent, static_cast<unsigned int>(m_pending.size() - m_sent));
        if (n < 0) return stop();
        m_sent += static_cast<std::size_t>(n);
        if (m_sent < m_pending.size()) return 0;
        // Everything out: read again.
        m_pending.clear();
        m_sent = 0;
        UnregisterSock(m_stream, MASK_WRITE);
        RegisterSock(m_stream, MASK_READ, 0);
        return 0;
    }

    int handle_close(CNetHandler*) override
    {
        m_stats.closed.fetch_add(1, std::memory_order_relaxed);
        delete this;
        return 0;
    }

private:
    // Sends `len` bytes; what does not fit waits for writability, with reading paused.
    bool echo(const char* data, unsigned int len)
    {
        const int n = m_stream.Send(data, len);
        if (n == static_cast<int>(len)) return true;
        if (n < 0) {
            stop();
            return false;
        }
        m_pending.assign(data + n, data + len);
        m_sent = 0;
        UnregisterSock(m_stream, MASK_READ);
        RegisterSock(m_stream, MASK_WRITE, 0);
        return false;
    }

    int stop()
    {
        RemoveSock(m_stream);
        m_stream.Close();
        Close();
        return -1;
    }

    SEchoStats& m_stats;
    CSockStream m_stream;
    std::vector<char> m_pending;  // what the peer did not take yet
    std::size_t m_sent = 0;
};

class CEchoServer : public CNetHandler {
public:
    CEchoServer(int pool, SEchoStats& stats) : CNetHandler(pool), m_pool(pool), m_stats(stats) {}

    /// Listens on `local` and starts accepting. 0 or -1.
    int Start(const CSockAddr& local)
    {
        if (m_acceptor.Open(local, false) != 0) return -1;
        return RegisterSock(m_acceptor, MASK_READ, 0);
    }

    /// The port it listens on.
    unsigned short Port()
    {
        CSockAddrStorage bound;
        return m_acceptor.GetLocalAddr(&bound) == 0 ? bound.GetPort() : 0;
    }

    /// Stops accepting and closes; connections already made go on until their peers leave.
    void Stop()
    {
        RemoveSock(m_acceptor);
        m_acceptor.Close();
        Close();
    }

    int handle_input(int) override
    {
        CSockStream accepted;
        while (m_acceptor.Accept(accepted, nullptr) == 0) {
            auto* connection = new CEchoConnection(m_pool, m_stats);
            m_stats.accepted.fetch_add(1, std::memory_order_relaxed);
            if (!connection->Start(accepted)) connection->Close();
        }
        return 0;
    }

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

private:
    int m_pool;
    SEchoStats& m_stats;
    CSockAcceptor m_acceptor;
};

}  // namespace Echo
