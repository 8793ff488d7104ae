// CProxyAcceptHandler: the internal handler of a reactor-driven TLS acceptor.
#pragma once

#include <Corvane/NetHandler.h>
#include <Corvane/SockAcceptor.h>

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>

#include "Fundel/Mutex.h"
#include "Socket/SslOptions.h"

namespace Qelvar::Corvane {

class CSockAddr;
class CSockStream;
class CSslAsyncAcceptor;
class CSslAsyncStream;

/// Accepts TCP connections for a CSslAsyncAcceptor, runs their server handshakes on
/// reactor events and queues the finished ones for the user's Accept. One lock guards the
/// handshake table and the established queue. Lives on the public pool; the acceptor
/// releases it, and it deletes itself in handle_close.
class CProxyAcceptHandler : public CNetHandler {
public:
    explicit CProxyAcceptHandler(CSslAsyncAcceptor* acceptor);
    ~CProxyAcceptHandler() override;

    // Called by the acceptor.
    int Open(const CSockAddr& local, bool reuse);
    CSslAsyncStream* Accept(CSockAddr* remote);
    void SetBacklog(unsigned int backlog);
    int ProxyRegister(CNetHandler* user, unsigned int mask, int timeout);
    int ProxyUnregister(unsigned int mask);
    int ProxyRemove();
    SslOptions& Options() { return m_options; }
    /// The acceptor goes: withdraws every registration, frees queued connections, closes.
    void Release();

    int handle_input(int handle) override;
    int handle_input_timeout(int handle) override;
    int handle_exception(int handle) override;
    int handle_close(CNetHandler* handler) override;

private:
    int accept_connections();
    int handshake_step(int fd);
    CSslAsyncStream* init_ssl_session(CSockStream* tcp);
    int ssl_accept(CSslAsyncStream* stream);
    bool full() const;
    void pause_listening();
    void resume_listening();
    void drop(CSslAsyncStream* stream);
    void notify_user();
    int forward(int fd, int (CNetHandler::*callback)(int), const char* listening_line, const char* connection_line,
                const char* missing_line);

    std::atomic<CSslAsyncAcceptor*> m_acceptor;  // null once released
    std::atomic<std::int64_t> m_user_id{0};
    std::atomic<int> m_timeout{0};          // the user's registration time-out (µs)
    unsigned int m_backlog = 128;
    std::map<int, CSslAsyncStream*> m_syntable;
    Fundel::CMutex m_lock;                  // the two queues, the pause flag
    std::deque<CSslAsyncStream*> m_established;
    bool m_paused = false;                  // listening interest withdrawn while full
    int m_stepping = 0;                     // handshakes taken out of the table to step
    CSockAcceptor m_listen;                 // closed with this handler, after its last callback
    std::atomic<int> m_listen_fd{-1};
    SSL_CTX* m_ctx = nullptr;
    SslOptions m_options;
};

}  // namespace Qelvar::Corvane
