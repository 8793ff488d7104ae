#include <Corvane/SockStream.h>

#include <Corvane/SockAddr.h>

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Platform/SockTypes.h"
#include "Socket/SockDetail.h"
#include "Socket/SockManager.h"

namespace Qelvar::Corvane {

namespace {

constexpr int kMaxIoVec = 1024;

// The error that an exceptional condition left on the socket (its SO_ERROR), for the
// log line: the thread's last error says nothing about it.
int pending_error(int fd)
{
    int err = 0;
    int len = sizeof err;
    if (Platform::sock_getopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return Platform::last_error();
    return err;
}

// What one receive returned: the byte count when positive, 0 for "nothing now", -1 for
// a closed or reset peer (the thread's error then says connection reset, and nothing
// is logged), or -2 for another failure, with its error in `*err` for the caller's line.
long receive_outcome(long n, int* err)
{
    if (n > 0) return n;
    if (n == 0) {
        // The peer's orderly close reads as a reset: the caller sees one failure kind.
        Platform::set_last_error(Platform::err_connection_reset());
        return -1;
    }
    *err = Platform::last_error();
    if (try_later(*err)) return 0;
    return Platform::is_connection_reset(*err) ? -1 : -2;
}

int system_family(unsigned int family)
{
    return family == SOCKADDR_TYPE_IPV4 ? AF_INET : AF_INET6;
}

// The port of a local address, host order, for log lines.
int port_of(const CSockAddr& addr)
{
    sockaddr_in6 raw{};
    if (!addr.GetAddr(reinterpret_cast<sockaddr*>(&raw))) return 0;
    return ntohs(raw.sin6_port);  // same offset in both families
}

}  // namespace

CSockStream::CSockStream() : CSock(-1, SOCK_TYPE_STREAM)
{
}

// Steps 1 to 4 of the connect operations: family checks, replacing a held descriptor,
// creating the new one. 0, or -1 with the object empty.
int CSockStream::open_for(const CSockAddr& remote, const CSockAddr* local, const char* function)
{
    const unsigned int family = family_of(remote);
    if (family != SOCKADDR_TYPE_IPV4 && family != SOCKADDR_TYPE_IPV6) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SockAddr remote type[%u] error\n", static_cast<void*>(this), function,
                family);
        return -1;
    }
    if (local && family_of(*local) != family) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SockAddr local type[%u] error\n", static_cast<void*>(this), function,
                family_of(*local));
        return -1;
    }
    if (m_sockfd != -1) {
        // Closed with the plain system call: the manager's records of the old number are
        // left as they are, deliberately.
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket fd[%d] has opened, close old first\n", static_cast<void*>(this),
                function, m_sockfd);
        Platform::sock_close(m_sockfd);
        m_sockfd = -1;
    }
    return create_socket(family, function);
}

int CSockStream::create_socket(unsigned int family, const char* function)
{
    const int fd = Platform::sock_open(system_family(family), SOCK_STREAM, 0);
    if (fd < 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : create socket failed! error:%d, %s\n", static_cast<void*>(this),
                function, err, SErrorText(err).text);
        return -1;
    }
    take_new_fd(fd);
    return 0;
}

int CSockStream::bind_local(const CSockAddr& local, const char* function)
{
    sockaddr_in6 raw{};
    local.GetAddr(reinterpret_cast<sockaddr*>(&raw));
    if (Platform::sock_bind(m_sockfd, reinterpret_cast<sockaddr*>(&raw), static_cast<int>(local.GetAddrLen())) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : bind failed! port[%d], fd[%d], error:%d, %s\n",
                static_cast<void*>(this), function, port_of(local), m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    return 0;
}

// The connect call shared by Connect, synConnect and ConnectEx: a connect under way
// (non-blocking) is success; any other failure closes and empties the object.
int CSockStream::connect_to(const CSockAddr& remote, bool tolerate_pending, const char* function)
{
    sockaddr_in6 raw{};
    remote.GetAddr(reinterpret_cast<sockaddr*>(&raw));
    if (Platform::sock_connect(m_sockfd, reinterpret_cast<sockaddr*>(&raw), static_cast<int>(remote.GetAddrLen())) ==
        0) {
        return 0;
    }
    const int err = Platform::last_error();
    if (tolerate_pending &&
        (Platform::is_already(err) || Platform::is_would_block(err) || Platform::is_in_progress(err))) {
        return 0;
    }
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : connect faield! fd[%d], error:%d, %s\n", static_cast<void*>(this), function,
            m_sockfd, err, SErrorText(err).text);
    Close();
    m_sockfd = -1;
    return -1;
}

int CSockStream::Connect(const CSockAddr& remote, CSockAddr* local)
{
    if (open_for(remote, local, "CSockStream::Connect") != 0) return -1;
    if (set_block_opt() != 0) return -1;
    if (local && bind_local(*local, "CSockStream::Connect") != 0) return -1;  // the descriptor stays open
    return connect_to(remote, true, "CSockStream::Connect");
}

int CSockStream::set_io_timeouts(int ms, const char* function)
{
    static constexpr const char* kFormats[2] = {
        "this:%p %s :Set SO_RCVTIMEO failed! fd[%d], send_t[%d], recv_t[%d], errno:%d,%s\n",
        "this:%p %s :Set SO_SNDTIMEO failed! fd[%d], send_t[%d], recv_t[%d], errno:%d,%s\n"};
    for (int i = 0; i < 2; ++i) {
        if (Platform::sock_set_io_timeout(m_sockfd, i == 0, ms) != 0) {
            const int err = Platform::last_error();
            CVN_LOG(Fundel::LOG_WARN, kFormats[i], static_cast<void*>(this), function, m_sockfd, ms, ms, err,
                    SErrorText(err).text);
            return -1;
        }
    }
    return 0;
}

int CSockStream::synConnect(const CSockAddr& remote, CSockAddr* local, int timeout_ms)
{
    static constexpr const char* kFunction = "CSockStream::synConnect";
    if (open_for(remote, local, kFunction) != 0) return -1;
    const bool was_blocking = m_block;
    if (!was_blocking) SetBlockOpt(true);
    if (m_block) {
        CVN_LOG(Fundel::LOG_INFO, "this:%p %s : The sockfd: %d is block! Set TCP connection timeout to: %dms\n",
                static_cast<void*>(this), kFunction, m_sockfd, timeout_ms);
        if (set_io_timeouts(timeout_ms, kFunction) != 0) return -1;
    }
    if (local && bind_local(*local, kFunction) != 0) return -1;
    if (connect_to(remote, false, kFunction) != 0) return -1;
    if (!was_blocking) SetBlockOpt(false);
    return set_io_timeouts(0, kFunction);
}

int CSockStream::OpenEx(CSockAddr* local)
{
    static constexpr const char* kFunction = "CSockStream::OpenEx";
    if (!local) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : local addr is NULL!\n", static_cast<void*>(this), kFunction);
        return -1;
    }
    const unsigned int family = family_of(*local);
    if (family != SOCKADDR_TYPE_IPV4 && family != SOCKADDR_TYPE_IPV6) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SockAddr local type[%u] error\n", static_cast<void*>(this), kFunction,
                family);
        return -1;
    }
    if (m_sockfd != -1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket fd[%d] has opened, close old first\n", static_cast<void*>(this),
                kFunction, m_sockfd);
        return -1;
    }
    if (create_socket(family, kFunction) != 0) return -1;
    if (bind_local(*local, kFunction) != 0) {
        Close();
        m_sockfd = -1;
        return -1;
    }
    return 0;
}

int CSockStream::ConnectEx(const CSockAddr& remote, bool, int)
{
    static constexpr const char* kFunction = "CSockStream::ConnectEx";
    if (m_sockfd == -1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket is invalid  please Open  first fd[%d] .\n",
                static_cast<void*>(this), kFunction, m_sockfd);
        return -1;
    }
    const unsigned int family = family_of(remote);
    if (family != SOCKADDR_TYPE_IPV4 && family != SOCKADDR_TYPE_IPV6) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SockAddr remote type[%u] error\n", static_cast<void*>(this), kFunction,
                family);
        Close();
        m_sockfd = -1;
        return -1;
    }
    if (set_block_opt() != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Set block opt failed! \n", static_cast<void*>(this), kFunction);
        return -1;
    }
    return connect_to(remote, true, kFunction);
}

int CSockStream::GetConnectStatus()
{
    int pending = -1;
    int len = sizeof pending;
    if (Platform::sock_getopt(m_sockfd, SOL_SOCKET, SO_ERROR, &pending, &len) != 0) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : getsockopt error, fd[%d], error:%d, %s\n", static_cast<void*>(this),
                "CSockStream::GetConnectStatus", m_sockfd, err, SErrorText(err).text);
        return -2;
    }
    if (pending != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : error: %d\n", static_cast<void*>(this), "CSockStream::GetConnectStatus",
                pending);
        return -2;
    }
    return 0;
}

int CSockStream::Send(const char* buf, unsigned int len)
{
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : send failed! buf[%p], len[%d], fd[%d]\n", static_cast<void*>(this),
                "CSockStream::Send", static_cast<const void*>(buf), static_cast<int>(len), m_sockfd);
        return -1;
    }
    const long n = Platform::sock_send(m_sockfd, buf, len);
    if (n >= 0) return static_cast<int>(n);
    const int err = Platform::last_error();
    if (try_later(err)) return 0;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : send failed! buf[%p], len[%u], fd[%d], error:%d, %s\n",
            static_cast<void*>(this), "CSockStream::Send", static_cast<const void*>(buf), len, m_sockfd, err,
            SErrorText(err).text);
    return -1;
}

int CSockStream::WriteV(const iovec* vec, int count)
{
    if (!vec || count < 1) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : writev failed! iovec[%p], count[%d], fd[%d]\n",
                static_cast<void*>(this), "CSockStream::WriteV", static_cast<const void*>(vec), count, m_sockfd);
        return -1;
    }
    if (count > kMaxIoVec) count = kMaxIoVec;
    const long n = Platform::sock_sendv(m_sockfd, vec, count, nullptr, 0);
    if (n >= 0) return static_cast<int>(n);
    const int err = Platform::last_error();
    if (try_later(err)) return 0;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : send failed! iovec[%p], count:%d, fd[%d], error:%d, %s\n",
            static_cast<void*>(this), "CSockStream::WriteV", static_cast<const void*>(vec), count, m_sockfd, err,
            SErrorText(err).text);
    return -1;
}

int CSockStream::Recv(char* buf, unsigned int len)
{
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : recv failed! buf[%p], len[%d], fd[%d]\n", static_cast<void*>(this),
                "CSockStream::Recv", static_cast<const void*>(buf), static_cast<int>(len), m_sockfd);
        return -1;
    }
    int err = 0;
    const long n = receive_outcome(Platform::sock_recv(m_sockfd, buf, len), &err);
    if (n != -2) return static_cast<int>(n);
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : recv failed, buf[%p], len[%u], fd[%d], error:%d, %s\n",
            static_cast<void*>(this), "CSockStream::Recv", static_cast<const void*>(buf), len, m_sockfd, err,
            SErrorText(err).text);
    return -1;
}

int CSockStream::Send_n(const char* buf, unsigned int len, int timeout_us)
{
    static constexpr const char* kFunction = "CSockStream::Send_n";
    const int first = Send(buf, len);
    if (first < 0 || timeout_us == 0) return first;
    unsigned int sent = static_cast<unsigned int>(first);
    long long last_wait_us = 0;
    while (sent < len) {
        unsigned int ready = 0;
        const int w = wait_step(Platform::SOCK_WRITABLE, timeout_us, &last_wait_us, &ready);
        if (w < 0) {
            const int err = Platform::last_error();
            if (Platform::is_interrupted(err)) continue;
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send_n select failed, fd[%d], error:%d, %s\n",
                    static_cast<void*>(this), kFunction, m_sockfd, err, SErrorText(err).text);
            return -1;
        }
        if (w == 0) return static_cast<int>(sent);
        if (ready & Platform::SOCK_EXCEPTION) {
            const int err = pending_error(m_sockfd);
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send_n error, socket exception! fd[%d], error:%d, %s\n",
                    static_cast<void*>(this), kFunction, m_sockfd, err, SErrorText(err).text);
            return -1;
        }
        if (!(ready & Platform::SOCK_WRITABLE)) return -1;
        const long n = Platform::sock_send(m_sockfd, buf + sent, len - sent);
        if (n >= 0) {
            sent += static_cast<unsigned int>(n);
            continue;
        }
        const int err = Platform::last_error();
        if (try_later(err)) continue;
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : send error, fd[%d], error:%d, %s\n", static_cast<void*>(this),
                kFunction, m_sockfd, err, SErrorText(err).text);
        return -1;
    }
    return static_cast<int>(sent);
}

int CSockStream::Recv_n(char* buf, unsigned int len, int timeout_us)
{
    static constexpr const char* kFunction = "CSockStream::Recv_n";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : recv_n failed! buf[%p], len[%d], timeout:%d, fd[%d]\n",
                static_cast<void*>(this), kFunction, static_cast<const void*>(buf), static_cast<int>(len), timeout_us,
                m_sockfd);
        return -1;
    }
    if (timeout_us == 0) return 0;
    long long last_wait_us = 0;
    for (;;) {
        unsigned int ready = 0;
        const int w = wait_step(Platform::SOCK_READABLE, timeout_us, &last_wait_us, &ready);
        if (w < 0) {
            const int err = Platform::last_error();
            if (Platform::is_interrupted(err)) continue;
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n select failed, fd[%d], error:%d, %s\n",
                    static_cast<void*>(this), kFunction, m_sockfd, err, SErrorText(err).text);
            return -1;
        }
        if (w == 0) return 0;
        // A closed or reset peer is readable too: the receive below tells it apart from
        // an exceptional condition such as out-of-band data.
        if ((ready & Platform::SOCK_EXCEPTION) && !(ready & Platform::SOCK_READABLE)) {
            const int err = pending_error(m_sockfd);
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n error, socket exception, fd[%d], error:%d, %s\n",
                    static_cast<void*>(this), kFunction, m_sockfd, err, SErrorText(err).text);
            return -1;
        }
        if (!(ready & Platform::SOCK_READABLE)) return -1;
        int err = 0;
        const long n = receive_outcome(Platform::sock_recv(m_sockfd, buf, len), &err);
        if (n == 0) continue;  // nothing after all: wait again
        if (n != -2) return static_cast<int>(n);
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : recv error fd[%d], buf[%p], len[%u], error:%d, %s\n",
                static_cast<void*>(this), kFunction, m_sockfd, static_cast<const void*>(buf), len, err,
                SErrorText(err).text);
        return -1;
    }
}

int CSockStream::SetSockRecvBuf(unsigned int bytes)
{
    return set_buffer(true, bytes, "CSockStream::SetSockRecvBuf");
}

int CSockStream::GetSockRecvBuf()
{
    return get_buffer(true, "CSockStream::GetSockRecvBuf");
}

int CSockStream::SetSockSendBuf(unsigned int bytes)
{
    return set_buffer(false, bytes, "CSockStream::SetSockSendBuf");
}

int CSockStream::GetSockSendBuf()
{
    return get_buffer(false, "CSockStream::GetSockSendBuf");
}

int CSockStream::SetSockKeepAlive(bool on)
{
    return set_int_option(SOL_SOCKET, SO_KEEPALIVE, on ? 1 : 0, "CSockStream::SetSockKeepAlive");
}

int CSockStream::SetSockNoDelay(bool on)
{
    return set_int_option(IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0, "CSockStream::SetSockNoDelay");
}

int CSockStream::SetSockQos(int dscp)
{
    return set_qos(dscp, "CSockStream::SetSockQos");
}

int CSockStream::SetSockPriority(int priority)
{
    return set_priority(priority, "CSockStream::SetSockPriority");
}

int CSockStream::SetSockCLOEXEC(bool on)
{
    return set_cloexec(on, "CSockStream::SetSockCLOEXEC");
}

}  // namespace Qelvar::Corvane
