#include <Corvane/SslAsyncStream.h>

#include <Corvane/SockStream.h>

#include "Fundel/LogDefs.h"
#include "Socket/ProxyHandler.h"

namespace Qelvar::Corvane {

CSslAsyncStream::CSslAsyncStream() : CSock(-1, SOCK_TYPE_SSL_ASYNC), m_proxy(new CProxyHandler(this))
{
}

CSslAsyncStream::~CSslAsyncStream()
{
    // The internal handler closes the socket with its TCP stream; this object only
    // shared the descriptor.
    m_proxy->Release();
    Detach();
}

bool CSslAsyncStream::proxy_ready(const char* function) const
{
    if (m_proxy && m_proxy->GetID() != 0) return true;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : The proxy object initialization failed!\n",
            static_cast<const void*>(this), function);
    return false;
}

int CSslAsyncStream::Connect(const CSockAddr& remote, CSockAddr* local)
{
    return proxy_ready("CSslAsyncStream::Connect") ? m_proxy->Connect(remote, local) : -1;
}

int CSslAsyncStream::GetConnectStatus()
{
    return proxy_ready("CSslAsyncStream::GetConnectStatus") ? m_proxy->GetConnectStatus() : -1;
}

int CSslAsyncStream::Send(const char* buf, unsigned int len)
{
    return proxy_ready("CSslAsyncStream::Send") ? m_proxy->Io().Send(buf, len) : -1;
}

int CSslAsyncStream::Recv(char* buf, unsigned int len)
{
    return proxy_ready("CSslAsyncStream::Recv") ? m_proxy->Io().Recv(buf, len) : -1;
}

int CSslAsyncStream::Peek()
{
    return proxy_ready("CSslAsyncStream::Peek") ? m_proxy->Io().Peek() : -1;
}

int CSslAsyncStream::WriteV(const iovec* vec, int count)
{
    return proxy_ready("CSslAsyncStream::WriteV") ? m_proxy->Io().WriteV(vec, count) : -1;
}

int CSslAsyncStream::Send_n(const char* buf, unsigned int len, int timeout_ms)
{
    return proxy_ready("CSslAsyncStream::Send_n") ? m_proxy->Io().Send_n(buf, len, timeout_ms) : -1;
}

int CSslAsyncStream::Recv_n(char* buf, unsigned int len, int timeout_ms)
{
    return proxy_ready("CSslAsyncStream::Recv_n") ? m_proxy->Io().Recv_n(buf, len, timeout_ms) : -1;
}

int CSslAsyncStream::SetOption(int option, int type, void* value)
{
    return SetOption(option, type, value, -1);
}

int CSslAsyncStream::SetOption(int option, int type, void* value, int length)
{
    if (!proxy_ready("CSslAsyncStream::SetOption")) return -1;
    return m_proxy->Options().Set(option, type, value, length, "CSslAsyncStream::SetOption");
}

int CSslAsyncStream::GetOption(int option, int& type, void* value, int& length)
{
    if (!proxy_ready("CSslAsyncStream::GetOption")) return -1;
    return m_proxy->Options().Get(option, type, value, length);
}

int CSslAsyncStream::SetPemPath(const char* dir)
{
    if (!dir || !proxy_ready("CSslAsyncStream::SetPemPath")) return -1;
    m_proxy->Options().pem_dir = dir;
    return 0;
}

int CSslAsyncStream::GetPeerCert(CSslX509* cert)
{
    return proxy_ready("CSslAsyncStream::GetPeerCert") ? m_proxy->GetPeerCert(cert) : -1;
}

int CSslAsyncStream::IsSessionReused()
{
    return proxy_ready("CSslAsyncStream::IsSessionReused") ? m_proxy->IsSessionReused() : 0;
}

int CSslAsyncStream::SetSockRecvBuf(unsigned int bytes)
{
    return set_buffer(true, bytes, "CSslAsyncStream::SetSockRecvBuf");
}

int CSslAsyncStream::GetSockRecvBuf()
{
    return get_buffer(true, "CSslAsyncStream::GetSockRecvBuf");
}

int CSslAsyncStream::SetSockSendBuf(unsigned int bytes)
{
    return set_buffer(false, bytes, "CSslAsyncStream::SetSockSendBuf");
}

int CSslAsyncStream::GetSockSendBuf()
{
    return get_buffer(false, "CSslAsyncStream::GetSockSendBuf");
}

int CSslAsyncStream::SetSockCLOEXEC(bool on)
{
    return set_cloexec(on, "CSslAsyncStream::SetSockCLOEXEC");
}

int CSslAsyncStream::doProxyRegister(CNetHandler* handler, CSock& sock, unsigned int mask, int timeout)
{
    if (!proxy_ready("CSslAsyncStream::doProxyRegister")) return -1;
    return m_proxy->ProxyRegister(handler, sock.GetHandle(), mask, timeout);
}

int CSslAsyncStream::doProxyUnregisterSock(CNetHandler*, CSock&, unsigned int mask)
{
    if (!proxy_ready("CSslAsyncStream::doProxyUnregisterSock")) return -1;
    return m_proxy->ProxyUnregister(mask);
}

int CSslAsyncStream::doProxyRemoveSock(CNetHandler*, CSock&)
{
    if (!proxy_ready("CSslAsyncStream::doProxyRemoveSock")) return -1;
    return m_proxy->ProxyRemove();
}

}  // namespace Qelvar::Corvane
