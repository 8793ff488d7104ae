// Before anything that could pull in the transport's header (its syslog.h LOG_* clash).
#include "Fundel/LogDefs.h"

#include <Corvane/MirtStream.h>

#include <Corvane/SockAddr.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "Fundel/Time.h"
#include "Mirt/Mirt.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Socket/SockDetail.h"

namespace Qelvar::Corvane {

namespace {

constexpr int kMaxIoVec = 1024;
// The transport's default message size in live mode, and the largest it allows.
constexpr int kLivePayload = 1316;
constexpr int kMaxLivePayload = 1456;

bool transport_later(int err)
{
    return err == Mirt::MIRT_ERR_ASYNC_SEND || err == Mirt::MIRT_ERR_ASYNC_RECV || err == Mirt::MIRT_ERR_TIMEOUT;
}

// One send: the bytes, 0 when it would block, -1 with the transport's error in `*err`.
int send_outcome(int fd, const char* buf, int len, int* err)
{
    const int n = Mirt::send(fd, buf, len);
    if (n >= 0) return n;
    *err = Mirt::getlasterror();
    return transport_later(*err) ? 0 : -1;
}

// The socket broke. The transport reclaims a broken socket after a while and then no
// longer knows its id, though the descriptor is still open: that counts too.
bool broken(int fd)
{
    return Mirt::getsockstate(fd) >= Mirt::MIRT_STATE_BROKEN;
}

// The connection is gone: the thread's socket error then says connection reset, as
// for a TCP peer's close, and the caller logs nothing.
int connection_gone()
{
    Platform::set_last_error(Platform::err_connection_reset());
    return -1;
}

// One receive: the bytes, 0 for "nothing now", -1 for a connection that is gone, or -2
// for another failure with its error in `*err`.
int receive_outcome(int fd, char* buf, int len, int* err)
{
    const int n = Mirt::recv(fd, buf, len);
    if (n > 0) return n;
    if (n == 0) return 0;
    *err = Mirt::getlasterror();
    if (transport_later(*err)) return 0;
    const bool ended = *err == Mirt::MIRT_ERR_CONN_FAIL || *err == Mirt::MIRT_ERR_CONN_LOST || *err == Mirt::MIRT_ERR_NO_CONN;
    if (ended || broken(fd)) return connection_gone();
    return -2;
}

int clamp_len(unsigned int len)
{
    return len > static_cast<unsigned int>(INT_MAX) ? INT_MAX : static_cast<int>(len);
}

// The port of an address, host order, for log lines.
int port_of(const CSockAddr& addr)
{
    USockAddr raw{};
    if (!addr.GetAddr(&raw.base)) return 0;
    return ntohs(raw.v4.sin_port);  // same offset in both families
}

// A private epoll set holding one socket: the bounded waits of Send_n and Recv_n run
// outside the reactor, and the transport's sockets cannot go to the system's poller.
class CWaitSet {
public:
    CWaitSet(int fd, unsigned int events) : m_epid(Mirt::epoll_create())
    {
        const int word = static_cast<int>(events | Mirt::MIRT_EPOLL_ERR);
        if (m_epid >= 0 && Mirt::epoll_add_usock(m_epid, fd, &word) < 0) {
            Mirt::epoll_release(m_epid);
            m_epid = -1;
        }
    }
    ~CWaitSet()
    {
        if (m_epid >= 0) Mirt::epoll_release(m_epid);
    }
    CWaitSet(const CWaitSet&) = delete;
    CWaitSet& operator=(const CWaitSet&) = delete;

    bool ok() const { return m_epid >= 0; }

    // As CSock::wait_step: up to `timeout_us` less the previous wait's duration. 1 with
    // `*ready`, 0 on time-out, -1 on failure.
    int Wait(int timeout_us, long long* last_wait_us, unsigned int* ready)
    {
        long long limit = static_cast<long long>(timeout_us) - *last_wait_us;
        if (limit < 0) limit = 0;
        const long long start = Fundel::CTime::getCurrentMicroSecond();
        Mirt::SMirtEvent event{};
        const int n = Mirt::epoll_wait(m_epid, &event, 1, (limit + 999) / 1000);
        *last_wait_us = Fundel::CTime::getCurrentMicroSecond() - start;
        if (n < 0) return -1;
        if (n == 0) return 0;
        *ready = event.events;
        return 1;
    }

private:
    int m_epid;
};

}  // namespace

CMirtStream::CMirtStream() : CSock(-1, SOCK_TYPE_MIRT), m_block_applied(false)
{
}

bool CMirtStream::store_option(SOptions& options, EOption which, int value, const char* phrase, const void* self,
                               const char* function)
{
    switch (which) {
    case OPT_TRANS_TYPE:
        if (value != MIRT_LIVE && value != MIRT_FILE) break;
        options.trans_type = value;
        return true;
    case OPT_LATENCY:
        if (value < 0) break;
        options.latency_ms = value;
        return true;
    case OPT_PAYLOAD:
        if (value <= 0 || value > kMaxLivePayload) break;
        options.payload = value;
        return true;
    case OPT_PHRASE: {
        const std::size_t len = phrase ? std::strlen(phrase) : 0;
        if (len != 0 && (len < 10 || len >= sizeof options.phrase)) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Invalid parameter: pass phrase of %d characters (10 to 79)\n", self,
                    function, static_cast<int>(len));
            return false;
        }
        std::memset(options.phrase, 0, sizeof options.phrase);
        if (len != 0) std::memcpy(options.phrase, phrase, len);
        return true;
    }
    }
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Invalid parameter: %d\n", self, function, value);
    return false;
}

int CMirtStream::apply_option(int fd, const SOptions& options, EOption which, const void* self,
                              const char* function)
{
    int rc = 0;
    const char* what = "";
    switch (which) {
    case OPT_TRANS_TYPE:
        what = "transfer type";
        rc = Mirt::settranstype(fd, options.trans_type == MIRT_FILE ? Mirt::MIRT_TRANSTYPE_FILE
                                                                     : Mirt::MIRT_TRANSTYPE_LIVE);
        break;
    case OPT_PAYLOAD:
        what = "payload size";
        if (options.payload > 0) rc = Mirt::setpayloadsize(fd, options.payload);
        break;
    case OPT_LATENCY:
        what = "latency";
        if (options.latency_ms >= 0) rc = Mirt::setlatency(fd, options.latency_ms);
        break;
    case OPT_PHRASE:
        what = "pass phrase";
        rc = Mirt::setpassphrase(fd, options.phrase);
        break;
    }
    if (rc == 0) return 0;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : set %s failed! fd[%d], error:%d, %s\n", self, function, what, fd,
            Mirt::getlasterror(), Mirt::getlasterror_desc());
    return -1;
}

int CMirtStream::apply_options(int fd, const SOptions& options, const void* self, const char* function)
{
    // The transfer type resets the options that depend on it: it goes first.
    for (const EOption which : {OPT_TRANS_TYPE, OPT_PAYLOAD, OPT_LATENCY, OPT_PHRASE}) {
        if (apply_option(fd, options, which, self, function) != 0) return -1;
    }
    return 0;
}

int CMirtStream::bind_local(int fd, const CSockAddr& local, const void* self, const char* function)
{
    USockAddr raw{};
    local.GetAddr(&raw.base);
    if (Mirt::bind(fd, &raw.base, static_cast<int>(local.GetAddrLen())) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : bind failed! port[%d], fd[%d], error:%d, %s\n", self, function,
                port_of(local), fd, Mirt::getlasterror(), Mirt::getlasterror_desc());
        return -1;
    }
    return 0;
}

int CMirtStream::set_option(EOption which, int value, const char* phrase, const char* function)
{
    const SOptions before = m_options;
    if (!store_option(m_options, which, value, phrase, this, function)) return -1;
    // Without a socket the set waits for the next one. A new transfer type resets the
    // others: then all go again.
    if (m_sockfd == -1) return 0;
    const int rc = which == OPT_TRANS_TYPE ? apply_options(m_sockfd, m_options, this, function)
                                           : apply_option(m_sockfd, m_options, which, this, function);
    if (rc != 0) m_options = before;  // a connected socket refused it: what it has stays true
    return rc;
}

int CMirtStream::SetTransType(EMirtTransfer type)
{
    return set_option(OPT_TRANS_TYPE, type, nullptr, "CMirtStream::SetTransType");
}

int CMirtStream::SetLatency(int ms)
{
    return set_option(OPT_LATENCY, ms, nullptr, "CMirtStream::SetLatency");
}

int CMirtStream::SetPayloadSize(int bytes)
{
    return set_option(OPT_PAYLOAD, bytes, nullptr, "CMirtStream::SetPayloadSize");
}

int CMirtStream::SetPassphrase(const char* phrase)
{
    return set_option(OPT_PHRASE, 0, phrase, "CMirtStream::SetPassphrase");
}

int CMirtStream::message_limit() const
{
    if (m_options.trans_type == MIRT_FILE) return INT_MAX;
    return m_options.payload > 0 ? m_options.payload : kLivePayload;
}

bool CMirtStream::not_open(const char* function)
{
    if (m_sockfd != -1) return false;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket is invalid, please Open or Connect first, fd[%d]\n",
            static_cast<void*>(this), function, m_sockfd);
    return true;
}

int CMirtStream::sync_block()
{
    // SetBlockOpt leaves transport descriptors alone: a changed flag is pushed here.
    if (m_sockfd == -1 || m_block_applied == m_block) return 0;
    if (set_block_opt() != 0) return -1;
    m_block_applied = m_block;
    return 0;
}

// A new transport socket with the options and the blocking flag; on failure the object
// is left empty.
int CMirtStream::create_socket(const char* function)
{
    const int fd = Mirt::socket();
    if (fd < 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : create socket failed! error:%d, %s\n", static_cast<void*>(this),
                function, Mirt::getlasterror(), Mirt::getlasterror_desc());
        return -1;
    }
    take_new_fd(fd);
    m_block_applied = !m_block;  // a new socket takes the flag whatever it was
    if (apply_options(fd, m_options, this, function) != 0 || sync_block() != 0) {
        Close();
        return -1;
    }
    return 0;
}

int CMirtStream::adopt(int fd, const SOptions& options)
{
    take_new_fd(fd);
    m_block_applied = !m_block;
    m_options = options;
    return sync_block();
}

int CMirtStream::Open(const CSockAddr* local)
{
    static constexpr const char* kFunction = "CMirtStream::Open";
    if (local) {
        const unsigned int family = family_of(*local);
        if (family != SOCKADDR_TYPE_IPV4 && family != SOCKADDR_TYPE_IPV6) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SockAddr local type[%u] error\n", static_cast<void*>(this),
                    kFunction, family);
            return -1;
        }
    }
    if (m_sockfd != -1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket fd[%d] has opened, close old first\n", static_cast<void*>(this),
                kFunction, m_sockfd);
        Close();
    }
    if (create_socket(kFunction) != 0) return -1;
    if (local && bind_local(m_sockfd, *local, this, kFunction) != 0) {
        Close();
        return -1;
    }
    return 0;
}

int CMirtStream::Connect(const CSockAddr& remote, CSockAddr* local)
{
    static constexpr const char* kFunction = "CMirtStream::Connect";
    const unsigned int family = family_of(remote);
    if (family != SOCKADDR_TYPE_IPV4 && family != SOCKADDR_TYPE_IPV6) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SockAddr remote type[%u] error\n", static_cast<void*>(this), kFunction,
                family);
        return -1;
    }
    if (local && family_of(*local) != family) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SockAddr local type[%u] error\n", static_cast<void*>(this), kFunction,
                family_of(*local));
        return -1;
    }
    if (m_sockfd != -1) {
        // A socket from Open is used as it is; any other is replaced.
        const int state = Mirt::getsockstate(m_sockfd);
        if (state != Mirt::MIRT_STATE_INIT && state != Mirt::MIRT_STATE_OPENED) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : socket fd[%d] has opened, close old first\n",
                    static_cast<void*>(this), kFunction, m_sockfd);
            Close();
        }
    }
    if (m_sockfd == -1) {
        if (create_socket(kFunction) != 0) return -1;
    } else if (sync_block() != 0) {
        return -1;
    }
    if (local && bind_local(m_sockfd, *local, this, kFunction) != 0) return -1;  // the descriptor stays open
    USockAddr raw{};
    remote.GetAddr(&raw.base);
    if (Mirt::connect(m_sockfd, &raw.base, static_cast<int>(remote.GetAddrLen())) == 0) return 0;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : connect failed! port[%d], fd[%d], error:%d, %s\n",
            static_cast<void*>(this), kFunction, port_of(remote), m_sockfd, Mirt::getlasterror(),
            Mirt::getlasterror_desc());
    Close();
    return -1;
}

int CMirtStream::GetConnectStatus()
{
    static constexpr const char* kFunction = "CMirtStream::GetConnectStatus";
    if (not_open(kFunction)) return -2;
    const int state = Mirt::getsockstate(m_sockfd);
    if (state == Mirt::MIRT_STATE_CONNECTED) return 0;
    if (state == Mirt::MIRT_STATE_CONNECTING) return 1;
    if (state < 0) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : getsockstate error, fd[%d], error:%d, %s\n", static_cast<void*>(this),
                kFunction, m_sockfd, Mirt::getlasterror(), Mirt::getlasterror_desc());
    } else {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : not connected, fd[%d], state:%d\n", static_cast<void*>(this), kFunction,
                m_sockfd, state);
    }
    return -2;
}

int CMirtStream::Send(const char* buf, unsigned int len)
{
    static constexpr const char* kFunction = "CMirtStream::Send";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : send failed! buf[%p], len[%d], fd[%d]\n", static_cast<void*>(this),
                kFunction, static_cast<const void*>(buf), static_cast<int>(len), m_sockfd);
        return -1;
    }
    if (not_open(kFunction) || sync_block() != 0) return -1;
    int err = 0;
    const int n = send_outcome(m_sockfd, buf, std::min(clamp_len(len), message_limit()), &err);
    if (n >= 0) return n;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : send failed! buf[%p], len[%u], fd[%d], error:%d, %s\n",
            static_cast<void*>(this), kFunction, static_cast<const void*>(buf), len, m_sockfd, err,
            Mirt::getlasterror_desc());
    return -1;
}

int CMirtStream::WriteV(const iovec* vec, int count)
{
    static constexpr const char* kFunction = "CMirtStream::WriteV";
    if (!vec || count < 1) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : writev failed! iovec[%p], count[%d], fd[%d]\n",
                static_cast<void*>(this), kFunction, static_cast<const void*>(vec), count, m_sockfd);
        return -1;
    }
    if (not_open(kFunction) || sync_block() != 0) return -1;
    if (count > kMaxIoVec) count = kMaxIoVec;
    int err = 0;
    int total = 0;
    if (m_options.trans_type != MIRT_FILE) {
        // The transport gathers nothing: the bytes are copied into messages of the payload
        // size, sent in turn until all are gone or the transport would block, so that a
        // writer sees what a stream socket would take now, not one message a call.
        char message[kMaxLivePayload];
        const int limit = std::min(message_limit(), kMaxLivePayload);
        int index = 0;
        std::size_t offset = 0;
        for (;;) {
            int fill = 0;
            while (index < count && fill < limit) {
                const std::size_t take = std::min(vec[index].iov_len - offset, static_cast<std::size_t>(limit - fill));
                if (take > 0) std::memcpy(message + fill, static_cast<const char*>(vec[index].iov_base) + offset, take);
                fill += static_cast<int>(take);
                offset += take;
                if (offset == vec[index].iov_len) {
                    ++index;
                    offset = 0;
                }
            }
            if (fill == 0) break;
            const int n = send_outcome(m_sockfd, message, fill, &err);
            if (n < 0) {
                // What went out before stands; the failure shows at the next call.
                if (total == 0) total = -1;
                break;
            }
            total += n;
            if (n < fill || total > INT_MAX - limit) break;
        }
    } else {
        // A byte stream: element after element, until one is not taken whole.
        for (int i = 0; i < count; ++i) {
            const int len = static_cast<int>(std::min<std::size_t>(vec[i].iov_len, INT_MAX));
            if (len == 0) continue;
            const int n = send_outcome(m_sockfd, static_cast<const char*>(vec[i].iov_base), len, &err);
            if (n < 0) {
                // What went out before stands; the failure shows at the next call.
                if (total == 0) total = -1;
                break;
            }
            total += n;
            if (n < len || total >= INT_MAX - len) break;
        }
    }
    if (total >= 0) return total;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : send failed! iovec[%p], count:%d, fd[%d], error:%d, %s\n",
            static_cast<void*>(this), kFunction, static_cast<const void*>(vec), count, m_sockfd, err,
            Mirt::getlasterror_desc());
    return -1;
}

int CMirtStream::Recv(char* buf, unsigned int len)
{
    static constexpr const char* kFunction = "CMirtStream::Recv";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : recv failed! buf[%p], len[%d], fd[%d]\n", static_cast<void*>(this),
                kFunction, static_cast<const void*>(buf), static_cast<int>(len), m_sockfd);
        return -1;
    }
    if (not_open(kFunction) || sync_block() != 0) return -1;
    int err = 0;
    const int n = receive_outcome(m_sockfd, buf, clamp_len(len), &err);
    if (n != -2) return n;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : recv failed, buf[%p], len[%u], fd[%d], error:%d, %s\n",
            static_cast<void*>(this), kFunction, static_cast<const void*>(buf), len, m_sockfd, err,
            Mirt::getlasterror_desc());
    return -1;
}

int CMirtStream::Send_n(const char* buf, unsigned int len, int timeout_us)
{
    static constexpr const char* kFunction = "CMirtStream::Send_n";
    const int first = Send(buf, len);
    if (first < 0 || timeout_us == 0) return first;
    unsigned int sent = static_cast<unsigned int>(first);
    if (sent >= len) return static_cast<int>(sent);
    CWaitSet set(m_sockfd, Mirt::MIRT_EPOLL_OUT);
    if (!set.ok()) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send_n wait set failed, fd[%d], error:%d, %s\n",
                static_cast<void*>(this), kFunction, m_sockfd, Mirt::getlasterror(), Mirt::getlasterror_desc());
        return -1;
    }
    long long last_wait_us = 0;
    while (sent < len) {
        unsigned int ready = 0;
        const int w = set.Wait(timeout_us, &last_wait_us, &ready);
        if (w < 0) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send_n wait failed, fd[%d], error:%d, %s\n",
                    static_cast<void*>(this), kFunction, m_sockfd, Mirt::getlasterror(), Mirt::getlasterror_desc());
            return -1;
        }
        if (w == 0) break;
        if (!(ready & Mirt::MIRT_EPOLL_OUT)) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send_n error, socket exception! fd[%d], state:%d\n",
                    static_cast<void*>(this), kFunction, m_sockfd, Mirt::getsockstate(m_sockfd));
            return -1;
        }
        int err = 0;
        const int n = send_outcome(m_sockfd, buf + sent, std::min(clamp_len(len - sent), message_limit()), &err);
        if (n < 0) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : send error, fd[%d], error:%d, %s\n", static_cast<void*>(this),
                    kFunction, m_sockfd, err, Mirt::getlasterror_desc());
            return -1;
        }
        sent += static_cast<unsigned int>(n);
    }
    return static_cast<int>(sent);
}

int CMirtStream::Recv_n(char* buf, unsigned int len, int timeout_us)
{
    static constexpr const char* kFunction = "CMirtStream::Recv_n";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : recv_n failed! buf[%p], len[%d], timeout:%d, fd[%d]\n",
                static_cast<void*>(this), kFunction, static_cast<const void*>(buf), static_cast<int>(len), timeout_us,
                m_sockfd);
        return -1;
    }
    if (timeout_us == 0) return 0;
    if (not_open(kFunction) || sync_block() != 0) return -1;
    // A socket that broke before the wait began is never reported by it.
    if (broken(m_sockfd)) return connection_gone();
    CWaitSet set(m_sockfd, Mirt::MIRT_EPOLL_IN);
    if (!set.ok()) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n wait set failed, fd[%d], error:%d, %s\n",
                static_cast<void*>(this), kFunction, m_sockfd, Mirt::getlasterror(), Mirt::getlasterror_desc());
        return -1;
    }
    long long last_wait_us = 0;
    for (;;) {
        unsigned int ready = 0;
        const int w = set.Wait(timeout_us, &last_wait_us, &ready);
        if (w < 0) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n wait failed, fd[%d], error:%d, %s\n",
                    static_cast<void*>(this), kFunction, m_sockfd, Mirt::getlasterror(), Mirt::getlasterror_desc());
            return -1;
        }
        if (w == 0) return broken(m_sockfd) ? connection_gone() : 0;
        // Readable or failed alike: the receive tells a gone connection from the rest.
        int err = 0;
        const int n = receive_outcome(m_sockfd, buf, clamp_len(len), &err);
        if (n == 0) continue;  // nothing after all: wait again
        if (n != -2) return n;
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : recv error fd[%d], buf[%p], len[%u], error:%d, %s\n",
                static_cast<void*>(this), kFunction, m_sockfd, static_cast<const void*>(buf), len, err,
                Mirt::getlasterror_desc());
        return -1;
    }
}

}  // namespace Qelvar::Corvane
