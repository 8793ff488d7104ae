#include "Socket/ProxyHandler.h"

#include <Corvane/SockAddr.h>
#include <Corvane/SockStream.h>
#include <Corvane/SslAsyncStream.h>
#include <Corvane/SslX509.h>

#include <openssl/err.h>

#include "Core/NetSock.h"
#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Socket/SockDetail.h"
#include "Socket/SslError.h"

namespace Qelvar::Corvane {

CProxyHandler::CProxyHandler(CSslAsyncStream* stream)
    : m_stream(stream), m_tcp(new CSockStream()), m_options(stream, false, true), m_io(stream, "CSslAsyncStream"),
      m_session(m_options)
{
}

CProxyHandler::~CProxyHandler()
{
    free_connection();
    delete m_tcp;
}

void CProxyHandler::free_connection()
{
    if (SSL* ssl = m_io.Ssl()) {
        if (m_status.load() == 0) SSL_shutdown(ssl);
        SSL_free(ssl);
    }
    m_io.Bind(nullptr, -1);
    if (m_ctx) SSL_CTX_free(m_ctx);
    m_ctx = nullptr;
    m_session.Reset();
}

int CProxyHandler::Connect(const CSockAddr& remote, CSockAddr* local)
{
    static constexpr const char* kFunction = "CSslAsyncStream::Connect";
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_tcp || !m_stream) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Connect failed!, m_stream :%p\n", static_cast<void*>(m_stream),
                kFunction, static_cast<void*>(m_tcp));
        return -1;
    }
    const unsigned int type = remote.GetType();
    if (type != SOCKADDR_TYPE_IPV4 && type != SOCKADDR_TYPE_IPV6 && type != SOCKADDR_TYPE_STORAGE) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : connect error, address type[%u] error!\n",
                static_cast<void*>(m_stream), kFunction, type);
        return -1;
    }
    m_tcp->SetBlockOpt(false);
    if (m_tcp->Connect(remote, local) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s :TCP connect error!\n", static_cast<void*>(m_stream), kFunction);
        return -1;
    }
    m_status = -2;
    m_handle = m_tcp->GetHandle();
    // TLS writes whole records that must not wait for the acknowledgement of the last.
    m_tcp->SetSockNoDelay(true);
    if (m_stream->Attach(m_handle) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Attach sockfd failed, m_sockfd: %d, sockfd :%d\n",
                static_cast<void*>(m_stream), kFunction, m_stream->GetHandle(), m_handle);
        return -1;
    }
    return 0;
}

int CProxyHandler::GetConnectStatus()
{
    if (m_status.load() < -1) m_status = -2;
    return m_status.load();
}

int CProxyHandler::ProxyRegister(CNetHandler* user, int fd, unsigned int mask, int timeout)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (fd != m_tcp->GetHandle()) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : m_sockfd:%d is different as m_stream:%d\n",
                static_cast<void*>(m_stream), "CSslAsyncStream::doProxyRegister", fd, m_tcp->GetHandle());
        return -1;
    }
    if (m_handover.load() == HANDED_OVER) return 0;
    m_user = user;
    m_user_id = user->GetID();
    m_timeout = timeout;
    generalRegisterSock(*m_tcp, mask, timeout);
    return -1;
}

int CProxyHandler::ProxyUnregister(unsigned int mask)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_handover.load() == HANDED_OVER) return 0;
    generalUnregisterSock(*m_tcp, mask);
    return -1;
}

int CProxyHandler::ProxyRemove()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_handover.load() == HANDED_OVER) return 0;
    generalRemoveSock(*m_tcp);
    return -1;
}

int CProxyHandler::GetPeerCert(CSslX509* cert)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    SSL* ssl = m_io.Ssl();
    if (!cert || !ssl) return -1;
    X509* peer = SSL_get1_peer_certificate(ssl);
    if (!peer) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p SSL get peer certificate failed\n", static_cast<void*>(m_stream));
        return -2;
    }
    cert->TakeCertificate(peer);
    return 0;
}

int CProxyHandler::IsSessionReused()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return m_io.Ssl() && SSL_session_reused(m_io.Ssl()) ? 1 : 0;
}

void CProxyHandler::AdoptAccepted(SSL* ssl, CSockStream* tcp)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    free_connection();
    delete m_tcp;
    m_tcp = tcp;
    m_tcp->SetBlockOpt(false);
    m_handle = tcp->GetHandle();
    m_io.Bind(ssl, m_handle);
    m_status = 0;
    m_handover = HANDED_OVER;
    m_stream->Attach(m_handle);
}

void CProxyHandler::Release()
{
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (m_handover.load() != HANDED_OVER && m_tcp->IsValid()) generalRemoveSock(*m_tcp);
        free_connection();
        delete m_tcp;
        m_tcp = nullptr;
        m_stream = nullptr;
    }
    Close();
}

// One step of the client handshake: 0 done, -2 wants more, -1 failed.
int CProxyHandler::handshake_step()
{
    SSL* ssl = m_io.Ssl();
    if (!ssl || !m_tcp) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Connect failed!, m_ssl:%p, m_stream:%p\n",
                static_cast<void*>(m_stream), "CSslAsyncStream::handshake", static_cast<void*>(ssl),
                static_cast<void*>(m_tcp));
        return -1;
    }
    Platform::set_last_error(0);
    ERR_clear_error();
    const int ret = SSL_connect(ssl);
    if (ret == 1) {
        m_options.SetHandshakeLimits(m_handle, 0, "CSslAsyncStream::handshake");
        m_session.Store(ssl);
        m_status = 0;
        return 0;
    }
    const int ssl_error = SSL_get_error(ssl, ret);
    // Both wants wait for readability: a write the handshake could not finish is tried
    // again at the next readable event.
    if (ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE) return -2;
    const int err = Platform::last_error();
    CVN_LOG(Fundel::LOG_WARN, "this:%p SSL_connect failed, fd[%d] , SSL_get_error: %d, errno:%d, %s\n",
            static_cast<void*>(m_stream), m_handle, ssl_error, err, SErrorText(err).text);
    CVN_LOG(Fundel::LOG_WARN, "this:%p SSL_state_string_long: %s\n", static_cast<void*>(m_stream),
            SSL_state_string_long(ssl));
    CVN_LOG(Fundel::LOG_WARN, "this:%p ERR_error_string: %s\n", static_cast<void*>(m_stream), SslErrorText().text);
    ERR_clear_error();
    m_options.SetHandshakeLimits(m_handle, 0, "CSslAsyncStream::handshake");
    free_connection();  // no TLS shutdown: the status is not "connected"
    m_status = -1;
    return -1;
}

int CProxyHandler::init_ssl_session()
{
    static constexpr const char* kFunction = "CSslAsyncStream::initSslSession";
    if (m_ctx || m_io.Ssl()) return 0;
    m_ctx = m_options.BuildContext(kFunction);
    if (!m_ctx) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : init ssl_ctx_st error! errno:%d, %s\n", static_cast<void*>(m_stream),
                kFunction, err, SErrorText(err).text);
        return -1;
    }
    m_session.Install(m_ctx);
    SSL* ssl = m_options.NewConnection(m_ctx, m_handle, kFunction);
    if (!ssl) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : init ssl_st error! errno:%d, %s\n", static_cast<void*>(m_stream),
                kFunction, err, SErrorText(err).text);
        free_connection();
        return -1;
    }
    m_io.Bind(ssl, m_handle);
    if (SSL_set_cipher_list(ssl, m_options.CipherList()) != 1) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Cipher List Rule Set Wrong! errno:%d, %s\n",
                static_cast<void*>(m_stream), kFunction, err, SErrorText(err).text);
    }
    if (!m_options.server_name.empty() && SSL_set_tlsext_host_name(ssl, m_options.server_name.c_str()) != 1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p Unable to set TLS servername extension.\n", static_cast<void*>(m_stream));
    }
    m_session.Offer(ssl, *m_tcp, m_stream, kFunction);
    // The reactor time-out bounds this handshake, not socket options.
    m_options.SetHandshakeLimits(m_handle, 0, kFunction);
    return 0;
}

void CProxyHandler::register_notify_user()
{
    generalRemoveSock(*m_tcp);
    m_handover = HANDED_OVER;
    const bool found = CThreadPool::with_handler(
        m_user_id, [&](CNetHandler& user) { CNetSock::RegisterSock(&user, *m_stream, MASK_WRITE, m_timeout); });
    if (!found) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p registerNotifyUser obj_id:%lld, handle sock net event not found obj: %p\n",
                static_cast<void*>(m_stream), static_cast<long long>(m_user_id), static_cast<void*>(m_user));
    }
}

void CProxyHandler::notify_user(int fd)
{
    generalRemoveSock(*m_tcp);
    m_handover = HANDED_OVER;
    if (!CThreadPool::with_handler(m_user_id, [fd](CNetHandler& user) { user.handle_output(fd); })) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p notifyUser obj_id:%lld, handle sock net event not found obj: %p\n",
                static_cast<void*>(m_stream), static_cast<long long>(m_user_id), static_cast<void*>(m_user));
    }
}

int CProxyHandler::handle_output(int handle)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_stream || handle != m_handle) return 0;
    const int connected = m_tcp->GetConnectStatus();
    if (connected == -1) return 0;
    if (connected != 0) {
        m_status = -1;
        register_notify_user();
        return -1;
    }
    generalUnregisterSock(*m_tcp, MASK_WRITE);
    if (init_ssl_session() != 0) {
        m_status = -1;
        notify_user(handle);
        return -1;
    }
    const int step = handshake_step();
    if (step == -2) {
        generalRegisterSock(*m_tcp, MASK_READ, m_timeout);
        return 0;
    }
    register_notify_user();
    return step;
}

int CProxyHandler::handle_input(int handle)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (!m_stream || handle != m_handle) return 0;
    const int step = handshake_step();
    if (step == -2) return 0;
    register_notify_user();
    return 0;
}

int CProxyHandler::forward(int fd, int (CNetHandler::*callback)(int), const char* function, const char* missing_line)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (fd != m_handle) return -1;
    if (!m_stream || !m_tcp) {
        CVN_LOG(Fundel::LOG_ERROR, missing_line, static_cast<void*>(m_stream), function, static_cast<void*>(m_tcp));
        return -1;
    }
    int result = -1;  // also when the user's handler is gone
    CThreadPool::with_handler(m_user_id, [&](CNetHandler& user) { result = (user.*callback)(fd); });
    return result;
}

int CProxyHandler::handle_output_timeout(int handle)
{
    return forward(handle, &CNetHandler::handle_output_timeout, "CProxyHandler::handle_output_timeout",
                   "this:%p %s : handle_output_timeout failed!, m_stream :%p\n");
}

// A read time-out of the handshake reaches the user as a write time-out: the user
// registered for writability.
int CProxyHandler::handle_input_timeout(int handle)
{
    return forward(handle, &CNetHandler::handle_output_timeout, "CProxyHandler::handle_input_timeout",
                   "this:%p %s : handle_input_timeout failed!, m_sslstream :%p\n");
}

int CProxyHandler::handle_exception(int handle)
{
    return forward(handle, &CNetHandler::handle_exception, "CProxyHandler::handle_exception",
                   "this:%p %s : handle_exception failed!, m_sslstream :%p\n");
}

int CProxyHandler::handle_close(CNetHandler*)
{
    delete this;
    return 0;
}

}  // namespace Qelvar::Corvane
