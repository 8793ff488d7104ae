// Shared pieces of the TLS tests: a fixture that starts the library, a blocking TLS
// server on a thread, and descriptor counting.
#pragma once

#include <Corvane/Corvane.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "Platform/SockTypes.h"
#include "Platform/Socket.h"
#include "TestPki.h"
#include "TestSupport.h"

namespace TlsTest {

using namespace Qelvar::Corvane;

using Qelvar::Test::OpenFds;

using Qelvar::Test::HostPath;
using Qelvar::Test::RunCommand;

/// A loopback port nobody listens on right now.
inline unsigned short FreePort()
{
    CSockAcceptor acceptor;
    if (acceptor.Open(CSockAddrIPv4("127.0.0.1", 0), false) != 0) return 0;
    CSockAddrStorage bound;
    acceptor.GetLocalAddr(&bound);
    return bound.GetPort();
}

/// A blocking TCP listener on loopback, for peers that do not speak TLS (or not yet).
struct PlainListener {
    PlainListener()
    {
        ok = acceptor.Open(CSockAddrIPv4("127.0.0.1", 0), false) == 0;
        acceptor.SetBlockOpt(true);
        CSockAddrStorage bound;
        acceptor.GetLocalAddr(&bound);
        port = bound.GetPort();
    }
    CSockAddrIPv4 Address() const { return CSockAddrIPv4("127.0.0.1", port); }
    /// Waits for one connection and makes it blocking; false when none came.
    bool Accept(CSockStream& conn)
    {
        if (acceptor.Accept(conn, nullptr) != 0) return false;
        conn.SetBlockOpt(true);
        return true;
    }

    CSockAcceptor acceptor;
    unsigned short port = 0;
    bool ok = false;
};

/// A peer on `plain` that reads the client's hello and answers with a reset.
inline std::thread ResetAfterHello(PlainListener& plain)
{
    return std::thread([&plain] {
        CSockStream conn;
        if (!plain.Accept(conn)) return;
        char buf[512];
        conn.Recv_n(buf, sizeof buf, 2000000);
        const linger reset{1, 0};
        Qelvar::Platform::sock_setopt(conn.GetHandle(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    });
}

/// Starts the library's pools (and with them the TLS library) for each test.
class TlsFixture : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(CNetThread::CreateThreadPool(2), 0); }
    void TearDown() override { CNetThread::DestroyThreadPool(); }
};

/// A blocking TLS server on a thread: `configure` sets the acceptor up, then it accepts
/// `count` connections one after the other and runs `serve` on each one that completed
/// its handshake. Result(): how many handshakes succeeded.
class ServerThread {
public:
    using Configure = std::function<void(CSslAcceptor&)>;
    using Serve = std::function<void(CSslStream&)>;

    ServerThread(Configure configure, Serve serve, int count = 1) : m_port(0)
    {
        std::promise<unsigned short> port;
        auto ready = port.get_future();
        m_thread = std::thread([this, configure, serve, count, p = std::move(port)]() mutable {
            CSslAcceptor acceptor;
            configure(acceptor);
            const CSockAddrIPv4 local("127.0.0.1", 0);
            if (acceptor.Open(local, false) != 0) {
                p.set_value(0);
                return;
            }
            CSockAddrStorage bound;
            acceptor.GetLocalAddr(&bound);
            p.set_value(bound.GetPort());
            for (int i = 0; i < count; ++i) {
                CSslStream stream;
                if (acceptor.Accept(stream, static_cast<CSockAddr*>(nullptr)) != 0) continue;
                ++m_accepted;
                if (serve) serve(stream);
            }
        });
        m_port = ready.get();
    }
    ~ServerThread() { Join(); }

    unsigned short Port() const { return m_port; }
    CSockAddrIPv4 Address() const { return CSockAddrIPv4("127.0.0.1", m_port); }
    /// Waits for the server to finish its connections; the handshakes that succeeded.
    int Join()
    {
        if (m_thread.joinable()) m_thread.join();
        return m_accepted;
    }

private:
    unsigned short m_port;
    int m_accepted = 0;
    std::thread m_thread;
};

/// Echoes what arrives until the peer closes or nothing came for two seconds.
inline void Echo(CSslStream& stream)
{
    char buf[16384];
    for (;;) {
        const int n = stream.Recv_n(buf, sizeof buf, 2000);
        if (n <= 0) return;
        if (stream.Send_n(buf, static_cast<unsigned int>(n), 2000) != n) return;
    }
}

/// Echoes the first message that arrives, then lets the connection go.
inline void EchoOnce(CSslStream& stream)
{
    char buf[16384];
    const int n = stream.Recv_n(buf, sizeof buf, 5000);
    if (n > 0) stream.Send_n(buf, static_cast<unsigned int>(n), 2000);
}

/// The server identity of TestPki as a pem directory.
inline void UseServerCert(CSslAcceptor& acceptor)
{
    acceptor.SetPemPath(TestPki::Path("server").c_str());
}

/// Sends `text` and reads the same number of bytes back; what came back.
inline std::string RoundTrip(CSslStream& stream, const std::string& text)
{
    if (stream.Send_n(text.data(), static_cast<unsigned int>(text.size()), 2000) != static_cast<int>(text.size())) {
        return "<send failed>";
    }
    std::string back;
    char buf[16384];
    while (back.size() < text.size()) {
        const int n = stream.Recv_n(buf, sizeof buf, 2000);
        if (n <= 0) return back + "<recv failed>";
        back.append(buf, static_cast<std::size_t>(n));
    }
    return back;
}

}  // namespace TlsTest
