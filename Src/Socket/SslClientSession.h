// CSslClientSession: session resumption of one TLS client connection through the
// process-wide session caches.
#pragma once

#include <openssl/ssl.h>

#include <string>

namespace Qelvar::Corvane {

class CSock;
class SslOptions;

/// Offers a cached session before a client handshake and keeps the connection's session
/// afterwards, by peer address ("ip:port") or by numeric id ("#id") as the options say.
/// TLS 1.2 hands the session over during the handshake, TLS 1.3 sends tickets after it:
/// Install makes OpenSSL report both here.
class CSslClientSession {
public:
    explicit CSslClientSession(SslOptions& options) : m_options(options) {}
    ~CSslClientSession() { Reset(); }
    CSslClientSession(const CSslClientSession&) = delete;
    CSslClientSession& operator=(const CSslClientSession&) = delete;

    /// Before the first connection object of `ctx` exists: report new sessions here.
    void Install(SSL_CTX* ctx);
    /// Before the handshake of `ssl` over `stream`: offers the cached session, if any,
    /// and sets the options' session-reused flag. Logs as `owner`/`function`.
    void Offer(SSL* ssl, CSock& stream, const void* owner, const char* function);
    /// After a successful handshake: keeps the session unless it was a resumed one;
    /// with keying by id, the options receive a new session id first.
    void Store(SSL* ssl);
    /// Forgets the connection (a session held back is released).
    void Reset();

private:
    static int on_new_session(SSL* ssl, SSL_SESSION* session);

    SslOptions& m_options;
    std::string m_key;
    bool m_storing = false;             // the key is settled: new sessions go to the cache
    SSL_SESSION* m_early = nullptr;     // a session reported before the key was settled
};

}  // namespace Qelvar::Corvane
