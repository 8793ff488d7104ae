#include "Socket/ProxyAcceptHandler.h"

#include <Corvane/SockAddr.h>
#include <Corvane/SockStream.h>
#include <Corvane/SslAsyncAcceptor.h>
#include <Corvane/SslAsyncStream.h>

#include <openssl/err.h>

#include <mutex>

#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Socket/ProxyHandler.h"
#include "Socket/SockDetail.h"
#include "Socket/SslError.h"

namespace Qelvar::Corvane {

CProxyAcceptHandler::CProxyAcceptHandler(CSslAsyncAcceptor* acceptor)
    : m_acceptor(acceptor), m_options(acceptor, true, true)
{
    // SSLv2 and SSLv3 are banned from the start; bans only ever add.
    m_options.ban_bits = 3;
}

CProxyAcceptHandler::~CProxyAcceptHandler()
{
    CVN_LOG(Fundel::LOG_INFO, "this:%p destroy CProxyAcceptHandler\n", static_cast<void*>(this));
    for (auto& [fd, stream] : m_syntable) delete stream;
    for (CSslAsyncStream* stream : m_established) delete stream;
    if (m_ctx) SSL_CTX_free(m_ctx);
}

int CProxyAcceptHandler::Open(const CSockAddr& local, bool reuse)
{
    static constexpr const char* kFunction = "CSslAsyncAcceptor::Open";
    CSslAsyncAcceptor* self = m_acceptor.load();
    const unsigned int type = local.GetType();
    if (type != SOCKADDR_TYPE_IPV4 && type != SOCKADDR_TYPE_IPV6 && type != SOCKADDR_TYPE_STORAGE) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : invalid local addresst type[%u]!\n", self, kFunction, type);
        return -1;
    }
    if (self->GetHandle() != -1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket fd: %d has opened, close old first\n",
                static_cast<void*>(self), kFunction, self->GetHandle());
        self->Detach();
    }
    m_listen.SetBlockOpt(false);
    if (m_listen.Open(local, reuse) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : ssl open error! error:%d, %s\n", self, kFunction, err,
                SErrorText(err).text);
        m_listen.Close();
        return -1;
    }
    if (self->Attach(m_listen.GetHandle()) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Attach sockfd failed, m_sockfd: %d, sockfd :%d\n",
                static_cast<void*>(self), kFunction, self->GetHandle(), m_listen.GetHandle());
        return -1;
    }
    m_listen_fd = m_listen.GetHandle();
    CVN_LOG(Fundel::LOG_INFO, "this:%p Open m_hsproxy:%p, fd:%d\n", self, static_cast<void*>(this),
            m_listen.GetHandle());
    return 0;
}

CSslAsyncStream* CProxyAcceptHandler::Accept(CSockAddr* remote)
{
    CSslAsyncStream* stream = nullptr;
    {
        std::lock_guard<Fundel::CMutex> lock(m_lock);
        if (m_established.empty()) return nullptr;
        stream = m_established.front();
        m_established.pop_front();
    }
    if (remote) stream->GetRemoteAddr(remote);
    resume_listening();
    return stream;
}

void CProxyAcceptHandler::SetBacklog(unsigned int backlog)
{
    std::lock_guard<Fundel::CMutex> lock(m_lock);
    m_backlog = backlog;
}

int CProxyAcceptHandler::ProxyRegister(CNetHandler* user, unsigned int mask, int timeout)
{
    m_user_id = user->GetID();
    m_timeout = timeout;
    generalRegisterSock(m_listen, mask, timeout);
    return -1;
}

int CProxyAcceptHandler::ProxyUnregister(unsigned int mask)
{
    generalUnregisterSock(m_listen, mask);
    return -1;
}

int CProxyAcceptHandler::ProxyRemove()
{
    generalRemoveSock(m_listen);
    return -1;
}

void CProxyAcceptHandler::Release()
{
    std::map<int, CSslAsyncStream*> table;
    std::deque<CSslAsyncStream*> established;
    {
        std::lock_guard<Fundel::CMutex> lock(m_lock);
        m_acceptor = nullptr;
        table.swap(m_syntable);
        established.swap(m_established);
    }
    if (m_listen_fd.load() != -1) generalRemoveSock(m_listen);
    for (auto& [fd, stream] : table) drop(stream);
    for (CSslAsyncStream* stream : established) delete stream;
    // The listening socket closes with this handler, once no callback can use it.
    Close();
}

// Table, queue and the handshakes under way (taken out of the table while they step)
// against the backlog. Called with the lock held.
bool CProxyAcceptHandler::full() const
{
    return m_syntable.size() + m_established.size() + static_cast<std::size_t>(m_stepping) >= m_backlog;
}

// A full acceptor stops watching the listening socket: the kernel keeps the waiting
// connections, and a level-triggered poller would otherwise report them again at once.
void CProxyAcceptHandler::pause_listening()
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_lock);
        if (m_paused || !m_acceptor.load()) return;
        m_paused = true;
    }
    generalUnregisterSock(m_listen, MASK_READ);
    // Room may have been made meanwhile, before the pause was visible.
    resume_listening();
}

void CProxyAcceptHandler::resume_listening()
{
    {
        std::lock_guard<Fundel::CMutex> lock(m_lock);
        if (!m_paused || full() || !m_acceptor.load()) return;
        m_paused = false;
    }
    generalRegisterSock(m_listen, MASK_READ, m_timeout);
}

// Withdraws a connection's registration and frees it.
void CProxyAcceptHandler::drop(CSslAsyncStream* stream)
{
    generalRemoveSock(*stream);
    delete stream;
}

CSslAsyncStream* CProxyAcceptHandler::init_ssl_session(CSockStream* tcp)
{
    static constexpr const char* kFunction = "CSslAsyncAcceptor::initSslSession";
    void* self = m_acceptor.load();
    if (!tcp) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s pStream is NULL\n", self, kFunction);
        return nullptr;
    }
    if (!m_options.Valid(kFunction)) {
        delete tcp;
        return nullptr;
    }
    if (!m_ctx) m_ctx = m_options.BuildContext(kFunction);
    if (!m_ctx) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Accept failed!, m_pCtx :%p\n", self, kFunction,
                static_cast<void*>(m_ctx));
        delete tcp;
        return nullptr;
    }
    tcp->SetBlockOpt(false);
    // TLS writes whole records (a handshake flight, session tickets, a reply) that must
    // not wait for the peer's acknowledgement of the previous one.
    tcp->SetSockNoDelay(true);
    SSL* ssl = m_options.NewConnection(m_ctx, tcp->GetHandle(), kFunction);
    if (!ssl) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Accept failed!, m_ssl :%p\n", self, kFunction, static_cast<void*>(ssl));
        delete tcp;
        return nullptr;
    }
    if (SSL_set_cipher_list(ssl, m_options.CipherList()) != 1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p Cipher List Rule Set Wrong!\n", self);
    }
    auto* stream = new CSslAsyncStream();
    stream->m_proxy->AdoptAccepted(ssl, tcp);
    return stream;
}

// One step of a server handshake: 0 done, -1 still running, -2 failed.
int CProxyAcceptHandler::ssl_accept(CSslAsyncStream* stream)
{
    SSL* ssl = stream->m_proxy->Io().Ssl();
    if (!ssl) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Accept failed!, ssl :%p\n", static_cast<void*>(m_acceptor.load()),
                "CSslAsyncAcceptor::SslAccept", static_cast<void*>(ssl));
        return -1;
    }
    Platform::set_last_error(0);
    ERR_clear_error();
    const int ret = SSL_accept(ssl);
    if (ret == 1) return 0;
    const int ssl_error = SSL_get_error(ssl, ret);
    if (ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE) {
        CVN_LOG(Fundel::LOG_INFO, "this:%p Accepting ssl connection!\n", static_cast<void*>(m_acceptor.load()));
        return -1;
    }
    const int err = Platform::last_error();
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SSL_accept failed, fd :%d, error:%d, %s, %s\n",
            static_cast<void*>(m_acceptor.load()), "CSslAsyncAcceptor::SslAccept", stream->GetHandle(), err,
            SErrorText(err).text, SslErrorText().text);
    ERR_clear_error();
    return -2;
}

int CProxyAcceptHandler::accept_connections()
{
    for (;;) {
        bool is_full;
        {
            std::lock_guard<Fundel::CMutex> lock(m_lock);
            if (!m_acceptor.load()) return -1;
            is_full = full();
            if (is_full) {
                CVN_LOG(Fundel::LOG_ERROR, "The listening queue is full! m_estable.size :%u, m_syntable.size :%u\n",
                        static_cast<unsigned int>(m_established.size()), static_cast<unsigned int>(m_syntable.size()));
            }
        }
        if (is_full) {
            pause_listening();
            return 0;
        }
        auto* tcp = new CSockStream();
        if (m_listen.Accept(*tcp, nullptr) != 0) {
            delete tcp;
            return 0;
        }
        CSslAsyncStream* stream = init_ssl_session(tcp);
        if (!stream) {
            notify_user();
            return -1;
        }
        const int fd = stream->GetHandle();
        bool released;
        {
            std::lock_guard<Fundel::CMutex> lock(m_lock);
            // Released while this connection was being accepted: it has no future.
            released = m_acceptor.load() == nullptr;
            if (!released && !m_syntable.emplace(fd, stream).second) {
                CVN_LOG(Fundel::LOG_WARN, "%s : The key value already exists in the syntable!, m_sockfd :%d\n",
                        "CSslAsyncAcceptor::handle_input", fd);
            }
            // Registered under the lock: a release takes the table and drops it whole.
            if (!released) generalRegisterSock(*stream, MASK_READ, m_timeout);
        }
        if (released) {
            delete stream;
            return -1;
        }
    }
}

int CProxyAcceptHandler::handshake_step(int fd)
{
    CSslAsyncStream* stream = nullptr;
    {
        std::lock_guard<Fundel::CMutex> lock(m_lock);
        auto it = m_syntable.find(fd);
        if (it == m_syntable.end()) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : The key value not exists in the syntable!, m_sockfd :%d\n",
                    static_cast<void*>(m_acceptor.load()), "CSslAsyncAcceptor::handle_input", fd);
            return -1;
        }
        // Out of the table while it steps, so that other handshakes run in parallel and a
        // release meanwhile leaves this one to be freed here.
        stream = it->second;
        m_syntable.erase(it);
        ++m_stepping;
    }
    const int step = ssl_accept(stream);
    // Finished either way: the connection leaves this handler's registration.
    if (step != -1) generalRemoveSock(*stream);
    bool released;
    {
        std::lock_guard<Fundel::CMutex> lock(m_lock);
        --m_stepping;
        released = m_acceptor.load() == nullptr;
        if (!released && step == -1) {
            m_syntable.emplace(fd, stream);
            return 0;
        }
        if (!released && step == 0) m_established.push_back(stream);
    }
    if (released) {
        drop(stream);
        return -1;
    }
    if (step == -2) delete stream;
    notify_user();
    if (step == -2) resume_listening();
    return step == 0 ? 0 : -1;
}

void CProxyAcceptHandler::notify_user()
{
    if (!m_acceptor.load()) return;  // released: nobody to tell
    const int listening = m_listen_fd.load();
    if (!CThreadPool::with_handler(m_user_id, [listening](CNetHandler& user) { user.handle_input(listening); })) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p notifyUser obj_id:%lld, handle sock net event not found obj: %p\n",
                static_cast<void*>(m_acceptor.load()), static_cast<long long>(m_user_id), static_cast<void*>(nullptr));
    }
}

int CProxyAcceptHandler::handle_input(int handle)
{
    if (handle == m_listen_fd.load()) return accept_connections();
    return handshake_step(handle);
}

int CProxyAcceptHandler::forward(int fd, int (CNetHandler::*callback)(int), const char* listening_line,
                                 const char* connection_line, const char* missing_line)
{
    if (fd != m_listen_fd.load()) {
        CVN_LOG(Fundel::LOG_WARN, connection_line, fd);
        CSslAsyncStream* stream = nullptr;
        {
            std::lock_guard<Fundel::CMutex> lock(m_lock);
            auto it = m_syntable.find(fd);
            if (it != m_syntable.end()) {
                stream = it->second;
                m_syntable.erase(it);
            }
        }
        if (stream) {
            drop(stream);
            resume_listening();
        }
        return -1;
    }
    CVN_LOG(Fundel::LOG_WARN, listening_line, fd);
    int result = -1;
    if (!CThreadPool::with_handler(m_user_id, [&](CNetHandler& user) { result = (user.*callback)(fd); })) {
        CVN_LOG(Fundel::LOG_ERROR, missing_line, static_cast<void*>(m_acceptor.load()), static_cast<long long>(m_user_id),
                static_cast<void*>(nullptr));
    }
    return result;
}

int CProxyAcceptHandler::handle_input_timeout(int handle)
{
    return forward(handle, &CNetHandler::handle_input_timeout, "The listening socket is timeout, sockfd: %d\n",
                   "The connection socket is timeout, sockfd: %d\n",
                   "this:%p handle_input_timeout obj_id:%lld, handle sock net event not found obj: %p\n");
}

int CProxyAcceptHandler::handle_exception(int handle)
{
    return forward(handle, &CNetHandler::handle_exception, "The listening socket is exception, sockfd: %d\n",
                   "The connection socket is exception, sockfd: %d\n",
                   "this:%p handle_exception obj_id:%lld, handle sock net event not found obj: %p\n");
}

int CProxyAcceptHandler::handle_close(CNetHandler*)
{
    delete this;
    return 0;
}

}  // namespace Qelvar::Corvane
