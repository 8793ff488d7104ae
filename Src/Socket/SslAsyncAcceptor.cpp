#include <Corvane/SslAsyncAcceptor.h>

#include <Corvane/SslAsyncStream.h>

#include "Fundel/LogDefs.h"
#include "Socket/ProxyAcceptHandler.h"

namespace Qelvar::Corvane {

CSslAsyncAcceptor::CSslAsyncAcceptor() : CSock(-1, SOCK_TYPE_SSL_ASYNC), m_proxy(new CProxyAcceptHandler(this))
{
}

CSslAsyncAcceptor::~CSslAsyncAcceptor()
{
    CVN_LOG(Fundel::LOG_INFO, "this:%p destroy CSslAsyncAcceptor\n", static_cast<void*>(this));
    // The internal handler closes the listening socket; this object only shared it.
    Detach();
    m_proxy->Release();
}

bool CSslAsyncAcceptor::proxy_ready(const char* function) const
{
    if (m_proxy && m_proxy->GetID() != 0) return true;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : The proxy object initialization failed!\n",
            static_cast<const void*>(this), function);
    return false;
}

int CSslAsyncAcceptor::Open(const CSockAddr& local, bool reuse)
{
    return proxy_ready("CSslAsyncAcceptor::Open") ? m_proxy->Open(local, reuse) : -1;
}

CSslAsyncStream* CSslAsyncAcceptor::Accept(CSockAddr* remote)
{
    return proxy_ready("CSslAsyncAcceptor::Accept") ? m_proxy->Accept(remote) : nullptr;
}

int CSslAsyncAcceptor::SetBacklog(unsigned int backlog)
{
    if (!proxy_ready("CSslAsyncAcceptor::SetBacklog")) return -1;
    m_proxy->SetBacklog(backlog);
    return 0;
}

int CSslAsyncAcceptor::SetPemPath(const char* dir)
{
    if (!dir || !proxy_ready("CSslAsyncAcceptor::SetPemPath")) return -1;
    m_proxy->Options().pem_dir = dir;
    return 0;
}

int CSslAsyncAcceptor::SetCertVerityPeer(bool verify)
{
    if (!proxy_ready("CSslAsyncAcceptor::SetCertVerityPeer")) return -1;
    SslOptions& options = m_proxy->Options();
    if (verify) options.cert_mode |= 1;
    else options.cert_mode &= ~1;
    options.verify_mode = verify ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0;
    return 0;
}

int CSslAsyncAcceptor::SetOption(int option, int type, void* value)
{
    return SetOption(option, type, value, -1);
}

int CSslAsyncAcceptor::SetOption(int option, int type, void* value, int length)
{
    if (!proxy_ready("CSslAsyncAcceptor::SetOption")) return -1;
    return m_proxy->Options().Set(option, type, value, length, "CSslAsyncAcceptor::SetOption");
}

int CSslAsyncAcceptor::SetSockRecvBuf(unsigned int bytes)
{
    return set_buffer(true, bytes, "CSslAsyncAcceptor::SetSockRecvBuf");
}

int CSslAsyncAcceptor::GetSockRecvBuf()
{
    return get_buffer(true, "CSslAsyncAcceptor::GetSockRecvBuf");
}

int CSslAsyncAcceptor::SetSockSendBuf(unsigned int bytes)
{
    return set_buffer(false, bytes, "CSslAsyncAcceptor::SetSockSendBuf");
}

int CSslAsyncAcceptor::GetSockSendBuf()
{
    return get_buffer(false, "CSslAsyncAcceptor::GetSockSendBuf");
}

int CSslAsyncAcceptor::SetSockCLOEXEC(bool on)
{
    return set_cloexec(on, "CSslAsyncAcceptor::SetSockCLOEXEC");
}

int CSslAsyncAcceptor::doProxyRegister(CNetHandler* handler, CSock&, unsigned int mask, int timeout)
{
    if (!proxy_ready("CSslAsyncAcceptor::doProxyRegister")) return -1;
    return m_proxy->ProxyRegister(handler, mask, timeout);
}

int CSslAsyncAcceptor::doProxyUnregisterSock(CNetHandler*, CSock&, unsigned int mask)
{
    if (!proxy_ready("CSslAsyncAcceptor::doProxyUnregisterSock")) return -1;
    return m_proxy->ProxyUnregister(mask);
}

int CSslAsyncAcceptor::doProxyRemoveSock(CNetHandler*, CSock&)
{
    if (!proxy_ready("CSslAsyncAcceptor::doProxyRemoveSock")) return -1;
    return m_proxy->ProxyRemove();
}

}  // namespace Qelvar::Corvane
