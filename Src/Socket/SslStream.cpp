#include <Corvane/SslStream.h>

#include <Corvane/SockAddr.h>
#include <Corvane/SockAddrStorage.h>
#include <Corvane/SockStream.h>
#include <Corvane/SslX509.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "Fundel/Time.h"
#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Socket/SockDetail.h"
#include "Socket/SslError.h"
#include "Socket/SslOptions.h"
#include "Socket/SslSessionCache.h"

namespace Qelvar::Corvane {

struct CSslStream::SImpl {
    explicit SImpl(const void* owner) : options(owner, false, false) {}

    SSL* ssl = nullptr;
    SSL_CTX* ctx = nullptr;
    SslOptions options;
    // Where a session of this connection is kept: the key once the handshake succeeded,
    // and a session that OpenSSL announced before that (TLS 1.2 hands it over during the
    // handshake; TLS 1.3 sends tickets after it).
    std::string session_key;
    bool store_sessions = false;
    SSL_SESSION* early_session = nullptr;
};

namespace {

// The log lines of one failing TLS call: the SSL_get_error line, a line per queued
// OpenSSL error, and the line for an empty queue (null when the call has none).
struct SFailureLines {
    const char* main;
    const char* queued;
    const char* empty;
};

constexpr SFailureLines kWriteLines = {
    "this:%p SSL_write error! fd:%d, len:%u, SSL_get_error=%d, errno:%d,%s\n",
    "this:%p SSL_write error! fd:%d, len:%u, ERR_error_string:%s, errno:%d,%s\n",
    "this:%p SSL_write error! fd:%d, len:%u, ERR_get_error=0, errno:%d,%s\n"};
constexpr SFailureLines kReadLines = {
    "this:%p SSL_read error! fd:%d, len:%u, SSL_get_error:%d, errno:%d,%s\n",
    "this:%p SSL_read error! fd:%d, len:%u, ERR_error_string:%s, errno:%d,%s\n",
    "this:%p SSL_read error! fd:%d, len:%u, ERR_get_error:0, errno:%d,%s\n"};
constexpr SFailureLines kPeekLines = {
    "this:%p SSL_peek error! fd:%d, len:%u, SSL_get_error=%d, errno:%d,%s\n",
    "this:%p SSL_peek error! fd:%d, len:%u, ERR_error_string:%s, errno:%d,%s\n",
    "this:%p SSL_peek error! fd:%d, len:%u, ERR_get_error=0, errno:%d,%s\n"};

}  // namespace

CSslStream::CSslStream() : CSock(-1, SOCK_TYPE_SSL), m_impl(std::make_unique<SImpl>(this))
{
}

CSslStream::~CSslStream()
{
    release_connection();
}

void CSslStream::release_connection()
{
    if (m_impl->ssl) {
        SSL_shutdown(m_impl->ssl);
        SSL_free(m_impl->ssl);
        m_impl->ssl = nullptr;
    }
    if (m_impl->ctx) {
        SSL_CTX_free(m_impl->ctx);
        m_impl->ctx = nullptr;
    }
    if (m_impl->early_session) {
        SSL_SESSION_free(m_impl->early_session);
        m_impl->early_session = nullptr;
    }
    m_impl->store_sessions = false;
}

int CSslStream::Connect(const CSockAddr& remote, CSockAddr* local)
{
    static constexpr const char* kFunction = "CSslStream::Connect";
    const unsigned int type = remote.GetType();
    if (type != SOCKADDR_TYPE_IPV4 && type != SOCKADDR_TYPE_IPV6 && type != SOCKADDR_TYPE_STORAGE) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : connect error, address type[%u] error!\n", static_cast<void*>(this),
                kFunction, type);
        return -1;
    }
    auto* stream = new CSockStream();
    stream->SetBlockOpt(true);
    if (stream->synConnect(remote, local, m_impl->options.timeout_ms) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p connect error!\n", static_cast<void*>(this));
        delete stream;
        return -1;
    }
    if (Connect(stream) != 0) {
        delete stream;
        return -1;
    }
    return 0;
}

int CSslStream::Connect(CSockStream* stream)
{
    static constexpr const char* kFunction = "CSslStream::Connect";
    FUNDEL_ASSERT_TEXT(m_impl->ctx == nullptr && m_impl->ssl == nullptr, "m_ctx == NULL && m_ssl == NULL");
    if (!stream || m_impl->ctx || m_impl->ssl) return -1;
    stream->SetBlockOpt(true);

    SslOptions& options = m_impl->options;
    m_impl->ctx = options.BuildContext(kFunction);
    if (!m_impl->ctx) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : init ssl_ctx_st error! errno:%d, %s\n", static_cast<void*>(this),
                kFunction, err, SErrorText(err).text);
        return -1;
    }
    if (options.session_flags) SSL_CTX_sess_set_new_cb(m_impl->ctx, on_new_session);
    m_impl->ssl = options.NewConnection(m_impl->ctx, stream->GetHandle(), kFunction);
    if (!m_impl->ssl) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : init ssl_st error! errno:%d, %s\n", static_cast<void*>(this),
                kFunction, err, SErrorText(err).text);
        release_connection();
        return -1;
    }
    SSL_set_app_data(m_impl->ssl, this);
    if (SSL_set_cipher_list(m_impl->ssl, options.CipherList()) != 1) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Cipher List Rule Set Wrong! errno:%d, %s\n", static_cast<void*>(this),
                kFunction, err, SErrorText(err).text);
    }
    if (!options.server_name.empty() && SSL_set_tlsext_host_name(m_impl->ssl, options.server_name.c_str()) != 1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p Unable to set TLS servername extension.\n", static_cast<void*>(this));
    }
    options.session_reused = 0;
    offer_session(stream);
    return handshake(stream);
}

int CSslStream::handshake(CSockStream* stream)
{
    static constexpr const char* kFunction = "CSslStream::Connect";
    const int fd = stream->GetHandle();
    m_impl->options.SetHandshakeLimits(fd, m_impl->options.timeout_ms, kFunction);
    ERR_clear_error();
    const int ret = SSL_connect(m_impl->ssl);
    if (ret == 1) {
        m_impl->options.SetHandshakeLimits(fd, 0, kFunction);
        store_session();
        stream->SetBlockOpt(false);
        if (Attach(fd) != 0) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Attach sockfd failed, m_sockfd: %d, sockfd :%d\n",
                    static_cast<void*>(this), kFunction, m_sockfd, fd);
            release_connection();
            return -1;
        }
        stream->Detach();
        delete stream;
        return 0;
    }
    const int err = Platform::last_error();
    CVN_LOG(Fundel::LOG_WARN, "this:%p SSL_connect failed, fd[%d] return:%d, SSL_get_error: %d, errno:%d, %s, %s\n",
            static_cast<void*>(this), fd, ret, SSL_get_error(m_impl->ssl, ret), err, SErrorText(err).text,
            SslErrorText().text);
    CVN_LOG(Fundel::LOG_WARN, "this:%p SSL_state_string_long: %s\n", static_cast<void*>(this),
            SSL_state_string_long(m_impl->ssl));
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    CVN_LOG(Fundel::LOG_WARN, "this:%p ERR_error_string: %s\n", static_cast<void*>(this), text);
    ERR_clear_error();
    m_impl->options.SetHandshakeLimits(fd, 0, kFunction);
    // Nothing to say to a peer that failed the handshake: free without a shutdown.
    SSL_free(m_impl->ssl);
    m_impl->ssl = nullptr;
    release_connection();
    return -1;
}

void CSslStream::offer_session(CSockStream* stream)
{
    SslOptions& options = m_impl->options;
    m_impl->session_key.clear();
    if (options.session_flags == 0) return;
    char key[128];
    if (options.session_flags & SSL_SESSION_BY_ID) {
        if (options.session_id == 0) return;
        std::snprintf(key, sizeof key, "#%u", options.session_id);
    } else {
        CSockAddrStorage peer;
        char ip[64] = {0};
        if (stream->GetRemoteAddr(&peer) != 0 || !peer.GetIpStr(ip, sizeof ip)) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s: GetRemoteAddr failed! sockfd : %d\n", static_cast<void*>(this),
                    "CSslStream::Connect", stream->GetHandle());
            return;
        }
        std::snprintf(key, sizeof key, "%s:%d", ip, static_cast<int>(peer.GetPort()));
    }
    m_impl->session_key = key;
    if (SSL_SESSION* session = CSslSessionCache::ForFlags(options.session_flags).Lookup(key)) {
        options.session_reused = 1;
        SSL_set_session(m_impl->ssl, session);
        SSL_SESSION_free(session);
    }
}

// After a successful handshake: decide the key and keep the session that came with it
// (TLS 1.2); sessions that arrive later (TLS 1.3 tickets) go through on_new_session.
void CSslStream::store_session()
{
    SslOptions& options = m_impl->options;
    if (options.session_flags == 0 || options.session_reused) return;
    CSslSessionCache& cache = CSslSessionCache::ForFlags(options.session_flags);
    if (options.session_flags & SSL_SESSION_BY_ID) {
        options.session_id = cache.NewId();
        char key[32];
        std::snprintf(key, sizeof key, "#%u", options.session_id);
        m_impl->session_key = key;
    }
    if (m_impl->session_key.empty()) return;
    m_impl->store_sessions = true;
    SSL_SESSION* session = m_impl->early_session;
    m_impl->early_session = nullptr;
    if (!session) {
        session = SSL_get1_session(m_impl->ssl);
        if (session && !SSL_SESSION_is_resumable(session)) {
            SSL_SESSION_free(session);
            session = nullptr;
        }
    }
    if (session) cache.Store(m_impl->session_key, session);
}

// OpenSSL tells a client of every new session: kept in the library's cache, or held until
// the handshake has decided the key. 1 when the session's reference was taken.
int CSslStream::on_new_session(ssl_st* ssl, ssl_session_st* session)
{
    auto* self = static_cast<CSslStream*>(SSL_get_app_data(ssl));
    if (!self) return 0;
    SImpl& impl = *self->m_impl;
    if (impl.store_sessions) {
        CSslSessionCache::ForFlags(impl.options.session_flags).Store(impl.session_key, session);
        return 1;
    }
    if (SSL_is_init_finished(ssl)) return 0;  // a resumed connection keeps nothing new
    if (impl.early_session) SSL_SESSION_free(impl.early_session);
    impl.early_session = session;
    return 1;
}

// The result of a failed TLS transfer call: 0 when it only has to wait (the socket would
// block, or TLS needs the socket readable or writable first), else -1 after logging the
// call's lines.
int CSslStream::map_failure(int ret, const void* lines, unsigned int len)
{
    const auto& text = *static_cast<const SFailureLines*>(lines);
    const int err = Platform::last_error();
    const int ssl_error = SSL_get_error(m_impl->ssl, ret);
    if (ssl_error != SSL_ERROR_ZERO_RETURN && ssl_error != SSL_ERROR_SSL && try_later(err)) return 0;
    if (ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE) return 0;
    const SErrorText err_text(err);
    CVN_LOG(Fundel::LOG_WARN, text.main, static_cast<void*>(this), m_sockfd, len, ssl_error, err, err_text.text);
    unsigned long queued = ERR_get_error();
    if (queued == 0 && text.empty) {
        CVN_LOG(Fundel::LOG_WARN, text.empty, static_cast<void*>(this), m_sockfd, len, err, err_text.text);
    }
    for (; queued != 0; queued = ERR_get_error()) {
        char entry[256];
        ERR_error_string_n(queued, entry, sizeof entry);
        CVN_LOG(Fundel::LOG_WARN, text.queued, static_cast<void*>(this), m_sockfd, len, entry, err, err_text.text);
    }
    return -1;
}

int CSslStream::Send(const char* buf, unsigned int len)
{
    static constexpr const char* kFunction = "CSslStream::Send";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : send failed! buf[%p], len[%d], fd[%d]\n", static_cast<void*>(this),
                kFunction, static_cast<const void*>(buf), static_cast<int>(len), m_sockfd);
        return -1;
    }
    if (!m_impl->ssl) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send failed!, m_ssl:%p, fd:%d\n", static_cast<void*>(this), kFunction,
                static_cast<void*>(m_impl->ssl), m_sockfd);
        return -1;
    }
    // A stale "would block" left by an earlier call must not hide this call's failure.
    Platform::set_last_error(0);
    ERR_clear_error();
    const int n = SSL_write(m_impl->ssl, buf, static_cast<int>(len));
    if (n > 0) return n;
    return map_failure(n, &kWriteLines, len);
}

int CSslStream::Recv(char* buf, unsigned int len)
{
    static constexpr const char* kFunction = "CSslStream::Recv";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : recv failed! buf[%p], len[%d], fd[%d]\n", static_cast<void*>(this),
                kFunction, static_cast<const void*>(buf), static_cast<int>(len), m_sockfd);
        return -1;
    }
    if (!m_impl->ssl) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv failed!, m_ssl:%p, fd:%d\n", static_cast<void*>(this), kFunction,
                static_cast<void*>(m_impl->ssl), m_sockfd);
        return -1;
    }
    Platform::set_last_error(0);
    ERR_clear_error();
    // Peek first: it decrypts at most what the socket has, so the read below takes only
    // bytes already decrypted and never waits for the socket.
    char probe;
    const int peeked = SSL_peek(m_impl->ssl, &probe, 1);
    if (peeked <= 0) return map_failure(peeked, &kPeekLines, len);
    const int pending = SSL_pending(m_impl->ssl);
    if (pending <= 0) return 0;
    const int n = SSL_read(m_impl->ssl, buf, std::min(static_cast<int>(len), pending));
    if (n > 0) return n;
    return map_failure(n, &kReadLines, len);
}

int CSslStream::Peek()
{
    if (!m_impl->ssl) return -1;
    Platform::set_last_error(0);
    ERR_clear_error();
    char probe;
    const int peeked = SSL_peek(m_impl->ssl, &probe, 1);
    if (peeked > 0) return SSL_pending(m_impl->ssl);
    const int ssl_error = SSL_get_error(m_impl->ssl, peeked);
    if (ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE) return 0;
    const int err = Platform::last_error();
    const SErrorText err_text(err);
    CVN_LOG(Fundel::LOG_WARN, "this:%p SSL_peek error! fd:%d, SSL_get_error:%d, errno:%d,%s\n",
            static_cast<void*>(this), m_sockfd, ssl_error, err, err_text.text);
    for (unsigned long queued = ERR_get_error(); queued != 0; queued = ERR_get_error()) {
        char entry[256];
        ERR_error_string_n(queued, entry, sizeof entry);
        CVN_LOG(Fundel::LOG_WARN, "this:%p SSL_peek error! fd:%d, ERR_error_string:%s, errno:%d,%s\n",
                static_cast<void*>(this), m_sockfd, entry, err, err_text.text);
    }
    return -1;
}

int CSslStream::WriteV(const iovec* vec, int count)
{
    static constexpr const char* kFunction = "CSslStream::WriteV";
    if (!vec || count < 1) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : send failed! vector[%p], count[%d], fd[%d]\n",
                static_cast<void*>(this), kFunction, static_cast<const void*>(vec), count, m_sockfd);
        return -1;
    }
    int total = 0;
    int last = 0;
    for (int i = 0; i < count; ++i) {
        const auto len = static_cast<unsigned int>(vec[i].iov_len);
        last = Send(static_cast<const char*>(vec[i].iov_base), len);
        if (last < 1) {
            if (last < 0) {
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send failed! vector[%d].iov_base:%p, len:%lu, fd:%d\n",
                        static_cast<void*>(this), kFunction, i, static_cast<const void*>(vec[i].iov_base),
                        static_cast<unsigned long>(vec[i].iov_len), m_sockfd);
            }
            break;
        }
        total += last;
        if (static_cast<unsigned int>(last) < len) break;
    }
    return total > 0 ? total : last;
}

int CSslStream::Send_n(const char* buf, unsigned int len, int timeout_ms)
{
    static constexpr const char* kFunction = "CSslStream::Send_n";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : Send_n failed! buf[%p], len[%d], timeout:[%d], fd[%d]\n",
                static_cast<void*>(this), kFunction, static_cast<const void*>(buf), static_cast<int>(len), timeout_ms,
                m_sockfd);
        return -1;
    }
    int sent = Send(buf, len);
    if (sent < 0 || timeout_ms == 0) return sent;
    const long long limit_us = static_cast<long long>(timeout_ms) * 1000;
    const long long start = Fundel::CTime::getCurrentMicroSecond();
    while (static_cast<unsigned int>(sent) < len) {
        const long long elapsed = Fundel::CTime::getCurrentMicroSecond() - start;
        if (elapsed >= limit_us) return sent;
        unsigned int ready = 0;
        const int w = Platform::sock_wait(m_sockfd, Platform::SOCK_WRITABLE, limit_us - elapsed, &ready);
        if (w < 0) {
            const int err = Platform::last_error();
            if (Platform::is_interrupted(err)) continue;
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send_n select failed, fd:%d, errno:%d,%s\n",
                    static_cast<void*>(this), kFunction, m_sockfd, err, SErrorText(err).text);
            return -1;
        }
        if (w == 0) return sent;
        if (ready & Platform::SOCK_EXCEPTION) {
            const int err = Platform::last_error();
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send_n error, fd:%d, socket exception! errno:%d,%s\n",
                    static_cast<void*>(this), kFunction, m_sockfd, err, SErrorText(err).text);
            return -1;
        }
        if (!(ready & Platform::SOCK_WRITABLE)) return -1;
        const int n = Send(buf + sent, len - static_cast<unsigned int>(sent));
        if (n < 0) return -1;
        sent += n;
    }
    return sent;
}

int CSslStream::Recv_n(char* buf, unsigned int len, int timeout_ms)
{
    static constexpr const char* kFunction = "CSslStream::Recv_n";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : recv_n failed! buf[%p], len[%d], timeout:[%d], fd[%d]\n",
                static_cast<void*>(this), kFunction, static_cast<const void*>(buf), static_cast<int>(len), timeout_ms,
                m_sockfd);
        return -1;
    }
    if (timeout_ms == 0) return 0;
    const long long limit_us = static_cast<long long>(timeout_ms) * 1000;
    const long long start = Fundel::CTime::getCurrentMicroSecond();
    for (;;) {
        const long long elapsed = Fundel::CTime::getCurrentMicroSecond() - start;
        if (elapsed >= limit_us) return 0;
        // Bytes TLS has decrypted already are not on the socket any more: no wait then.
        if (!m_impl->ssl || SSL_pending(m_impl->ssl) <= 0) {
            unsigned int ready = 0;
            const int w = Platform::sock_wait(m_sockfd, Platform::SOCK_READABLE, limit_us - elapsed, &ready);
            if (w < 0) {
                const int err = Platform::last_error();
                if (Platform::is_interrupted(err)) continue;
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n select failed, fd:%d, errno:%d,%s\n",
                        static_cast<void*>(this), kFunction, m_sockfd, err, SErrorText(err).text);
                return -1;
            }
            if (w == 0) return 0;
            if ((ready & Platform::SOCK_EXCEPTION) && !(ready & Platform::SOCK_READABLE)) {
                const int err = Platform::last_error();
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n error, socket exception! fd:%d, %d,%s\n",
                        static_cast<void*>(this), kFunction, m_sockfd, err, SErrorText(err).text);
                return -1;
            }
            if (!(ready & Platform::SOCK_READABLE)) {
                const int err = Platform::last_error();
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n error, fd not set! fd:%d, %d,%s\n",
                        static_cast<void*>(this), kFunction, m_sockfd, err, SErrorText(err).text);
                return -1;
            }
        }
        const int n = Recv(buf, len);
        if (n != 0) return n < 0 ? -1 : n;
    }
}

int CSslStream::SetOption(int option, int type, void* value)
{
    return m_impl->options.Set(option, type, value, -1, "CSslStream::SetOption");
}

int CSslStream::SetOption(int option, int type, void* value, int length)
{
    return m_impl->options.Set(option, type, value, length, "CSslStream::SetOption");
}

int CSslStream::GetOption(int option, int& type, void* value, int& length)
{
    const SslOptions& options = m_impl->options;
    switch (option) {
    case SSL_OPTION_SESSION:
        type = options.session_flags;
        if ((options.session_flags & SSL_SESSION_BY_ID) && value) {
            *static_cast<unsigned int*>(value) = options.session_id;
            length = static_cast<int>(sizeof(unsigned int));
        }
        return 0;
    case SSL_OPTION_CERTIFICATE:
        type = options.cert_mode;
        return 0;
    case SSL_OPTION_PROTOCOL_BAN:
        type = static_cast<int>(options.ban_bits);
        return 0;
    case SSL_OPTION_CIPHER_LIST:
        type = options.cipher_kind;
        return 0;
    case SSL_OPTION_TIMEOUT:
        type = options.timeout_kind;
        if (value) {
            *static_cast<int*>(value) = options.timeout_ms;
            length = static_cast<int>(sizeof(int));
        }
        return 0;
    default:
        return -1;
    }
}

int CSslStream::SetPemPath(const char* dir)
{
    if (!dir) return -1;
    m_impl->options.pem_dir = dir;
    return 0;
}

int CSslStream::GetPeerCert(CSslX509* cert)
{
    if (!cert || !m_impl->ssl) return -1;
    X509* peer = SSL_get1_peer_certificate(m_impl->ssl);
    if (!peer) return -2;
    cert->TakeCertificate(peer);
    return 0;
}

int CSslStream::IsSessionReused() const
{
    return m_impl->ssl && SSL_session_reused(m_impl->ssl) ? 1 : 0;
}

void CSslStream::adopt(ssl_st* ssl, CSockStream* stream)
{
    release_connection();
    m_impl->ssl = ssl;
    const int fd = stream->GetHandle();
    SetBlockOpt(false);
    if (m_sockfd != -1) real_Close();
    Attach(fd);
    stream->Detach();
    delete stream;
}

int CSslStream::SetSockRecvBuf(unsigned int bytes)
{
    return set_buffer(true, bytes, "CSslStream::SetSockRecvBuf");
}

int CSslStream::GetSockRecvBuf()
{
    return get_buffer(true, "CSslStream::GetSockRecvBuf");
}

int CSslStream::SetSockSendBuf(unsigned int bytes)
{
    return set_buffer(false, bytes, "CSslStream::SetSockSendBuf");
}

int CSslStream::GetSockSendBuf()
{
    return get_buffer(false, "CSslStream::GetSockSendBuf");
}

int CSslStream::SetSockCLOEXEC(bool on)
{
    return set_cloexec(on, "CSslStream::SetSockCLOEXEC");
}

}  // namespace Qelvar::Corvane
