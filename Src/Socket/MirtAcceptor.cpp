// Before anything that could pull in the transport's header (its syslog.h LOG_* clash).
#include "Fundel/LogDefs.h"

#include <Corvane/MirtAcceptor.h>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>

#include <memory>

#include "Mirt/Mirt.h"
#include "Socket/SockAddrUtil.h"
#include "Socket/SockDetail.h"
#include "Socket/SockManager.h"

namespace Qelvar::Corvane {

namespace {

constexpr int kBacklog = 1024;

}  // namespace

CMirtAcceptor::CMirtAcceptor() : CSock(-1, SOCK_TYPE_ACCEPTOR)
{
}

int CMirtAcceptor::set_option(int which, int value, const char* phrase, const char* function)
{
    const auto option = static_cast<CMirtStream::EOption>(which);
    CMirtStream::SOptions next = m_options;
    if (!CMirtStream::store_option(next, option, value, phrase, this, function)) return -1;
    // A listening socket refuses them: logged, and the stored set stays as it was.
    if (m_sockfd != -1 && CMirtStream::apply_option(m_sockfd, next, option, this, function) != 0) return -1;
    m_options = next;
    return 0;
}

int CMirtAcceptor::SetTransType(EMirtTransfer type)
{
    return set_option(CMirtStream::OPT_TRANS_TYPE, type, nullptr, "CMirtAcceptor::SetTransType");
}

int CMirtAcceptor::SetLatency(int ms)
{
    return set_option(CMirtStream::OPT_LATENCY, ms, nullptr, "CMirtAcceptor::SetLatency");
}

int CMirtAcceptor::SetPayloadSize(int bytes)
{
    return set_option(CMirtStream::OPT_PAYLOAD, bytes, nullptr, "CMirtAcceptor::SetPayloadSize");
}

int CMirtAcceptor::SetPassphrase(const char* phrase)
{
    return set_option(CMirtStream::OPT_PHRASE, 0, phrase, "CMirtAcceptor::SetPassphrase");
}

int CMirtAcceptor::Open(const CSockAddr& local)
{
    static constexpr const char* kFunction = "CMirtAcceptor::Open";
    const unsigned int family = family_of(local);
    if (m_sockfd != -1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket fd[%d] has opened, close old first\n", static_cast<void*>(this),
                kFunction, m_sockfd);
        Close();
    }
    if (family != SOCKADDR_TYPE_IPV4 && family != SOCKADDR_TYPE_IPV6) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : invalid local addresst type[%u]!\n", static_cast<void*>(this),
                kFunction, family);
        return -1;
    }
    const int fd = Mirt::socket();
    if (fd < 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket failed, error:%d, %s\n", static_cast<void*>(this), kFunction,
                Mirt::getlasterror(), Mirt::getlasterror_desc());
        return -1;
    }
    take_new_fd(fd);

    // From here on a failure leaves the descriptor open and registered: it goes with the
    // next Close or the destructor.
    if (CMirtStream::apply_options(fd, m_options, this, kFunction) != 0) return -1;
    // Applied before listening: the listener's own accept follows the flag.
    if (set_block_opt() != 0) return -1;
    if (CMirtStream::bind_local(fd, local, this, kFunction) != 0) return -1;
    if (Mirt::listen(fd, kBacklog) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : listen failed! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                kFunction, fd, Mirt::getlasterror(), Mirt::getlasterror_desc());
        return -1;
    }
    USockAddr raw{};
    local.GetAddr(&raw.base);
    CSockManager::Instance().insertValueByListenFD(
        fd, std::make_shared<CListenSocketStatus>(fd, ntohs(raw.v4.sin_port), family));
    return 0;
}

int CMirtAcceptor::Accept(CMirtStream& stream, CSockAddr* remote)
{
    static constexpr const char* kFunction = "CMirtAcceptor::Accept";
    if (remote && remote->GetType() != SOCKADDR_TYPE_IPV4 && remote->GetType() != SOCKADDR_TYPE_IPV6 &&
        remote->GetType() != SOCKADDR_TYPE_STORAGE) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : invalid local address type[%u]!\n", static_cast<void*>(this), kFunction,
                remote->GetType());
        return -1;
    }
    if (stream.IsValid()) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Attach sockfd failed, the stream holds sockfd: %d\n",
                static_cast<void*>(this), kFunction, stream.GetHandle());
        return -1;
    }
    USockAddr peer{};
    int len = sizeof(sockaddr_in6);
    const int fd = Mirt::accept(m_sockfd, &peer.base, &len);
    if (fd < 0) {
        const int err = Mirt::getlasterror();
        // Nothing pending: unlike Recv, an acceptor reports it as -1, silently.
        if (err == Mirt::MIRT_ERR_ASYNC_RECV) return -1;
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : accept failed! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                kFunction, m_sockfd, err, Mirt::getlasterror_desc());
        return -1;
    }
    if (remote) put_peer_address(this, peer, remote);
    // The accepted socket inherited the listener's options; the stream keeps its own
    // blocking flag.
    return stream.adopt(fd, m_options);
}

CMirtStream* CMirtAcceptor::Accept(CSockAddr* remote)
{
    auto* stream = new CMirtStream;
    if (Accept(*stream, remote) == 0) return stream;
    delete stream;
    return nullptr;
}

}  // namespace Qelvar::Corvane
