// Readiness on Linux: one epoll set, level-triggered. By default registrations are also
// one-shot: the kernel disarms a descriptor as it reports it, and Modify() re-arms it
// with one EPOLL_CTL_MOD. Opened to keep descriptors armed, it reports a ready one on
// every wait until its owner changes the interest. Interest changes need no wake-up
// either way; the eventfd is only for Wake().
#include "Platform/Poller.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <mutex>
#include <new>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "Platform/Error.h"

namespace Qelvar::Platform {

namespace {

/// Events fetched per Wait(); more ready descriptors wait for the next call, still armed.
constexpr int kMaxEvents = 256;

std::uint32_t to_epoll(unsigned int interest, bool oneshot)
{
    std::uint32_t events = oneshot ? static_cast<std::uint32_t>(EPOLLONESHOT) : 0u;
    // RDHUP only with read interest: a write-only registration would otherwise be woken
    // again and again by a peer that merely stopped sending.
    if (interest & POLLER_IN) events |= EPOLLIN | EPOLLRDHUP;
    if (interest & POLLER_OUT) events |= EPOLLOUT;
    if (interest & POLLER_PRI) events |= EPOLLPRI;
    return events;
}

unsigned int from_epoll(std::uint32_t events)
{
    unsigned int bits = 0;
    if (events & EPOLLIN) bits |= POLLER_IN;
    if (events & EPOLLOUT) bits |= POLLER_OUT;
    if (events & EPOLLPRI) bits |= POLLER_PRI;
    if (events & EPOLLERR) bits |= POLLER_ERR;
    if (events & (EPOLLHUP | EPOLLRDHUP)) bits |= POLLER_HUP;
    return bits;
}

/// Microseconds to epoll's milliseconds, rounded up so that a short wait never
/// becomes a busy look.
int to_milliseconds(long long timeout_us)
{
    if (timeout_us < 0) return -1;
    const long long ms = timeout_us / 1000 + (timeout_us % 1000 != 0 ? 1 : 0);
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

int closed_error()
{
    errno = EBADF;
    return -1;
}

}  // namespace

struct CPoller::Impl {
    bool m_oneshot = true;
    int m_epoll_fd = -1;
    int m_wake_fd = -1;
    std::mutex m_wake_mutex;  ///< guards m_wakeups and the eventfd's counter
    int m_wakeups = 0;        ///< written into the eventfd and not yet drained

    /// ADD, MOD or DEL of one descriptor; the kernel answers ENOENT for one it does not
    /// watch and EEXIST for a second ADD.
    int control(int op, int fd, unsigned int interest)
    {
        epoll_event ev{};
        ev.events = to_epoll(interest, m_oneshot);
        ev.data.fd = fd;
        return ::epoll_ctl(m_epoll_fd, op, fd, &ev) == 0 ? 0 : -1;
    }

    void wake()
    {
        std::lock_guard<std::mutex> lock(m_wake_mutex);
        if (m_wakeups >= 1) return;  // one outstanding wake-up ends the wait already
        const std::uint64_t one = 1;
        if (::write(m_wake_fd, &one, sizeof one) == static_cast<ssize_t>(sizeof one)) ++m_wakeups;
    }

    void drain_wake()
    {
        // Under the wake mutex, so a Wake() racing with us either lands before the read
        // (and is consumed) or after it (and is counted again).
        std::lock_guard<std::mutex> lock(m_wake_mutex);
        std::uint64_t value = 0;
        if (::read(m_wake_fd, &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
            m_wakeups = value < static_cast<std::uint64_t>(m_wakeups) ? m_wakeups - static_cast<int>(value) : 0;
        }
    }
};

CPoller::CPoller() : m_impl(nullptr)
{
}

CPoller::~CPoller()
{
    Close();
}

int CPoller::Open(bool keep_armed)
{
    if (m_impl != nullptr) {
        errno = EALREADY;
        return -1;
    }
    Impl* impl = new (std::nothrow) Impl;
    if (impl == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    m_impl = impl;
    impl->m_oneshot = !keep_armed;
    impl->m_epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
    if (impl->m_epoll_fd >= 0) impl->m_wake_fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    // The wake descriptor stays armed for good: no EPOLLONESHOT.
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = impl->m_wake_fd;
    if (impl->m_wake_fd < 0 || ::epoll_ctl(impl->m_epoll_fd, EPOLL_CTL_ADD, impl->m_wake_fd, &ev) != 0) {
        const int err = errno;
        Close();
        errno = err;
        return -1;
    }
    return 0;
}

void CPoller::Close()
{
    if (m_impl == nullptr) return;
    if (m_impl->m_wake_fd >= 0) ::close(m_impl->m_wake_fd);
    if (m_impl->m_epoll_fd >= 0) ::close(m_impl->m_epoll_fd);
    delete m_impl;
    m_impl = nullptr;
}

int CPoller::Add(int fd, unsigned int interest)
{
    return m_impl != nullptr ? m_impl->control(EPOLL_CTL_ADD, fd, interest) : closed_error();
}

int CPoller::Modify(int fd, unsigned int interest)
{
    return m_impl != nullptr ? m_impl->control(EPOLL_CTL_MOD, fd, interest) : closed_error();
}

int CPoller::Remove(int fd)
{
    return m_impl != nullptr ? m_impl->control(EPOLL_CTL_DEL, fd, 0) : closed_error();
}

int CPoller::Wait(long long timeout_us, SPollReady* ready, int capacity)
{
    if (m_impl == nullptr) return closed_error();
    if (ready == nullptr || capacity <= 0) {
        errno = EINVAL;
        return -1;
    }
    epoll_event events[kMaxEvents];
    const int n = ::epoll_wait(m_impl->m_epoll_fd, events, capacity < kMaxEvents ? capacity : kMaxEvents,
                               to_milliseconds(timeout_us));
    if (n < 0) return is_interrupted(errno) ? 0 : -1;
    int count = 0;
    for (int i = 0; i < n; ++i) {
        if (events[i].data.fd == m_impl->m_wake_fd) {
            m_impl->drain_wake();
            continue;
        }
        ready[count].fd = events[i].data.fd;
        ready[count].events = from_epoll(events[i].events);
        ++count;
    }
    return count;
}

bool CPoller::DisarmsOnReport() const
{
    return m_impl == nullptr || m_impl->m_oneshot;
}

void CPoller::Wake()
{
    if (m_impl != nullptr) m_impl->wake();
}

}  // namespace Qelvar::Platform
