#include "Socket/SslClientSession.h"

#include <Corvane/Sock.h>
#include <Corvane/SockAddrStorage.h>

#include <cstdio>

#include "Fundel/LogDefs.h"
#include "Socket/SslOptions.h"
#include "Socket/SslSessionCache.h"

namespace Qelvar::Corvane {

void CSslClientSession::Install(SSL_CTX* ctx)
{
    if (m_options.session_flags) SSL_CTX_sess_set_new_cb(ctx, on_new_session);
}

void CSslClientSession::Offer(SSL* ssl, CSock& stream, const void* owner, const char* function)
{
    Reset();
    m_options.session_reused = 0;
    SSL_set_ex_data(ssl, 0, this);
    if (m_options.session_flags == 0) return;
    char key[128];
    if (m_options.session_flags & SSL_SESSION_BY_ID) {
        if (m_options.session_id == 0) return;
        std::snprintf(key, sizeof key, "#%u", m_options.session_id);
    } else {
        CSockAddrStorage peer;
        char ip[64] = {0};
        if (stream.GetRemoteAddr(&peer) != 0 || !peer.GetIpStr(ip, sizeof ip)) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s: GetRemoteAddr failed! sockfd : %d\n", owner, function,
                    stream.GetHandle());
            return;
        }
        std::snprintf(key, sizeof key, "%s:%d", ip, static_cast<int>(peer.GetPort()));
    }
    m_key = key;
    if (SSL_SESSION* session = CSslSessionCache::ForFlags(m_options.session_flags).Lookup(key)) {
        m_options.session_reused = 1;
        SSL_set_session(ssl, session);
        SSL_SESSION_free(session);
    }
}

void CSslClientSession::Store(SSL* ssl)
{
    if (m_options.session_flags == 0 || m_options.session_reused) return;
    CSslSessionCache& cache = CSslSessionCache::ForFlags(m_options.session_flags);
    if (m_options.session_flags & SSL_SESSION_BY_ID) {
        m_options.session_id = cache.NewId();
        char key[32];
        std::snprintf(key, sizeof key, "#%u", m_options.session_id);
        m_key = key;
    }
    if (m_key.empty()) return;
    m_storing = true;
    SSL_SESSION* session = m_early;
    m_early = nullptr;
    if (!session) {
        // A TLS 1.3 session becomes resumable only with the ticket that follows.
        session = SSL_get1_session(ssl);
        if (session && !SSL_SESSION_is_resumable(session)) {
            SSL_SESSION_free(session);
            session = nullptr;
        }
    }
    if (session) cache.Store(m_key, session);
}

void CSslClientSession::Reset()
{
    if (m_early) SSL_SESSION_free(m_early);
    m_early = nullptr;
    m_storing = false;
    m_key.clear();
}

// 1 when the session's reference was taken.
int CSslClientSession::on_new_session(SSL* ssl, SSL_SESSION* session)
{
    auto* self = static_cast<CSslClientSession*>(SSL_get_ex_data(ssl, 0));
    if (!self) return 0;
    if (self->m_storing) {
        CSslSessionCache::ForFlags(self->m_options.session_flags).Store(self->m_key, session);
        return 1;
    }
    if (SSL_is_init_finished(ssl)) return 0;  // a resumed connection keeps nothing new
    if (self->m_early) SSL_SESSION_free(self->m_early);
    self->m_early = session;
    return 1;
}

}  // namespace Qelvar::Corvane
