#include <Corvane/Sock.h>

#include <Corvane/SockAddr.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>

#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"
#include "Mirt/Mirt.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Platform/SockTypes.h"
#include "Socket/SockDetail.h"
#include "Socket/SockManager.h"

namespace Qelvar::Corvane {

CSock::CSock() : m_sockfd(-1), m_type(SOCK_TYPE_BARE), m_block(false)
{
}

CSock::CSock(int sockfd, unsigned int type) : m_sockfd(sockfd), m_type(type), m_block(false)
{
    CSockManager::Instance().insertValueBySock(this, SocketStatusPtr());
}

CSock::CSock(const CSock& other) : m_sockfd(other.m_sockfd), m_type(other.m_type), m_block(other.m_block)
{
    // The copy shares the original's descriptor, and so its status: whichever closes the
    // number first, the other's close is refused instead of closing a reused number.
    SocketStatusPtr status;
    if (CSockManager::Instance().findValueBySock(&other, status) == 0) {
        CSockManager::Instance().bindSock(this, status);
    }
}

CSock& CSock::operator=(const CSock& other)
{
    if (this == &other) return *this;
    m_sockfd = other.m_sockfd;
    m_type = other.m_type;
    m_block = other.m_block;
    SocketStatusPtr status;
    CSockManager::Instance().findValueBySock(&other, status);
    CSockManager::Instance().bindSock(this, status);
    return *this;
}

CSock::~CSock()
{
    real_Close();
    CSockManager::Instance().removeSock(this);
    m_sockfd = -1;
}

int CSock::doProxyRegister(CNetHandler*, CSock&, unsigned int, int)
{
    return 0;
}

int CSock::doProxyUnregisterSock(CNetHandler*, CSock&, unsigned int)
{
    return 0;
}

int CSock::doProxyRemoveSock(CNetHandler*, CSock&)
{
    return 0;
}

bool CSock::is_system_fd(int fd)
{
    // The base is asked every time: the transport decides it.
    return fd > 0 && fd < Mirt::getsockidbase();
}

unsigned int CSock::family_of(const CSockAddr& addr)
{
    if (addr.GetType() == SOCKADDR_TYPE_STORAGE) {
        return static_cast<const CSockAddrStorage&>(addr).GetInputType();
    }
    return addr.GetType();
}

void CSock::take_new_fd(int fd)
{
    auto status = std::make_shared<CSocketStatus>(fd);
    CSockManager::Instance().insertValueByFD(fd, status);
    CSockManager::Instance().bindSock(this, status);
    m_sockfd = fd;
}

bool CSock::status_invalid(const char* function)
{
    SocketStatusPtr status;
    if (CSockManager::Instance().findValueBySock(this, status) != 0 || status->IsValid()) return false;
    CVN_LOG(Fundel::LOG_WARN, "this:%p SockManager error! %s failed! sockfd: %d is INVALID\n", static_cast<void*>(this),
            function, m_sockfd);
    return true;
}

int CSock::Close()
{
    if (m_sockfd < 0) return -1;
    if (m_type == SOCK_TYPE_SSL || m_type == SOCK_TYPE_SSL_ASYNC) {
        // TLS sockets have a session to end first: their own classes close them.
        CVN_LOG(Fundel::LOG_ERROR, "this:%p CSock::Close ssl_socket fd: %d, Type: %u\n", static_cast<void*>(this),
                m_sockfd, m_type);
        return -1;
    }
    return real_Close();
}

int CSock::real_Close()
{
    if (m_sockfd < 0) return -1;
    CSockManager& manager = CSockManager::Instance();
    SocketStatusPtr status;
    const bool has_status = manager.findValueBySock(this, status) == 0;
    if (has_status && !status->IsValid()) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p SockManager error! %s failed! fd: %d is INVALID\n", static_cast<void*>(this),
                "CSock::real_Close", m_sockfd);
        return -1;
    }
    manager.removeFD(m_sockfd);
    manager.removeListenFD(m_sockfd);
    if (is_system_fd(m_sockfd)) {
        if (Platform::sock_close(m_sockfd) != 0) {
            const int err = Platform::last_error();
            CVN_LOG(Fundel::LOG_WARN, "this:%p CSock::Close failed! fd[%d], error:%d,%s\n", static_cast<void*>(this),
                    m_sockfd, err, SErrorText(err).text);
            m_sockfd = -1;
            return -1;
        }
    } else if (m_sockfd < Mirt::getsockidbase()) {
        return -1;  // descriptor 0 belongs to neither provider
    } else {
        Mirt::close(m_sockfd);
    }
    if (has_status) status->Invalidate();
    m_sockfd = -1;
    return 0;
}

int CSock::Attach(int sockfd)
{
    if (m_sockfd != -1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Attach sockfd failed, m_sockfd: %d is valid, sockfd :%d\n",
                static_cast<void*>(this), "CSock::Attach", m_sockfd, sockfd);
        return -1;
    }
    CSockManager& manager = CSockManager::Instance();
    SocketStatusPtr status;
    if (manager.findValueByFD(sockfd, status) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Externally created sockfd: %d\n", static_cast<void*>(this),
                "CSock::Attach", sockfd);
        status = std::make_shared<CSocketStatus>(sockfd);
        manager.insertValueByFD(sockfd, status);
    }
    manager.bindSock(this, status);
    m_sockfd = sockfd;

    // A pending error is reported, not fatal: the caller learns it at the first transfer.
    // A transport descriptor has no system error slot to ask.
    if (!is_system_fd(sockfd)) return set_block_opt() != 0 ? -1 : 0;
    int pending = -1;
    int len = sizeof pending;
    if (Platform::sock_getopt(sockfd, SOL_SOCKET, SO_ERROR, &pending, &len) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : getsockopt error, fd: %d, error:%d, %s\n", static_cast<void*>(this),
                "CSock::Attach", sockfd, err, SErrorText(err).text);
    }
    if (pending != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : error: %d\n", static_cast<void*>(this), "CSock::Attach", pending);
    }
    return set_block_opt() != 0 ? -1 : 0;
}

int CSock::Detach()
{
    CSockManager::Instance().bindSock(this, SocketStatusPtr());
    const int fd = m_sockfd;
    m_sockfd = -1;
    return fd;
}

void CSock::SetBlockOpt(bool block)
{
    const bool old = m_block;
    m_block = block;
    // A transport descriptor takes the flag at its next Attach, open or connect.
    if (!is_system_fd(m_sockfd) || old == block) return;
    if (set_block_opt() != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : SetBlockOpt failed! fd[%d], error:%d,%s\n", static_cast<void*>(this),
                "CSock::SetBlockOpt", m_sockfd, err, SErrorText(err).text);
    }
}

int CSock::set_block_opt()
{
    if (m_sockfd == -1) return 0;
    if (status_invalid("CSock::set_block_opt")) return -1;
    // Transport descriptors keep the flag in the transport (it applies to every call).
    if (!is_system_fd(m_sockfd)) {
        if (Mirt::setnonblocking(m_sockfd, !m_block) == 0) return 0;
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : set socket block failed! fd[%d], error:%d, %s\n",
                static_cast<void*>(this), "CSock::set_block_opt", m_sockfd, Mirt::getlasterror(),
                Mirt::getlasterror_desc());
        return -1;
    }
    if (Platform::sock_set_nonblocking(m_sockfd, !m_block) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : set socket block failed! fd[%d], error:%d,%s\n",
                static_cast<void*>(this), "CSock::set_block_opt", m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    return 0;
}

namespace {

// Fills `addr` from what getsockname/getpeername returned, by family and the object's
// own type: an IPv4 address only into IPv4 and storage objects, IPv6 only into IPv6 and
// storage objects.
int fill_address(CSockAddr* addr, const USockAddr& raw)
{
    const unsigned int type = addr->GetType();
    if (raw.base.sa_family == AF_INET && type == SOCKADDR_TYPE_IPV4) {
        return static_cast<CSockAddrIPv4*>(addr)->SetAddr(raw.v4);
    }
    if (raw.base.sa_family == AF_INET6 && type == SOCKADDR_TYPE_IPV6) {
        return static_cast<CSockAddrIPv6*>(addr)->SetAddr(&raw.v6);
    }
    if (type == SOCKADDR_TYPE_STORAGE) return static_cast<CSockAddrStorage*>(addr)->SetAddr(&raw.v4);
    return -1;
}

// The two address queries differ only in the system call and their log texts.
struct SAddressQuery {
    const char* function;
    const char* null_text;
    const char* system_text;
    const char* mirt_text;
    int (*system_call)(int, sockaddr*, int*);
    int (*mirt_call)(int, sockaddr*, int*);
};

}  // namespace

int CSock::query_address(CSockAddr* addr, bool peer)
{
    static const SAddressQuery kQueries[2] = {
        {"CSock::GetLocalAddr", "this:%p %s : Invalid local addresst type! fd:%d\n",
         "this:%p %s : getsockname failed! fd[%d], error:%d,%s\n",
         "this:%p %s :getsockname failed! fd[%d], mirt desc:%s, errno:%d, %s\n", &Platform::sock_local_address,
         &Mirt::getsockname},
        {"CSock::GetRemoteAddr", "this:%p %s : Invalid remote addresst type! fd:%d\n",
         "this:%p %s : getpeername failed! fd[%d], error:%d,%s\n",
         "this:%p %s :getpeername failed! fd[%d], %s, errno:%d, %s\n", &Platform::sock_peer_address,
         &Mirt::getpeername},
    };
    const SAddressQuery& q = kQueries[peer ? 1 : 0];
    if (!addr) {
        CVN_LOG(Fundel::LOG_WARN, q.null_text, static_cast<void*>(this), q.function, m_sockfd);
        return -1;
    }
    USockAddr raw{};
    int len = sizeof(sockaddr_in6);
    if (is_system_fd(m_sockfd)) {
        if (q.system_call(m_sockfd, &raw.base, &len) != 0) {
            const int err = Platform::last_error();
            CVN_LOG(Fundel::LOG_WARN, q.system_text, static_cast<void*>(this), q.function, m_sockfd, err,
                    SErrorText(err).text);
            return -1;
        }
    } else if (m_sockfd < Mirt::getsockidbase()) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s: invalid socket handle %d\n", static_cast<void*>(this), q.function,
                m_sockfd);
        return -1;
    } else if (q.mirt_call(m_sockfd, &raw.base, &len) != 0) {
        const int err = Mirt::getlasterror();
        CVN_LOG(Fundel::LOG_WARN, q.mirt_text, static_cast<void*>(this), q.function, m_sockfd,
                Mirt::getlasterror_desc(), err, SErrorText(err).text);
        return -1;
    }
    const int ret = fill_address(addr, raw);
    // A family the object cannot hold: said for the peer only, as it always was.
    if (ret != 0 && peer) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Unkonw Sockaddr Type[%u].\n", static_cast<void*>(this), q.function,
                addr->GetType());
    }
    return ret;
}

int CSock::GetLocalAddr(CSockAddr* addr)
{
    return query_address(addr, false);
}

int CSock::GetRemoteAddr(CSockAddr* addr)
{
    return query_address(addr, true);
}

int CSock::set_buffer(bool receive, unsigned int bytes, const char* function)
{
    return set_int_option(SOL_SOCKET, receive ? SO_RCVBUF : SO_SNDBUF, static_cast<int>(bytes), function);
}

int CSock::get_buffer(bool receive, const char* function)
{
    if (status_invalid(function)) return -1;
    int value = 0;
    int len = sizeof value;
    if (Platform::sock_getopt(m_sockfd, SOL_SOCKET, receive ? SO_RCVBUF : SO_SNDBUF, &value, &len) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : getsockopt failed! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                function, m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    return value;
}

int CSock::set_int_option(int level, int name, int value, const char* function)
{
    if (status_invalid(function)) return -1;
    if (Platform::sock_setopt(m_sockfd, level, name, &value, sizeof value) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : setsockopt failed! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                function, m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    return 0;
}

int CSock::set_qos(int dscp, const char* function)
{
    if (status_invalid(function)) return -1;
    if (dscp > 255) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SetSockQos failed! Invalid parameter: dscp:%d, fd:%d\n",
                static_cast<void*>(this), function, dscp, m_sockfd);
        return -1;
    }
    if (Platform::sock_setopt(m_sockfd, IPPROTO_IP, IP_TOS, &dscp, sizeof dscp) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : setsockopt failed! fd:%d, error:%d, %s\n", static_cast<void*>(this),
                function, m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    return 0;
}

int CSock::set_priority(int priority, const char* function)
{
    if (status_invalid(function)) return -1;
    const int ret = Platform::sock_set_priority(m_sockfd, priority);
    if (ret == Platform::SOCK_UNSUPPORTED) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Invalid setting, This feature is not supported on this platform! fd: %d\n",
                static_cast<void*>(this), function, m_sockfd);
        return -1;
    }
    if (ret != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : setsockopt failed! fd[%d], error:%d, %s\n", static_cast<void*>(this),
                function, m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    return 0;
}

int CSock::set_cloexec(bool on, const char* function)
{
    if (status_invalid(function)) return -1;
    const int ret = Platform::sock_set_cloexec(m_sockfd, on);
    if (ret == Platform::SOCK_UNSUPPORTED) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SetSockCLOEXEC is not support in win platform, fd[%d] !\n",
                static_cast<void*>(this), function, m_sockfd);
        return -1;
    }
    if (ret != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : set FD_CLOEXEC failed! fd[%d], error:%d, %s\n",
                static_cast<void*>(this), function, m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    return 0;
}

int CSock::wait_step(unsigned int want, int timeout_us, long long* last_wait_us, unsigned int* ready)
{
    // Only the previous wait's duration is subtracted, not the total: a wait that alone
    // lasted the whole time-out ends the loop with a zero-length look.
    long long limit = static_cast<long long>(timeout_us) - *last_wait_us;
    if (limit < 0) limit = 0;
    const long long start = Fundel::CTime::getCurrentMicroSecond();
    const int ret = Platform::sock_wait(m_sockfd, want, limit, ready);
    *last_wait_us = Fundel::CTime::getCurrentMicroSecond() - start;
    return ret;
}

}  // namespace Qelvar::Corvane
