#include <Corvane/SslAcceptor.h>

#include <Corvane/SockAcceptor.h>
#include <Corvane/SockAddr.h>
#include <Corvane/SockStream.h>
#include <Corvane/SslStream.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Socket/SockDetail.h"
#include "Socket/SslError.h"
#include "Socket/SslOptions.h"

namespace Qelvar::Corvane {

struct CSslAcceptor::SImpl {
    explicit SImpl(const void* owner) : options(owner, true, false)
    {
        // SSLv2 and SSLv3 are banned from the start; bans only ever add, so they stay.
        options.ban_bits = 3;
    }
    ~SImpl()
    {
        if (ctx) SSL_CTX_free(ctx);
    }

    CSockAcceptor inner;
    SslOptions options;
    SSL_CTX* ctx = nullptr;  // kept across accepts, dropped after a failed handshake
};

CSslAcceptor::CSslAcceptor() : CSock(-1, SOCK_TYPE_ACCEPTOR), m_impl(std::make_unique<SImpl>(this))
{
}

CSslAcceptor::~CSslAcceptor()
{
    // The inner acceptor closes the listening socket; this object only shared it.
    Detach();
}

int CSslAcceptor::Open(const CSockAddr& local, bool reuse)
{
    static constexpr const char* kFunction = "CSslAcceptor::Open";
    const unsigned int type = local.GetType();
    if (type != SOCKADDR_TYPE_IPV4 && type != SOCKADDR_TYPE_IPV6 && type != SOCKADDR_TYPE_STORAGE) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : invalid local addresst type[%u]!\n", static_cast<void*>(this),
                kFunction, type);
        return -1;
    }
    if (m_sockfd != -1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket fd[%d] has opened, close old first\n",
                static_cast<void*>(this), kFunction, m_sockfd);
        real_Close();
        m_sockfd = -1;
    }
    CSockAcceptor& inner = m_impl->inner;
    inner.Detach();
    if (inner.Open(local, reuse) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : ssl open error! error:%d, %s\n", static_cast<void*>(this), kFunction,
                err, SErrorText(err).text);
        inner.Close();
        return -1;
    }
    if (Attach(inner.GetHandle()) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Attach sockfd failed, m_sockfd: %d, sockfd :%d\n",
                static_cast<void*>(this), kFunction, m_sockfd, inner.GetHandle());
        return -1;
    }
    return 0;
}

int CSslAcceptor::Accept(CSslStream& out, CSockStream* stream)
{
    static constexpr const char* kFunction = "CSslAcceptor::Accept";
    if (!stream) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s stream is NULL\n", static_cast<void*>(this), kFunction);
        return -1;
    }
    SslOptions& options = m_impl->options;
    if (!options.Valid(kFunction)) {
        delete stream;
        return -1;
    }
    stream->SetBlockOpt(true);
    if (!m_impl->ctx) m_impl->ctx = options.BuildContext(kFunction);
    if (!m_impl->ctx) {
        delete stream;
        return -1;
    }
    const int fd = stream->GetHandle();
    SSL* ssl = options.NewConnection(m_impl->ctx, fd, kFunction);
    if (!ssl) {
        SSL_CTX_free(m_impl->ctx);
        m_impl->ctx = nullptr;
        delete stream;
        return -1;
    }
    if (SSL_set_cipher_list(ssl, options.CipherList()) != 1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p Cipher List Rule Set Wrong!\n", static_cast<void*>(this));
    }
    if (options.timeout_kind == 1 && options.timeout_ms != 0) {
        CVN_LOG(Fundel::LOG_INFO, "this:%p Setting the listening timeout to :%dms!\n", static_cast<void*>(this),
                options.timeout_ms);
    } else {
        // Stored, so that this line comes once.
        CVN_LOG(Fundel::LOG_INFO,
                "this:%p The user does not specify the listening timeout, will set the default 5s timeout!\n",
                static_cast<void*>(this));
        options.timeout_kind = 1;
        options.timeout_ms = 5000;
    }
    options.SetHandshakeLimits(fd, options.timeout_ms, kFunction);
    ERR_clear_error();
    // Only -1 is a failure: a peer that ends the handshake cleanly (0) still counts.
    if (SSL_accept(ssl) != -1) {
        options.SetHandshakeLimits(fd, 0, kFunction);
        out.adopt(ssl, stream);
        return 0;
    }
    const int err = Platform::last_error();
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SSL_accept failed, fd[%d], error:%d, %s, %s\n", static_cast<void*>(this),
            kFunction, fd, err, SErrorText(err).text, SslErrorText().text);
    ERR_clear_error();
    SSL_free(ssl);
    SSL_CTX_free(m_impl->ctx);
    m_impl->ctx = nullptr;
    delete stream;
    return -1;
}

int CSslAcceptor::Accept(CSslStream& out, CSockAddr* remote)
{
    CSockAcceptor& inner = m_impl->inner;
    inner.SetBlockOpt(true);
    auto* stream = new CSockStream();
    if (inner.Accept(*stream, remote) != 0) {
        delete stream;
        return -1;
    }
    return Accept(out, stream);
}

CSslStream* CSslAcceptor::Accept(CSockAddr* remote)
{
    auto* out = new CSslStream();
    if (Accept(*out, remote) != 0) {
        delete out;
        return nullptr;
    }
    return out;
}

int CSslAcceptor::SetPemPath(const char* dir)
{
    if (!dir) return -1;
    m_impl->options.pem_dir = dir;
    return 0;
}

int CSslAcceptor::SetFullPemPath(const PathList& paths)
{
    if (!paths.cacertpath || !paths.privkeypath) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s cacertpath or privkeypath can not set to NULL\n",
                static_cast<void*>(this), "CSslAcceptor::SetFullPemPath");
        return -1;
    }
    m_impl->options.cert_path = paths.cacertpath;
    m_impl->options.key_path = paths.privkeypath;
    return 0;
}

int CSslAcceptor::SetOption(int option, int type, void* value)
{
    return m_impl->options.Set(option, type, value, -1, "CSslAcceptor::SetOption");
}

int CSslAcceptor::SetOption(int option, int type, void* value, int length)
{
    return m_impl->options.Set(option, type, value, length, "CSslAcceptor::SetOption");
}

int CSslAcceptor::SetSockRecvBuf(unsigned int bytes)
{
    return set_buffer(true, bytes, "CSslAcceptor::SetSockRecvBuf");
}

int CSslAcceptor::GetSockRecvBuf()
{
    return get_buffer(true, "CSslAcceptor::GetSockRecvBuf");
}

int CSslAcceptor::SetSockSendBuf(unsigned int bytes)
{
    return set_buffer(false, bytes, "CSslAcceptor::SetSockSendBuf");
}

int CSslAcceptor::GetSockSendBuf()
{
    return get_buffer(false, "CSslAcceptor::GetSockSendBuf");
}

int CSslAcceptor::SetSockCLOEXEC(bool on)
{
    return set_cloexec(on, "CSslAcceptor::SetSockCLOEXEC");
}

}  // namespace Qelvar::Corvane
