#include <Corvane/SockAcceptor.h>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>
#include <Corvane/SockStream.h>

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Platform/SockTypes.h"
#include "Socket/SockAddrUtil.h"
#include "Socket/SockDetail.h"
#include "Socket/SockManager.h"

namespace Qelvar::Corvane {

namespace {

constexpr int kBacklog = 1024;

}  // namespace

CSockAcceptor::CSockAcceptor() : CSock(-1, SOCK_TYPE_ACCEPTOR)
{
}

int CSockAcceptor::Open(const CSockAddr& local)
{
    return Open(local, true);
}

int CSockAcceptor::Open(const CSockAddr& local, bool ipv6_only)
{
    static constexpr const char* kFunction = "CSockAcceptor::Open";
    const unsigned int family = family_of(local);
    if (m_sockfd != -1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket fd[%d] has opened, close old first\n", static_cast<void*>(this),
                kFunction, m_sockfd);
        Close();
        m_sockfd = -1;
    }
    if (family != SOCKADDR_TYPE_IPV4 && family != SOCKADDR_TYPE_IPV6) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : invalid local addresst type[%u]!\n", static_cast<void*>(this),
                kFunction, family);
        return -1;
    }
    const int fd = Platform::sock_open(family == SOCKADDR_TYPE_IPV4 ? AF_INET : AF_INET6, SOCK_STREAM, 0);
    if (fd < 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket failed, error:%d,%s\n", static_cast<void*>(this), kFunction, err,
                SErrorText(err).text);
        return -1;
    }
    take_new_fd(fd);

    // From here on a failure leaves the descriptor open and registered: it goes with the
    // next Close or the destructor.
    const int on = 1;
    if (Platform::sock_setopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : set reuseaddr failed! fd[%d], error:%d,%s\n", static_cast<void*>(this),
                kFunction, fd, err, SErrorText(err).text);
        return -1;
    }
    if (family == SOCKADDR_TYPE_IPV6) {
        const int only = ipv6_only ? 1 : 0;
        if (Platform::sock_setopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only) != 0) {
            const int err = Platform::last_error();
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : set IPV6_V6ONLY failed! fd[%d], error:%d, %s\n",
                    static_cast<void*>(this), kFunction, fd, err, SErrorText(err).text);
            return -1;
        }
    }
    USockAddr raw{};
    local.GetAddr(&raw.base);
    const int port = ntohs(raw.v4.sin_port);  // the same place in both families
    if (Platform::sock_bind(fd, &raw.base, static_cast<int>(local.GetAddrLen())) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : bind failed! port[%d] fd[%d], error:%d, %s\n", static_cast<void*>(this),
                kFunction, port, fd, err, SErrorText(err).text);
        return -1;
    }
    if (Platform::sock_listen(fd, kBacklog) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : listen failed! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                kFunction, fd, err, SErrorText(err).text);
        return -1;
    }
    if (set_block_opt() != 0) return -1;
    CSockManager::Instance().insertValueByListenFD(
        fd, std::make_shared<CListenSocketStatus>(fd, static_cast<unsigned short>(port), family));
    return 0;
}

int CSockAcceptor::Accept(CSockStream& stream, CSockAddr* remote)
{
    static constexpr const char* kFunction = "CSockAcceptor::Accept";
    if (remote && remote->GetType() != SOCKADDR_TYPE_IPV4 && remote->GetType() != SOCKADDR_TYPE_IPV6 &&
        remote->GetType() != SOCKADDR_TYPE_STORAGE) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : invalid local address type[%u]!\n", static_cast<void*>(this), kFunction,
                remote->GetType());
        return -1;
    }
    USockAddr peer{};
    int len = sizeof(sockaddr_in6);
    const int fd = Platform::sock_accept(m_sockfd, &peer.base, &len);
    if (fd < 0) {
        const int err = Platform::last_error();
        // Nothing pending: unlike Recv, an acceptor reports it as -1, silently.
        if (try_later(err)) return -1;
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : accept failed! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                kFunction, m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    auto status = std::make_shared<CSocketStatus>(fd);
    CSockManager::Instance().insertValueByFD(fd, status);
    CSockManager::Instance().bindSock(&stream, status);

    if (remote) put_peer_address(this, peer, remote);
    if (stream.Attach(fd) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Attach sockfd failed, m_sockfd: %d, sockfd :%d\n",
                static_cast<void*>(this), kFunction, m_sockfd, fd);
        return -1;
    }
    return 0;
}

CSockStream* CSockAcceptor::Accept(CSockAddr* remote)
{
    auto* stream = new CSockStream;
    if (Accept(*stream, remote) == 0) return stream;
    delete stream;
    return nullptr;
}

int CSockAcceptor::SetSockRecvBuf(unsigned int bytes)
{
    return set_buffer(true, bytes, "CSockAcceptor::SetSockRecvBuf");
}

int CSockAcceptor::GetSockRecvBuf()
{
    return get_buffer(true, "CSockAcceptor::GetSockRecvBuf");
}

int CSockAcceptor::SetSockSendBuf(unsigned int bytes)
{
    return set_buffer(false, bytes, "CSockAcceptor::SetSockSendBuf");
}

int CSockAcceptor::GetSockSendBuf()
{
    return get_buffer(false, "CSockAcceptor::GetSockSendBuf");
}

int CSockAcceptor::SetSockCLOEXEC(bool on)
{
    return set_cloexec(on, "CSockAcceptor::SetSockCLOEXEC");
}

}  // namespace Qelvar::Corvane
