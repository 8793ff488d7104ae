#include <Corvane/SslStream.h>

#include <Corvane/SockAddr.h>
#include <Corvane/SockStream.h>
#include <Corvane/SslX509.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Socket/SockDetail.h"
#include "Socket/SslError.h"
#include "Socket/SslClientSession.h"
#include "Socket/SslIo.h"
#include "Socket/SslOptions.h"

namespace Qelvar::Corvane {

struct CSslStream::SImpl {
    explicit SImpl(const void* owner) : options(owner, false, false), io(owner, "CSslStream"), session(options) {}

    SSL_CTX* ctx = nullptr;
    SslOptions options;
    CSslIo io;  // holds the connection object once the handshake succeeded
    CSslClientSession session;
};

CSslStream::CSslStream() : CSock(-1, SOCK_TYPE_SSL), m_impl(std::make_unique<SImpl>(this))
{
}

CSslStream::~CSslStream()
{
    release_connection();
}

void CSslStream::release_connection()
{
    if (SSL* ssl = m_impl->io.Ssl()) {
        SSL_shutdown(ssl);
        SSL_free(ssl);
    }
    m_impl->io.Bind(nullptr, -1);
    if (m_impl->ctx) {
        SSL_CTX_free(m_impl->ctx);
        m_impl->ctx = nullptr;
    }
    m_impl->session.Reset();
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
    FUNDEL_ASSERT_TEXT(m_impl->ctx == nullptr && m_impl->io.Ssl() == nullptr, "m_ctx == NULL && m_ssl == NULL");
    if (!stream || m_impl->ctx || m_impl->io.Ssl()) return -1;
    stream->SetBlockOpt(true);

    SslOptions& options = m_impl->options;
    m_impl->ctx = options.BuildContext(kFunction);
    if (!m_impl->ctx) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : init ssl_ctx_st error! errno:%d, %s\n", static_cast<void*>(this),
                kFunction, err, SErrorText(err).text);
        return -1;
    }
    m_impl->session.Install(m_impl->ctx);
    SSL* ssl = options.NewConnection(m_impl->ctx, stream->GetHandle(), kFunction);
    if (!ssl) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : init ssl_st error! errno:%d, %s\n", static_cast<void*>(this),
                kFunction, err, SErrorText(err).text);
        release_connection();
        return -1;
    }
    m_impl->io.Bind(ssl, stream->GetHandle());
    if (SSL_set_cipher_list(ssl, options.CipherList()) != 1) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Cipher List Rule Set Wrong! errno:%d, %s\n", static_cast<void*>(this),
                kFunction, err, SErrorText(err).text);
    }
    if (!options.server_name.empty() && SSL_set_tlsext_host_name(ssl, options.server_name.c_str()) != 1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p Unable to set TLS servername extension.\n", static_cast<void*>(this));
    }
    m_impl->session.Offer(ssl, *stream, this, kFunction);
    return handshake(stream);
}

int CSslStream::handshake(CSockStream* stream)
{
    static constexpr const char* kFunction = "CSslStream::Connect";
    const int fd = stream->GetHandle();
    SSL* ssl = m_impl->io.Ssl();
    m_impl->options.SetHandshakeLimits(fd, m_impl->options.timeout_ms, kFunction);
    ERR_clear_error();
    const int ret = SSL_connect(ssl);
    if (ret == 1) {
        m_impl->options.SetHandshakeLimits(fd, 0, kFunction);
        m_impl->session.Store(ssl);
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
            static_cast<void*>(this), fd, ret, SSL_get_error(ssl, ret), err, SErrorText(err).text,
            SslErrorText().text);
    CVN_LOG(Fundel::LOG_WARN, "this:%p SSL_state_string_long: %s\n", static_cast<void*>(this),
            SSL_state_string_long(ssl));
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    CVN_LOG(Fundel::LOG_WARN, "this:%p ERR_error_string: %s\n", static_cast<void*>(this), text);
    ERR_clear_error();
    m_impl->options.SetHandshakeLimits(fd, 0, kFunction);
    // Nothing to say to a peer that failed the handshake: free without a shutdown.
    SSL_free(ssl);
    m_impl->io.Bind(nullptr, -1);
    release_connection();
    return -1;
}

int CSslStream::Send(const char* buf, unsigned int len)
{
    return m_impl->io.Send(buf, len);
}

int CSslStream::Recv(char* buf, unsigned int len)
{
    return m_impl->io.Recv(buf, len);
}

int CSslStream::Peek()
{
    return m_impl->io.Peek();
}

int CSslStream::WriteV(const iovec* vec, int count)
{
    return m_impl->io.WriteV(vec, count);
}

int CSslStream::Send_n(const char* buf, unsigned int len, int timeout_ms)
{
    return m_impl->io.Send_n(buf, len, timeout_ms);
}

int CSslStream::Recv_n(char* buf, unsigned int len, int timeout_ms)
{
    return m_impl->io.Recv_n(buf, len, timeout_ms);
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
    return m_impl->options.Get(option, type, value, length);
}

int CSslStream::SetPemPath(const char* dir)
{
    if (!dir) return -1;
    m_impl->options.pem_dir = dir;
    return 0;
}

int CSslStream::GetPeerCert(CSslX509* cert)
{
    if (!cert || !m_impl->io.Ssl()) return -1;
    X509* peer = SSL_get1_peer_certificate(m_impl->io.Ssl());
    if (!peer) return -2;
    cert->TakeCertificate(peer);
    return 0;
}

int CSslStream::IsSessionReused() const
{
    return m_impl->io.Ssl() && SSL_session_reused(m_impl->io.Ssl()) ? 1 : 0;
}

void CSslStream::adopt(ssl_st* ssl, CSockStream* stream)
{
    release_connection();
    const int fd = stream->GetHandle();
    SetBlockOpt(false);
    if (m_sockfd != -1) real_Close();
    Attach(fd);
    m_impl->io.Bind(ssl, fd);
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
