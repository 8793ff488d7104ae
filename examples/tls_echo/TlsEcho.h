// A TLS echo server and client on the Corvane reactor:
//   CTlsEchoServer      owns the TLS listening socket; every notice from it accepts the
//                       connections whose handshake is done.
//   CTlsEchoConnection  echoes what it reads; a reply the peer cannot take yet waits,
//                       with reading paused, until the socket is writable.
//   CTlsEchoClient      connects, sends `count` messages one at a time and checks each
//                       echo byte for byte.
//   EnsureCertificate   makes a self-signed certificate and key on first use.
// Handlers delete themselves in handle_close, once the framework releases them.
#pragma once

#include <Corvane/Corvane.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

namespace TlsEcho {

using namespace Qelvar::Corvane;

/// `dir`/cacert.pem and `dir`/privkey.pem, made (self-signed, for "localhost") when
/// missing. False when they can be neither found nor made.
inline bool EnsureCertificate(const std::string& dir)
{
    namespace fs = std::filesystem;
    const std::string cert = dir + "/cacert.pem", key = dir + "/privkey.pem";
    std::error_code ec;
    if (fs::exists(cert, ec) && fs::exists(key, ec)) return true;
    fs::create_directories(dir, ec);
    CSslX509 made;
    return made.CreateSelfSigned("localhost", 365) == 0 && made.SaveCertificateFile(cert.c_str()) == 0 &&
           made.SavePrivateKeyFile(key.c_str()) == 0;
}

class CTlsEchoConnection : public CNetHandler {
public:
    CTlsEchoConnection(int pool, CSslAsyncStream* stream) : CNetHandler(pool), m_stream(stream) {}
    ~CTlsEchoConnection() override { delete m_stream; }

    bool Start() { return RegisterSock(*m_stream, MASK_READ, 0) == 0; }

    int handle_input(int) override
    {
        char buf[16384];
        // TLS may hold decrypted bytes the socket no longer shows: read until none is left.
        for (int n; (n = m_stream->Recv(buf, sizeof buf)) != 0;) {
            if (n < 0) return stop();
            if (!echo(buf, static_cast<unsigned int>(n))) return 0;  // waiting for room
        }
        return 0;
    }

    int handle_output(int) override
    {
        const int n = m_stream->Send(m_pending.data() + m_sent, static_cast<unsigned int>(m_pending.size() - m_sent));
        if (n < 0) return stop();
        m_sent += static_cast<std::size_t>(n);
        if (m_sent < m_pending.size()) return 0;
        m_pending.clear();
        m_sent = 0;
        UnregisterSock(*m_stream, MASK_WRITE);
        RegisterSock(*m_stream, MASK_READ, 0);
        return handle_input(m_stream->GetHandle());  // what arrived meanwhile
    }

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

private:
    bool echo(const char* data, unsigned int len)
    {
        const int n = m_stream->Send(data, len);
        if (n == static_cast<int>(len)) return true;
        if (n < 0) {
            stop();
            return false;
        }
        m_pending.assign(data + n, data + len);
        m_sent = 0;
        UnregisterSock(*m_stream, MASK_READ);
        RegisterSock(*m_stream, MASK_WRITE, 0);
        return false;
    }

    int stop()
    {
        RemoveSock(*m_stream);
        Close();
        return -1;
    }

    CSslAsyncStream* m_stream;
    std::vector<char> m_pending;
    std::size_t m_sent = 0;
};

class CTlsEchoServer : public CNetHandler {
public:
    explicit CTlsEchoServer(int pool) : CNetHandler(pool), m_pool(pool) {}

    /// Listens on `local` with the certificate in `cert_dir`, session resumption on.
    int Start(const CSockAddr& local, const std::string& cert_dir)
    {
        m_acceptor.SetPemPath(cert_dir.c_str());
        m_acceptor.SetOption(0, 1 | 2, nullptr);  // session cache and tickets
        if (m_acceptor.Open(local, false) != 0) return -1;
        return RegisterSock(m_acceptor, MASK_READ, 10000000);  // handshakes get 10 s
    }

    unsigned short Port()
    {
        CSockAddrStorage bound;
        return m_acceptor.GetLocalAddr(&bound) == 0 ? bound.GetPort() : 0;
    }

    void Stop()
    {
        RemoveSock(m_acceptor);
        Close();
    }

    int handle_input(int) override
    {
        while (CSslAsyncStream* stream = m_acceptor.Accept(nullptr)) {
            auto* connection = new CTlsEchoConnection(m_pool, stream);
            m_accepted.fetch_add(1);
            if (!connection->Start()) connection->Close();
        }
        return 0;
    }

    int handle_input_timeout(int) override { return 0; }  // an idle listener is fine

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

    long Accepted() const { return m_accepted.load(); }

private:
    int m_pool;
    std::atomic<long> m_accepted{0};
    CSslAsyncAcceptor m_acceptor;
};

/// What a client run found.
struct SClientResult {
    bool ok = false;        ///< every echo came back intact
    bool resumed = false;   ///< the handshake resumed a cached session
    int round_trips = 0;
    double seconds = 0;
};

class CTlsEchoClient : public CNetHandler {
public:
    CTlsEchoClient(int pool, int count, int size) : CNetHandler(pool), m_count(count), m_message(size, '\0')
    {
        for (int i = 0; i < size; ++i) m_message[i] = static_cast<char>('a' + i % 26);
    }

    /// Connects; `session_id` (0 for a new one) keys the session for resumption and
    /// receives the id the connection used.
    std::future<SClientResult> Start(const CSockAddr& server, unsigned int* session_id)
    {
        m_session_id = session_id;
        m_stream.SetOption(0, 1 | 2 | 4, session_id);  // resume by id, tickets allowed
        if (m_stream.Connect(server, nullptr) != 0 || RegisterSock(m_stream, MASK_WRITE, 5000000) != 0) finish(false);
        return m_done.get_future();
    }

    int handle_output(int) override
    {
        UnregisterSock(m_stream, MASK_WRITE);
        if (m_stream.GetConnectStatus() != 0) return finish(false);
        m_result.resumed = m_stream.IsSessionReused() == 1;
        int type = 0, length = 0;
        m_stream.GetOption(0, type, m_session_id, length);
        m_start = std::chrono::steady_clock::now();
        RegisterSock(m_stream, MASK_READ, 5000000);
        return send_next();
    }

    int handle_input(int) override
    {
        char buf[16384];
        for (int n; (n = m_stream.Recv(buf, sizeof buf)) != 0;) {
            if (n < 0) return finish(false);
            m_echo.append(buf, static_cast<std::size_t>(n));
        }
        if (m_echo.size() < m_message.size()) return 0;
        if (m_echo != m_message) return finish(false);
        m_echo.clear();
        if (++m_result.round_trips == m_count) return finish(true);
        return send_next();
    }

    int handle_output_timeout(int) override { return finish(false); }
    int handle_input_timeout(int) override { return finish(false); }

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

private:
    int send_next()
    {
        const auto len = static_cast<unsigned int>(m_message.size());
        return m_stream.Send_n(m_message.data(), len, 5000) == static_cast<int>(len) ? 0 : finish(false);
    }

    int finish(bool ok)
    {
        if (m_finished.exchange(true)) return -1;
        m_result.ok = ok;
        m_result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
        RemoveSock(m_stream);
        m_done.set_value(m_result);
        Close();
        return -1;
    }

    int m_count;
    std::string m_message;
    std::string m_echo;
    unsigned int* m_session_id = nullptr;
    CSslAsyncStream m_stream;
    SClientResult m_result;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    std::atomic<bool> m_finished{false};
    std::promise<SClientResult> m_done;
};

}  // namespace TlsEcho
