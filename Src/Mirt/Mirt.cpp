#include "Mirt/Mirt.h"

#include <Corvane/Config.h>

#if CORVANE_HAVE_SRT

// Before <srt/srt.h>: it pulls in <syslog.h>, whose LOG_* macros would clash with the
// level names of this header.
#include "Fundel/LogDefs.h"

#include <srt/srt.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#endif

namespace Qelvar::Mirt {

namespace {

// Above every system descriptor on both systems (Linux caps descriptors far lower;
// Windows socket handles are multiples of 4 below 2^24 in practice).
constexpr int kSockIdBase = 1 << 30;

// 0: the last error of this thread is the transport's; otherwise the facade's own.
thread_local int t_own_error = 0;

int refuse(int code)
{
    t_own_error = code;
    return -1;
}

const char* own_error_text(int code)
{
    switch (code) {
    case MIRT_ERR_NO_TRANSPORT:
        return "no reliable-UDP transport in this build";
    case MIRT_ERR_BAD_DESCRIPTOR:
        return "bad descriptor: not an open reliable-UDP descriptor";
    case MIRT_ERR_NOT_STARTED:
        return "reliable-UDP transport not started";
    case MIRT_ERR_INVALID_ARG:
        return "invalid argument";
    case MIRT_ERR_TOO_MANY:
        return "too many reliable-UDP descriptors";
    default:
        return "no error";
    }
}

}  // namespace

int getsockidbase()
{
    return kSockIdBase;
}

#if CORVANE_HAVE_SRT

// The header's numbers are the transport's own.
constexpr bool same(int ours, int theirs)
{
    return ours == theirs;
}
static_assert(same(MIRT_EPOLL_IN, SRT_EPOLL_IN) && same(MIRT_EPOLL_OUT, SRT_EPOLL_OUT) &&
              same(MIRT_EPOLL_ERR, SRT_EPOLL_ERR));
static_assert(same(MIRT_STATE_INIT, SRTS_INIT) && same(MIRT_STATE_CONNECTED, SRTS_CONNECTED) &&
              same(MIRT_STATE_NONEXIST, SRTS_NONEXIST));
static_assert(same(MIRT_TRANSTYPE_LIVE, SRTT_LIVE) && same(MIRT_TRANSTYPE_FILE, SRTT_FILE));
static_assert(same(MIRT_ERR_BAD_DESCRIPTOR, SRT_EINVSOCK) && same(MIRT_ERR_NOT_STARTED, SRT_EINVOP) &&
              same(MIRT_ERR_INVALID_ARG, SRT_EINVPARAM) && same(MIRT_ERR_TOO_MANY, SRT_ERESOURCE));
static_assert(same(MIRT_ERR_CONN_FAIL, SRT_ECONNFAIL) && same(MIRT_ERR_CONN_LOST, SRT_ECONNLOST) &&
              same(MIRT_ERR_NO_CONN, SRT_ENOCONN) && same(MIRT_ERR_ASYNC_SEND, SRT_EASYNCSND) &&
              same(MIRT_ERR_ASYNC_RECV, SRT_EASYNCRCV) && same(MIRT_ERR_TIMEOUT, SRT_ETIMEOUT));

namespace {

// Far more than a process keeps open, and base + slot stays far below INT_MAX.
constexpr int kMaxSlots = 1 << 20;

// The next error this thread reads comes from the transport.
void from_transport()
{
    t_own_error = 0;
}

// Descriptor slots mapped to the transport's sockets, and the sockets each epoll set
// holds (the transport does not tell whether an update added a socket).
class CSlotTable {
public:
    // Serialises startup() and cleanup(), which are not to hold m_mutex while the
    // transport starts or stops.
    std::mutex m_start_mutex;
    int m_start_count = 0;

    std::mutex m_mutex;

    // Under m_mutex: the socket of an open descriptor, or SRT_INVALID_SOCK refused.
    SRTSOCKET find_locked(int fd)
    {
        const long long slot = static_cast<long long>(fd) - kSockIdBase;
        if (slot < 0 || slot >= static_cast<long long>(m_slots.size()) || m_slots[slot].state != SLOT_OPEN) {
            refuse(MIRT_ERR_BAD_DESCRIPTOR);
            return SRT_INVALID_SOCK;
        }
        from_transport();
        return m_slots[slot].sock;
    }

    SRTSOCKET Find(int fd)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return find_locked(fd);
    }

    // A descriptor for a socket the transport just made; -1 (the socket is closed) when
    // none can be given.
    int Insert(SRTSOCKET sock)
    {
        int slot = -1;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_started) {
                refuse(MIRT_ERR_NOT_STARTED);
            } else if (!m_free.empty()) {
                // Oldest freed first: a number comes back as late as possible, so a stale
                // copy of it is refused for as long as possible.
                slot = m_free.front();
                m_free.pop_front();
            } else if (m_slots.size() < static_cast<std::size_t>(kMaxSlots)) {
                slot = static_cast<int>(m_slots.size());
                m_slots.push_back(SSlot{});
            } else {
                refuse(MIRT_ERR_TOO_MANY);
            }
            if (slot >= 0) {
                m_slots[slot] = SSlot{sock, SLOT_OPEN};
                m_by_sock[sock] = slot;
                return kSockIdBase + slot;
            }
        }
        srt_close(sock);
        return -1;
    }

    // Refuses the descriptor from now on and takes its socket out of every epoll set;
    // the socket to close, or SRT_INVALID_SOCK when refused. The slot stays taken until
    // EndClose().
    SRTSOCKET BeginClose(int fd)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const SRTSOCKET sock = find_locked(fd);
        if (sock == SRT_INVALID_SOCK) return sock;
        m_slots[fd - kSockIdBase].state = SLOT_CLOSING;
        m_by_sock.erase(sock);
        for (auto& [epid, members] : m_epolls) {
            if (members.erase(sock) != 0) srt_epoll_remove_usock(epid, sock);
        }
        for (auto& [epid, waiting] : m_waiting) waiting.erase(sock);
        prune_waiting_locked();
        if (m_listening.erase(sock) != 0) srt_epoll_remove_usock(m_listeners, sock);
        from_transport();
        return sock;
    }

    void EndClose(int fd, SRTSOCKET sock)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        SSlot& slot = m_slots[fd - kSockIdBase];
        // cleanup() leaves closing slots to their closer.
        if (slot.state != SLOT_CLOSING || slot.sock != sock) return;
        slot = SSlot{};
        m_free.push_back(fd - kSockIdBase);
    }

    // The descriptor of a socket, or -1 once it is being closed.
    int fd_of_locked(SRTSOCKET sock) const
    {
        const auto it = m_by_sock.find(sock);
        return it == m_by_sock.end() ? -1 : kSockIdBase + it->second;
    }

    void SetStarted(bool started)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_started = started;
        if (started) return;
        // The transport closes every socket and set as it stops.
        for (std::size_t slot = 0; slot < m_slots.size(); ++slot) {
            if (m_slots[slot].state != SLOT_OPEN) continue;
            m_slots[slot] = SSlot{};
            m_free.push_back(static_cast<int>(slot));
        }
        m_by_sock.clear();
        m_epolls.clear();
        m_listeners = -1;
        m_listening.clear();
        m_waiting.clear();
        prune_waiting_locked();
    }

    bool started_locked() const { return m_started; }

    // Under m_mutex: membership of the sockets in each epoll set.
    std::unordered_map<int, std::unordered_set<SRTSOCKET>> m_epolls;

    // Under m_mutex. The transport reports a pending connection only to the sets a
    // listener was in when it came: one that joins a set later (as the dispatcher puts a
    // socket back after its callback) is not reported while it waits. So every listener
    // stays in m_listeners from listen() to its close, where that shows, and a listener
    // found ready there as it joins a set waits in m_waiting until that set's next wait.
    int m_listeners = -1;
    std::unordered_set<SRTSOCKET> m_listening;
    std::unordered_map<int, std::unordered_set<SRTSOCKET>> m_waiting;
    // Whether m_waiting holds anything: read without the lock, so that a wait with no
    // waiting listener (nearly every wait) takes the lock only after the transport's.
    std::atomic<bool> m_any_waiting{false};

    /// Drops empty entries of m_waiting and publishes whether any is left.
    void prune_waiting_locked()
    {
        std::erase_if(m_waiting, [](const auto& entry) { return entry.second.empty(); });
        m_any_waiting.store(!m_waiting.empty(), std::memory_order_release);
    }

    void set_waiting_locked(int epid, SRTSOCKET sock, bool waiting)
    {
        if (waiting) {
            m_waiting[epid].insert(sock);
        } else if (const auto it = m_waiting.find(epid); it != m_waiting.end()) {
            it->second.erase(sock);
        }
        prune_waiting_locked();
    }

    bool add_listener_locked(SRTSOCKET sock)
    {
        if (m_listeners < 0) {
            m_listeners = srt_epoll_create();
            if (m_listeners < 0) return false;
            srt_epoll_set(m_listeners, SRT_EPOLL_ENABLE_EMPTY);
        }
        const int in = SRT_EPOLL_IN;
        if (srt_epoll_add_usock(m_listeners, sock, &in) == SRT_ERROR) return false;
        m_listening.insert(sock);
        return true;
    }

    bool pending_locked(SRTSOCKET sock)
    {
        if (m_listening.count(sock) == 0) return false;
        std::vector<SRT_EPOLL_EVENT> ready(m_listening.size() + 1);
        const int n = srt_epoll_uwait(m_listeners, ready.data(), static_cast<int>(ready.size()), 0);
        for (int i = 0; i < n && i < static_cast<int>(ready.size()); ++i) {
            if (ready[i].fd == sock && (ready[i].events & SRT_EPOLL_IN)) return true;
        }
        return false;
    }

private:
    enum ESlotState { SLOT_FREE, SLOT_OPEN, SLOT_CLOSING };
    struct SSlot {
        SRTSOCKET sock = SRT_INVALID_SOCK;
        ESlotState state = SLOT_FREE;
    };

    bool m_started = false;
    std::vector<SSlot> m_slots;
    std::deque<int> m_free;
    std::unordered_map<SRTSOCKET, int> m_by_sock;
};

// Never destroyed: the transport's threads may outlive static destruction.
CSlotTable& table()
{
    static CSlotTable* const s_table = new CSlotTable;
    return *s_table;
}

int result(int rc)
{
    return rc == SRT_ERROR ? -1 : rc;
}

int set_flag(int fd, SRT_SOCKOPT opt, const void* value, int len)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    return result(srt_setsockflag(sock, opt, value, len));
}

// Add and modify alike: the transport's update plus the membership it does not report.
int epoll_update(int epid, int fd, const int* events, bool add)
{
    CSlotTable& t = table();
    // Held across the transport's call so that membership and the set agree; the call
    // does not block (a waiter holds the transport's epoll lock only briefly).
    std::lock_guard<std::mutex> lock(t.m_mutex);
    const SRTSOCKET sock = t.find_locked(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    const int rc = add ? srt_epoll_add_usock(epid, sock, events) : srt_epoll_update_usock(epid, sock, events);
    if (rc == SRT_ERROR) return -1;
    auto& members = t.m_epolls[epid];
    // The transport's rule: no word means every bit, a word without bits unsubscribes.
    const int wanted = events ? (*events & ~static_cast<int>(SRT_EPOLL_ET)) : 1;
    if (wanted == 0) {
        members.erase(sock);
        t.set_waiting_locked(epid, sock, false);
        return 0;
    }
    if ((wanted & SRT_EPOLL_IN) && t.pending_locked(sock)) t.set_waiting_locked(epid, sock, true);
    return members.insert(sock).second ? 1 : 0;
}

}  // namespace

int startup()
{
    CSlotTable& t = table();
    std::lock_guard<std::mutex> lock(t.m_start_mutex);
    if (t.m_start_count == 0) {
        from_transport();
        if (srt_startup() < 0) {
            CVN_LOG(Fundel::LOG_WARN, "Mirt::startup: the transport did not start, %s\n", srt_getlasterror_str());
            return -1;
        }
        // The transport prints its own lines on stderr; what fails reaches the caller
        // through getlasterror_desc() and the library's log, so only its critical
        // lines stay.
        srt_setloglevel(LOG_CRIT);
        t.SetStarted(true);
    }
    ++t.m_start_count;
    return 0;
}

int cleanup()
{
    CSlotTable& t = table();
    std::lock_guard<std::mutex> lock(t.m_start_mutex);
    if (t.m_start_count == 0) return refuse(MIRT_ERR_NOT_STARTED);
    if (--t.m_start_count == 0) {
        // Descriptors are refused before the transport closes their sockets.
        t.SetStarted(false);
        from_transport();
        srt_cleanup();
    }
    return 0;
}

int socket()
{
    CSlotTable& t = table();
    {
        // Sockets made before startup() would escape cleanup().
        std::lock_guard<std::mutex> lock(t.m_mutex);
        if (!t.started_locked()) return refuse(MIRT_ERR_NOT_STARTED);
    }
    from_transport();
    const SRTSOCKET sock = srt_create_socket();
    if (sock == SRT_INVALID_SOCK) return -1;
    return t.Insert(sock);
}

int bind(int fd, const sockaddr* addr, int len)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    return result(srt_bind(sock, addr, len));
}

int listen(int fd, int backlog)
{
    CSlotTable& t = table();
    SRTSOCKET sock = SRT_INVALID_SOCK;
    {
        std::lock_guard<std::mutex> lock(t.m_mutex);
        sock = t.find_locked(fd);
        if (sock == SRT_INVALID_SOCK) return -1;
        // Before it listens, so that no connection comes unseen.
        if (!t.add_listener_locked(sock)) return -1;
    }
    return result(srt_listen(sock, backlog));
}

int accept(int fd, sockaddr* addr, int* len)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    const SRTSOCKET peer = srt_accept(sock, addr, len);
    if (peer == SRT_INVALID_SOCK) return -1;
    return table().Insert(peer);
}

int connect(int fd, const sockaddr* addr, int len)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    return result(srt_connect(sock, addr, len));
}

int send(int fd, const char* buf, int len)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    return result(srt_send(sock, buf, len));
}

int recv(int fd, char* buf, int len)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    return result(srt_recv(sock, buf, len));
}

int setsockopt(int fd, int opt, const void* value, int len)
{
    return set_flag(fd, static_cast<SRT_SOCKOPT>(opt), value, len);
}

int getsockopt(int fd, int opt, void* value, int* len)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    return result(srt_getsockflag(sock, static_cast<SRT_SOCKOPT>(opt), value, len));
}

int setnonblocking(int fd, bool on)
{
    const bool sync = !on;
    if (set_flag(fd, SRTO_SNDSYN, &sync, sizeof sync) < 0) return -1;
    return set_flag(fd, SRTO_RCVSYN, &sync, sizeof sync);
}

int settranstype(int fd, EMirtTransType type)
{
    const SRT_TRANSTYPE value = type == MIRT_TRANSTYPE_FILE ? SRTT_FILE : SRTT_LIVE;
    return set_flag(fd, SRTO_TRANSTYPE, &value, sizeof value);
}

int setlatency(int fd, int ms)
{
    return set_flag(fd, SRTO_LATENCY, &ms, sizeof ms);
}

int setpayloadsize(int fd, int bytes)
{
    return set_flag(fd, SRTO_PAYLOADSIZE, &bytes, sizeof bytes);
}

int setpassphrase(int fd, const char* phrase)
{
    const int len = phrase ? static_cast<int>(std::strlen(phrase)) : 0;
    return set_flag(fd, SRTO_PASSPHRASE, len ? phrase : "", len);
}

int getsockstate(int fd)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    return static_cast<int>(srt_getsockstate(sock));
}

int close(int fd)
{
    CSlotTable& t = table();
    const SRTSOCKET sock = t.BeginClose(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    // Outside the table's lock: closing may linger while data drains (file mode).
    const int rc = srt_close(sock);
    t.EndClose(fd, sock);
    return result(rc);
}

int getsockname(int fd, sockaddr* addr, int* len)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    return result(srt_getsockname(sock, addr, len));
}

int getpeername(int fd, sockaddr* addr, int* len)
{
    const SRTSOCKET sock = table().Find(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    return result(srt_getpeername(sock, addr, len));
}

int epoll_create()
{
    CSlotTable& t = table();
    std::lock_guard<std::mutex> lock(t.m_mutex);
    if (!t.started_locked()) return refuse(MIRT_ERR_NOT_STARTED);
    from_transport();
    const int epid = srt_epoll_create();
    if (epid < 0) return -1;
    // Without this a wait on an empty set fails instead of waiting; the dispatcher's set
    // is empty whenever no socket is due.
    if (srt_epoll_set(epid, SRT_EPOLL_ENABLE_EMPTY) < 0) {
        CVN_LOG(Fundel::LOG_WARN, "Mirt::epoll_create: empty sets not allowed, %s\n", srt_getlasterror_str());
        srt_epoll_release(epid);
        return -1;
    }
    t.m_epolls[epid].clear();
    return epid;
}

int epoll_add_usock(int epid, int fd, const int* events)
{
    return epoll_update(epid, fd, events, true);
}

int epoll_modify_usock(int epid, int fd, const int* events)
{
    return epoll_update(epid, fd, events, false);
}

int epoll_remove_usock(int epid, int fd)
{
    CSlotTable& t = table();
    std::lock_guard<std::mutex> lock(t.m_mutex);
    const SRTSOCKET sock = t.find_locked(fd);
    if (sock == SRT_INVALID_SOCK) return -1;
    if (srt_epoll_remove_usock(epid, sock) == SRT_ERROR) return -1;
    const auto it = t.m_epolls.find(epid);
    if (it != t.m_epolls.end()) it->second.erase(sock);
    t.set_waiting_locked(epid, sock, false);
    return 0;
}

int epoll_wait(int epid, SMirtEvent* events, int max, long long timeout_ms)
{
    if (!events || max <= 0) return refuse(MIRT_ERR_INVALID_ARG);
    // Not a thread_local: with mingw-w64 a thread-local object is destroyed after its
    // storage has been freed as the thread ends. The dispatcher's 512 fit on the stack.
    constexpr int kStackEvents = 512;
    SRT_EPOLL_EVENT stack_ready[kStackEvents];
    std::vector<SRT_EPOLL_EVENT> heap_ready;
    SRT_EPOLL_EVENT* ready = stack_ready;
    if (max > kStackEvents) {
        heap_ready.resize(static_cast<std::size_t>(max));
        ready = heap_ready.data();
    }

    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    for (;;) {
        long long wait_ms = timeout_ms;
        if (timeout_ms > 0) {
            const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
            wait_ms = std::max(0LL, timeout_ms - static_cast<long long>(spent));
        }
        from_transport();
        if (CSlotTable& t = table(); t.m_any_waiting.load(std::memory_order_acquire)) {
            // Listeners that joined the set with a connection waiting (see m_waiting).
            std::lock_guard<std::mutex> lock(t.m_mutex);
            const auto it = t.m_waiting.find(epid);
            int filled = 0;
            while (it != t.m_waiting.end() && !it->second.empty() && filled < max) {
                const SRTSOCKET sock = *it->second.begin();
                it->second.erase(it->second.begin());
                const int fd = t.fd_of_locked(sock);
                const auto members = t.m_epolls.find(epid);
                if (fd >= 0 && members != t.m_epolls.end() && members->second.count(sock) != 0) {
                    events[filled++] = SMirtEvent{fd, SRT_EPOLL_IN};
                }
            }
            t.prune_waiting_locked();
            if (filled > 0) return filled;
        }
        const int n = srt_epoll_uwait(epid, ready, max, wait_ms);
        if (n < 0) return -1;
        if (n == 0) return 0;
        int filled = 0;
        {
            CSlotTable& t = table();
            std::lock_guard<std::mutex> lock(t.m_mutex);
            // The transport may count one entry past `max`.
            for (int i = 0; i < std::min(n, max); ++i) {
                const int fd = t.fd_of_locked(ready[i].fd);
                // Closed since it became ready: not reported.
                if (fd < 0) continue;
                events[filled++] = SMirtEvent{fd, static_cast<unsigned int>(ready[i].events)};
            }
        }
        // Only closed sockets were ready: wait on for the time left.
        if (filled > 0 || timeout_ms == 0 || (timeout_ms > 0 && wait_ms == 0)) return filled;
    }
}

int epoll_release(int epid)
{
    CSlotTable& t = table();
    std::lock_guard<std::mutex> lock(t.m_mutex);
    from_transport();
    if (srt_epoll_release(epid) == SRT_ERROR) return -1;
    t.m_epolls.erase(epid);
    t.m_waiting.erase(epid);
    t.prune_waiting_locked();
    return 0;
}

int getlasterror()
{
    return t_own_error != 0 ? t_own_error : srt_getlasterror(nullptr);
}

const char* getlasterror_desc()
{
    return t_own_error != 0 ? own_error_text(t_own_error) : srt_getlasterror_str();
}

#else  // no transport: every call fails

int startup()
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int cleanup()
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int socket()
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int bind(int, const sockaddr*, int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int listen(int, int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int accept(int, sockaddr*, int*)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int connect(int, const sockaddr*, int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int send(int, const char*, int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int recv(int, char*, int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int setsockopt(int, int, const void*, int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int getsockopt(int, int, void*, int*)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int setnonblocking(int, bool)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int settranstype(int, EMirtTransType)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int setlatency(int, int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int setpayloadsize(int, int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int setpassphrase(int, const char*)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int getsockstate(int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int close(int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int getsockname(int, sockaddr*, int*)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int getpeername(int, sockaddr*, int*)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int epoll_create()
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int epoll_add_usock(int, int, const int*)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int epoll_modify_usock(int, int, const int*)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int epoll_remove_usock(int, int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int epoll_wait(int, SMirtEvent*, int, long long)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int epoll_release(int)
{
    return refuse(MIRT_ERR_NO_TRANSPORT);
}

int getlasterror()
{
    return t_own_error;
}

const char* getlasterror_desc()
{
    return own_error_text(t_own_error);
}

#endif

}  // namespace Qelvar::Mirt
