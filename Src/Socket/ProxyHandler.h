// CProxyHandler: the internal handler of a reactor-driven TLS stream.
#pragma once

#include <Corvane/NetHandler.h>

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "Socket/SslClientSession.h"
#include "Socket/SslIo.h"
#include "Socket/SslOptions.h"

namespace Qelvar::Corvane {

class CSockAddr;
class CSockStream;
class CSslAsyncStream;
class CSslX509;

/// Takes the socket events of a CSslAsyncStream while its TCP connect and TLS handshake
/// run, then hands the socket to the user's handler: registered for writability, or
/// called at once when the TLS set-up itself failed. Owns the TCP stream, the connection
/// object and the context. Lives on the public pool; the stream releases it, and it
/// deletes itself in handle_close.
///
/// The stream's calls and the handler's callbacks are serialised by one (recursive)
/// mutex, so that a stream destroyed during a handshake step is noticed, not used.
class CProxyHandler : public CNetHandler {
public:
    explicit CProxyHandler(CSslAsyncStream* stream);
    ~CProxyHandler() override;

    // Called by the stream.
    int Connect(const CSockAddr& remote, CSockAddr* local);
    int GetConnectStatus();
    int ProxyRegister(CNetHandler* user, int fd, unsigned int mask, int timeout);
    int ProxyUnregister(unsigned int mask);
    int ProxyRemove();
    int GetPeerCert(CSslX509* cert);
    int IsSessionReused();
    CSslIo& Io() { return m_io; }
    SslOptions& Options() { return m_options; }
    /// Takes a connection whose server handshake is done: handed over from the start.
    void AdoptAccepted(SSL* ssl, CSockStream* tcp);
    /// The stream goes: withdraws the registration, frees the connection, closes.
    void Release();

    int handle_input(int handle) override;
    int handle_output(int handle) override;
    int handle_exception(int handle) override;
    int handle_input_timeout(int handle) override;
    int handle_output_timeout(int handle) override;
    int handle_close(CNetHandler* handler) override;

private:
    enum : int { HANDED_OVER = 2 };

    int handshake_step();
    int init_ssl_session();
    void register_notify_user();
    void notify_user(int fd);
    void free_connection();
    // The user's time-out or exception callback for `fd`, reached by id; -1 when gone.
    int forward(int fd, int (CNetHandler::*callback)(int), const char* function, const char* missing_line);

    std::recursive_mutex m_mutex;
    CSslAsyncStream* m_stream;              // null once the stream released this handler
    CNetHandler* m_user = nullptr;
    std::int64_t m_user_id = 0;
    int m_timeout = 0;                      // the user's registration time-out (µs)
    CSockStream* m_tcp;
    int m_handle = -1;
    std::atomic<int> m_handover{0};
    SSL_CTX* m_ctx = nullptr;
    std::atomic<int> m_status{-2};
    SslOptions m_options;
    CSslIo m_io;                            // holds the connection object
    CSslClientSession m_session;
};

}  // namespace Qelvar::Corvane
