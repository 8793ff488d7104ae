// Readiness on Windows: select() over master sets of at most 4096 sockets each.
// Each Wait() copies the master sets to working sets (select overwrites what it is
// given) and disarms what it reports by taking it out of the master sets. Since the
// kernel never sees the master sets, every change wakes a running Wait() so that
// the next select() works on the new interest.
#include "Platform/Poller.h"

#include <winsock2.h>

#include <climits>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_map>

#include "Platform/Error.h"
#include "Platform/win/WINPipe.h"

namespace Qelvar::Platform {

namespace {

constexpr u_int kSetSize = 4096;

/// What select() reads through an fd_set*: a count, then that many sockets. The
/// system's fd_set has the same layout with room for 64.
struct SocketSet {
    u_int fd_count;
    SOCKET fd_array[kSetSize];
};

enum SetIndex { READ_SET, WRITE_SET, EXCEPT_SET, SET_COUNT };

constexpr unsigned int kSetBits[SET_COUNT] = {POLLER_IN, POLLER_OUT, POLLER_PRI};

/// Linear, like __WSAFDIsSet: the sets are arrays, not hashes.
int set_find(const SocketSet& set, SOCKET s)
{
    for (u_int i = 0; i < set.fd_count; ++i) {
        if (set.fd_array[i] == s) return static_cast<int>(i);
    }
    return -1;
}

/// Skips a socket already there; a full set drops it silently.
void set_add(SocketSet& set, SOCKET s)
{
    if (set_find(set, s) >= 0 || set.fd_count == kSetSize) return;
    set.fd_array[set.fd_count++] = s;
}

/// Closes the gap by moving the later entries down, keeping their order.
void set_remove(SocketSet& set, SOCKET s)
{
    const int i = set_find(set, s);
    if (i < 0) return;
    std::memmove(&set.fd_array[i], &set.fd_array[i + 1], (set.fd_count - i - 1) * sizeof(SOCKET));
    --set.fd_count;
}

/// Copies only the used part: the count, then fd_count handles.
void set_copy(SocketSet& to, const SocketSet& from)
{
    to.fd_count = from.fd_count;
    std::memcpy(to.fd_array, from.fd_array, from.fd_count * sizeof(SOCKET));
}

fd_set* as_fd_set(SocketSet& set)
{
    return reinterpret_cast<fd_set*>(&set);
}

enum Change { CHANGE_ADD, CHANGE_MODIFY, CHANGE_REMOVE };

int closed_error()
{
    set_last_error(WSAEBADF);
    return -1;
}

}  // namespace

struct CPoller::Impl {
    std::mutex m_sets_mutex;                ///< guards m_master and m_watched
    std::mutex m_wake_mutex;                ///< guards m_wakeups
    SocketSet m_working[SET_COUNT];         ///< handed to select(); only Wait() uses them
    SocketSet m_master[SET_COUNT];          ///< the armed interest
    /// Every descriptor from Add() to Remove(), armed or not, with its interest.
    std::unordered_map<int, unsigned int> m_watched;
    CWINPipe m_pipe;
    int m_wakeups = 0;                      ///< bytes in the pipe not yet read

    void arm(int fd, unsigned int interest)
    {
        for (int i = 0; i < SET_COUNT; ++i) {
            if (interest & kSetBits[i]) set_add(m_master[i], static_cast<SOCKET>(fd));
        }
        // select() reports a failed connect in the exception set alone: a writer watches it too.
        if (interest & POLLER_OUT) set_add(m_master[EXCEPT_SET], static_cast<SOCKET>(fd));
    }

    void disarm(int fd)
    {
        for (int i = 0; i < SET_COUNT; ++i) set_remove(m_master[i], static_cast<SOCKET>(fd));
    }

    /// Add, modify or remove under the sets mutex, then wake a running Wait(). A
    /// descriptor that is not watched fails with WSAENOTSOCK (epoll's ENOENT), a second
    /// add with WSAEINVAL (EEXIST).
    int change(Change op, int fd, unsigned int interest)
    {
        {
            std::lock_guard<std::mutex> lock(m_sets_mutex);
            const bool watched = m_watched.count(fd) != 0;
            if (watched == (op == CHANGE_ADD)) {
                set_last_error(watched ? WSAEINVAL : WSAENOTSOCK);
                return -1;
            }
            if (op == CHANGE_REMOVE) {
                m_watched.erase(fd);
            } else {
                m_watched[fd] = interest;
            }
            disarm(fd);
            if (op != CHANGE_REMOVE) arm(fd, interest);
        }
        // Even for a removal: a running select() may still hold the socket, and it must
        // not outlive the socket's close.
        wake();
        return 0;
    }

    void wake()
    {
        std::lock_guard<std::mutex> lock(m_wake_mutex);
        if (m_wakeups >= 1) return;  // one outstanding byte ends the wait already
        const int n = m_pipe.Write("M", 1);
        if (n > 0) m_wakeups += n;
    }

    void drain_wake()
    {
        std::lock_guard<std::mutex> lock(m_wake_mutex);
        char buf[256];
        const int n = m_pipe.Read(buf, sizeof buf);
        if (n > 0) m_wakeups = n < m_wakeups ? m_wakeups - n : 0;
    }
};

CPoller::CPoller() : m_impl(nullptr)
{
}

CPoller::~CPoller()
{
    Close();
}

int CPoller::Open(bool)
{
    if (m_impl != nullptr) {
        set_last_error(WSAEALREADY);
        return -1;
    }
    // About 200 KB of sets: one heap block, never on a stack.
    Impl* impl = new (std::nothrow) Impl;
    if (impl == nullptr) {
        set_last_error(WSA_NOT_ENOUGH_MEMORY);
        return -1;
    }
    impl->m_master[READ_SET].fd_count = 0;
    impl->m_master[WRITE_SET].fd_count = 0;
    impl->m_master[EXCEPT_SET].fd_count = 0;
    if (impl->m_pipe.Create(true) != 0) {
        const int err = last_error();
        delete impl;
        set_last_error(err);
        return -1;
    }
    // The read end is watched for good and never reported.
    set_add(impl->m_master[READ_SET], static_cast<SOCKET>(impl->m_pipe.ReadHandle()));
    m_impl = impl;
    return 0;
}

void CPoller::Close()
{
    delete m_impl;  // the pipe closes itself
    m_impl = nullptr;
}

int CPoller::Add(int fd, unsigned int interest)
{
    return m_impl != nullptr ? m_impl->change(CHANGE_ADD, fd, interest) : closed_error();
}

int CPoller::Modify(int fd, unsigned int interest)
{
    return m_impl != nullptr ? m_impl->change(CHANGE_MODIFY, fd, interest) : closed_error();
}

int CPoller::Remove(int fd)
{
    return m_impl != nullptr ? m_impl->change(CHANGE_REMOVE, fd, 0) : closed_error();
}

int CPoller::Wait(long long timeout_us, SPollReady* ready, int capacity)
{
    if (m_impl == nullptr) return closed_error();
    if (ready == nullptr || capacity <= 0) {
        set_last_error(WSAEINVAL);
        return -1;
    }
    Impl& p = *m_impl;
    {
        std::lock_guard<std::mutex> lock(p.m_sets_mutex);
        for (int i = 0; i < SET_COUNT; ++i) set_copy(p.m_working[i], p.m_master[i]);
    }
    timeval tv{};
    timeval* limit = nullptr;
    if (timeout_us >= 0) {
        const long long seconds = timeout_us / 1000000;
        tv.tv_sec = seconds > INT_MAX ? INT_MAX : static_cast<long>(seconds);
        tv.tv_usec = static_cast<long>(timeout_us % 1000000);
        limit = &tv;
    }
    // The first argument is ignored on Windows.
    const int n = select(0, as_fd_set(p.m_working[READ_SET]), as_fd_set(p.m_working[WRITE_SET]),
                         as_fd_set(p.m_working[EXCEPT_SET]), limit);
    if (n == SOCKET_ERROR) return is_interrupted(last_error()) ? 0 : -1;
    if (n == 0) return 0;

    const SOCKET wake = static_cast<SOCKET>(p.m_pipe.ReadHandle());
    if (set_find(p.m_working[READ_SET], wake) >= 0) p.drain_wake();

    // select() left only the ready sockets in the working sets. A socket ready in more
    // than one set is merged into one entry: quadratic in the ready count, which is
    // small next to the watched count.
    int count = 0;
    for (int i = 0; i < SET_COUNT; ++i) {
        const SocketSet& set = p.m_working[i];
        for (u_int k = 0; k < set.fd_count; ++k) {
            if (set.fd_array[k] == wake) continue;
            const int fd = static_cast<int>(set.fd_array[k]);
            int j = 0;
            while (j < count && ready[j].fd != fd) ++j;
            if (j == count) {
                if (count == capacity) continue;  // stays armed for the next Wait()
                ready[count].fd = fd;
                ready[count].events = 0;
                ++count;
            }
            ready[j].events |= kSetBits[i];
        }
    }

    // Disarm what is reported. A socket removed while select() ran is dropped instead.
    std::lock_guard<std::mutex> lock(p.m_sets_mutex);
    int kept = 0;
    for (int j = 0; j < count; ++j) {
        const auto watched = p.m_watched.find(ready[j].fd);
        if (watched == p.m_watched.end()) continue;
        // An exception on a socket watched only for writing is its connect failing.
        if ((ready[j].events & POLLER_PRI) && !(watched->second & POLLER_PRI)) {
            ready[j].events = (ready[j].events & ~POLLER_PRI) | POLLER_ERR;
        }
        p.disarm(ready[j].fd);
        ready[kept++] = ready[j];
    }
    return kept;
}

bool CPoller::DisarmsOnReport() const
{
    return true;  // select() has no persistent interest: reported sockets leave the sets
}

void CPoller::Wake()
{
    if (m_impl != nullptr) m_impl->wake();
}

}  // namespace Qelvar::Platform
