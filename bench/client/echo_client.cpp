// Ping-pong load client for echo servers (plain epoll, no library).
//
//   echo_client --port P [--host 127.0.0.1] [--connections C] [--size S] [--depth D]
//               [--threads T] [--warmup SECONDS] [--duration SECONDS] [--server-pid PID]
//
// C connections, split over T threads, each thread with its own level-triggered epoll
// set. Every connection keeps D messages of S bytes in flight (D = 1: ping-pong); a new
// message goes out as soon as one has come back whole. The bytes sent on a connection
// are a pseudo-random stream of its own, and every byte that comes back is compared with
// it; a mismatch, an end of stream or any socket error ends the run with exit status 1.
//
// After the warm-up, the measured window lasts --duration seconds. At its two ends the
// main thread takes, at the same moment, the count of messages completed so far, the
// server's user+sys time (/proc/PID/stat), this process's CPU time and the machine's
// busy time (/proc/stat), so messages/s and server CPU per message cover the same span.
// Round-trip times (from handing a message to the socket to having its last byte back)
// of the messages completed in the window go into a histogram.
//
// Prints a summary on stderr and one line on stdout for scripts:
//   RESULT msgs_per_s=.. mb_per_s=.. p50_us=.. p99_us=.. p999_us=.. window_s=..
//          window_msgs=.. total_msgs=.. client_cpu=.. other_cpu=..
//          [server_cpu=.. server_us_per_msg=.. server_user=..]
// (MB/s counts the message bytes of one direction, 10^6 bytes per MB; the *_cpu fields
// are in cores: 1.0 is one core busy for the whole window; server_user is the share of
// the server's time spent in user mode, the rest being the kernel's.)
#include "Histogram.h"
#include "MonoClock.h"
#include "ProcStat.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using EchoBench::Histogram;
using EchoBench::MachineBusyTicks;
using EchoBench::OwnCpuSeconds;
using EchoBench::ProcessTicks;
using EchoBench::Ticks;

constexpr std::size_t kReadSize = 64 * 1024;
constexpr std::uint64_t kPatternPeriod = 65521;  // prime, so messages do not repeat in step
using EchoBench::kSecond;
using EchoBench::Now;

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    int connections = 1;
    std::size_t size = 64;
    int depth = 1;
    int threads = 1;
    double warmup = 1.0;
    double duration = 5.0;
    int server_pid = 0;
};

/// The first error of the run; every thread stops when one is set.
class Failure {
public:
    void Set(const std::string& text)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_text.empty()) {
            m_text = text;
        }
        m_failed.store(true, std::memory_order_release);
        m_cv.notify_all();
    }
    /// Sleeps until the monotonic time `deadline` (ns) or an error, whichever is first.
    void SleepUntil(std::int64_t deadline)
    {
        // steady_clock reads CLOCK_MONOTONIC, the clock of Now().
        std::chrono::steady_clock::time_point until{std::chrono::nanoseconds(deadline)};
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_until(lock, until, [this] { return Failed(); });
    }
    bool Failed() const { return m_failed.load(std::memory_order_acquire); }
    std::string Text() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_text;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::string m_text;
    std::atomic<bool> m_failed{false};
};

/// The stream every connection sends, twice over, so any piece of up to one period
/// starting inside the first copy is contiguous. Connection i starts at its own offset.
class Pattern {
public:
    Pattern() : m_bytes(2 * kPatternPeriod)
    {
        std::uint64_t x = 0x9e3779b97f4a7c15u;
        for (std::uint64_t i = 0; i < kPatternPeriod; ++i) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            m_bytes[i] = m_bytes[i + kPatternPeriod] = static_cast<char>(x >> 32);
        }
    }
    /// The stream of a connection whose seed is `seed`, from byte `offset`: at least
    /// kPatternPeriod bytes are readable there.
    const char* At(std::uint64_t seed, std::uint64_t offset) const
    {
        return m_bytes.data() + (seed + offset) % kPatternPeriod;
    }

private:
    std::vector<char> m_bytes;
};

struct Connection {
    int fd = -1;
    int index = 0;               // in the order of connecting, for messages
    std::uint64_t seed = 0;      // where its stream starts in the pattern
    std::uint64_t issued = 0;     // messages handed out so far
    std::uint64_t completed = 0;  // messages come back whole
    std::uint64_t sent = 0;       // bytes written
    std::uint64_t received = 0;   // bytes read and checked
    bool wants_out = false;       // EPOLLOUT armed: the socket did not take everything
    std::vector<std::int64_t> issued_at;  // ring of D issue times, by message number
};

/// Times that bound a run, shared by every thread.
struct Schedule {
    std::int64_t window_begin = 0;  // completions from here on go into the histogram
    std::int64_t window_end = 0;
    std::int64_t hard_end = 0;      // no thread runs past this, whatever happens
    std::atomic<bool> stop{false};  // set by the main thread once the window is sampled
};

class Worker {
public:
    Worker(const Options& options, const Pattern& pattern, Schedule& schedule, Failure& failure)
        : m_options(options), m_pattern(pattern), m_schedule(schedule), m_failure(failure)
    {
    }

    void Add(int fd, int index)
    {
        Connection conn;
        conn.fd = fd;
        conn.index = index;
        conn.seed = static_cast<std::uint64_t>(index) * 7919 % kPatternPeriod;
        conn.issued_at.assign(static_cast<std::size_t>(m_options.depth), 0);
        m_connections.push_back(std::move(conn));
    }

    void Run()
    {
        m_epoll = epoll_create1(EPOLL_CLOEXEC);
        if (m_epoll < 0) {
            m_failure.Set(std::string("epoll_create1: ") + std::strerror(errno));
            return;
        }
        std::int64_t now = Now();
        for (Connection& conn : m_connections) {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.ptr = &conn;
            if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, conn.fd, &ev) != 0) {
                m_failure.Set(std::string("epoll_ctl: ") + std::strerror(errno));
                return;
            }
            Issue(conn, static_cast<std::uint64_t>(m_options.depth), now);
        }
        std::vector<epoll_event> events(512);
        while (!m_failure.Failed() && !m_schedule.stop.load(std::memory_order_relaxed)) {
            now = Now();
            if (now >= m_schedule.hard_end) {
                break;
            }
            int timeout_ms = static_cast<int>(std::min<std::int64_t>(
                (m_schedule.hard_end - now) / 1000000 + 1, 100));
            int n = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()),
                               timeout_ms);
            if (n < 0 && errno != EINTR) {
                m_failure.Set(std::string("epoll_wait: ") + std::strerror(errno));
                break;
            }
            for (int i = 0; i < n && !m_failure.Failed(); ++i) {
                auto& conn = *static_cast<Connection*>(events[static_cast<std::size_t>(i)].data.ptr);
                std::uint32_t what = events[static_cast<std::size_t>(i)].events;
                if (what & (EPOLLIN | EPOLLERR | EPOLLHUP)) {
                    OnReadable(conn);
                } else if (what & EPOLLOUT) {
                    Flush(conn);
                }
            }
        }
        close(m_epoll);
    }

    const Histogram& Latency() const { return m_latency; }
    std::uint64_t Completed() const { return m_completed.load(std::memory_order_relaxed); }

private:
    void Fail(const Connection& conn, const std::string& what)
    {
        char text[256];
        std::snprintf(text, sizeof text, "connection %d: %s", conn.index, what.c_str());
        m_failure.Set(text);
    }

    /// Hands `count` more messages to the connection, stamped `now`.
    void Issue(Connection& conn, std::uint64_t count, std::int64_t now)
    {
        for (std::uint64_t i = 0; i < count; ++i) {
            conn.issued_at[conn.issued % conn.issued_at.size()] = now;
            ++conn.issued;
        }
        Flush(conn);
    }

    /// Writes what has been issued and not sent; arms or disarms EPOLLOUT as needed.
    void Flush(Connection& conn)
    {
        const std::uint64_t target = conn.issued * m_options.size;
        while (conn.sent < target) {
            std::size_t len = static_cast<std::size_t>(std::min(target - conn.sent, kPatternPeriod));
            ssize_t n = send(conn.fd, m_pattern.At(conn.seed, conn.sent), len, MSG_NOSIGNAL);
            if (n > 0) {
                conn.sent += static_cast<std::uint64_t>(n);
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                break;
            } else {
                Fail(conn, std::string("send: ") + std::strerror(errno));
                return;
            }
        }
        bool wants_out = conn.sent < target;
        if (wants_out != conn.wants_out) {
            epoll_event ev{};
            ev.events = EPOLLIN | (wants_out ? EPOLLOUT : 0u);
            ev.data.ptr = &conn;
            epoll_ctl(m_epoll, EPOLL_CTL_MOD, conn.fd, &ev);
            conn.wants_out = wants_out;
        }
    }

    void OnReadable(Connection& conn)
    {
        ssize_t n = recv(conn.fd, m_buf, sizeof m_buf, 0);
        if (n <= 0) {
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                return;
            }
            Fail(conn, n == 0 ? std::string("the server closed the connection")
                              : std::string("recv: ") + std::strerror(errno));
            return;
        }
        const std::int64_t now = Now();
        auto got = static_cast<std::uint64_t>(n);
        if (conn.received + got > conn.sent) {
            Fail(conn, "more bytes came back than were sent");
            return;
        }
        for (std::uint64_t done = 0; done < got;) {
            std::size_t piece = static_cast<std::size_t>(std::min(got - done, kPatternPeriod));
            const char* expected = m_pattern.At(conn.seed, conn.received + done);
            if (std::memcmp(m_buf + done, expected, piece) != 0) {
                auto at = std::mismatch(m_buf + done, m_buf + done + piece, expected).first;
                Fail(conn, "the echo differs from what was sent at byte " +
                               std::to_string(conn.received + done +
                                              static_cast<std::uint64_t>(at - (m_buf + done))));
                return;
            }
            done += piece;
        }
        conn.received += got;

        std::uint64_t whole = conn.received / m_options.size;
        std::uint64_t fresh = whole - conn.completed;
        if (fresh == 0) {
            return;
        }
        const bool in_window = now >= m_schedule.window_begin && now < m_schedule.window_end;
        for (; conn.completed < whole; ++conn.completed) {
            if (in_window) {
                std::int64_t at = conn.issued_at[conn.completed % conn.issued_at.size()];
                m_latency.Add(static_cast<std::uint64_t>(now - at));
            }
        }
        m_completed.store(m_completed.load(std::memory_order_relaxed) + fresh,
                          std::memory_order_relaxed);
        Issue(conn, fresh, now);
    }

    const Options& m_options;
    const Pattern& m_pattern;
    Schedule& m_schedule;
    Failure& m_failure;
    std::vector<Connection> m_connections;
    int m_epoll = -1;
    Histogram m_latency;
    alignas(64) std::atomic<std::uint64_t> m_completed{0};
    char m_buf[kReadSize];
};

[[noreturn]] void Usage()
{
    std::fprintf(stderr,
                 "usage: echo_client --port P [--host 127.0.0.1] [--connections C] [--size S]\n"
                 "                   [--depth D] [--threads T] [--warmup SECONDS]\n"
                 "                   [--duration SECONDS] [--server-pid PID]\n");
    std::exit(2);
}

Options ParseOptions(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (i + 1 >= argc) {
            Usage();
        }
        std::string value = argv[++i];
        if (arg == "--host") {
            o.host = value;
        } else if (arg == "--port") {
            o.port = std::stoi(value);
        } else if (arg == "--connections") {
            o.connections = std::stoi(value);
        } else if (arg == "--size") {
            o.size = std::stoul(value);
        } else if (arg == "--depth") {
            o.depth = std::stoi(value);
        } else if (arg == "--threads") {
            o.threads = std::stoi(value);
        } else if (arg == "--warmup") {
            o.warmup = std::stod(value);
        } else if (arg == "--duration") {
            o.duration = std::stod(value);
        } else if (arg == "--server-pid") {
            o.server_pid = std::stoi(value);
        } else {
            Usage();
        }
    }
    if (o.port <= 0 || o.port > 65535 || o.connections < 1 || o.size < 1 || o.depth < 1 ||
        o.threads < 1 || o.warmup < 0 || o.duration <= 0 || o.duration > 3600 || o.warmup > 3600) {
        Usage();
    }
    o.threads = std::min(o.threads, o.connections);
    return o;
}

/// A connected, non-blocking TCP socket with Nagle off, or -1 with `error` set. Gives up
/// after five seconds.
int Connect(const Options& options, std::string& error)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(options.port));
    if (inet_pton(AF_INET, options.host.c_str(), &addr.sin_addr) != 1) {
        error = "bad IPv4 address " + options.host;
        return -1;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (errno != EINPROGRESS) {
            error = std::string("connect: ") + std::strerror(errno);
            close(fd);
            return -1;
        }
        pollfd pfd{fd, POLLOUT, 0};
        int soerr = 0;
        socklen_t len = sizeof soerr;
        if (poll(&pfd, 1, 5000) != 1 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &soerr, &len) != 0 ||
            soerr != 0) {
            error = std::string("connect: ") + (soerr ? std::strerror(soerr) : "timed out");
            close(fd);
            return -1;
        }
    }
    return fd;
}

/// What the main thread takes at each end of the window.
struct Sample {
    std::int64_t at = 0;
    std::uint64_t completed = 0;
    Ticks server;
    long long machine_ticks = 0;
    double own_cpu = 0;
};

Sample Take(const std::vector<std::unique_ptr<Worker>>& workers, int server_pid)
{
    Sample s;
    if (server_pid > 0) {
        s.server = ProcessTicks(server_pid);
    }
    s.machine_ticks = MachineBusyTicks();
    s.own_cpu = OwnCpuSeconds();
    for (const auto& worker : workers) {
        s.completed += worker->Completed();
    }
    s.at = Now();
    return s;
}

}  // namespace

int main(int argc, char** argv)
{
    const Options options = ParseOptions(argc, argv);
    const Pattern pattern;
    Schedule schedule;
    Failure failure;

    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < options.threads; ++i) {
        workers.push_back(std::make_unique<Worker>(options, pattern, schedule, failure));
    }
    std::vector<int> fds;
    for (int i = 0; i < options.connections; ++i) {
        std::string error;
        int fd = Connect(options, error);
        if (fd < 0) {
            std::fprintf(stderr, "echo_client: connection %d: %s\n", i, error.c_str());
            for (int open_fd : fds) {
                close(open_fd);
            }
            return 1;
        }
        fds.push_back(fd);
        workers[static_cast<std::size_t>(i % options.threads)]->Add(fd, i);
    }

    const std::int64_t start = Now();
    schedule.window_begin = start + static_cast<std::int64_t>(options.warmup * 1e9);
    schedule.window_end = schedule.window_begin + static_cast<std::int64_t>(options.duration * 1e9);
    schedule.hard_end = schedule.window_end + 2 * kSecond;
    std::vector<std::thread> threads;
    for (auto& worker : workers) {
        threads.emplace_back([&worker] { worker->Run(); });
    }

    failure.SleepUntil(schedule.window_begin);
    const Sample first = Take(workers, options.server_pid);
    failure.SleepUntil(schedule.window_end);
    const Sample last = Take(workers, options.server_pid);
    schedule.stop.store(true, std::memory_order_relaxed);
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int fd : fds) {
        close(fd);
    }

    if (failure.Failed()) {
        std::fprintf(stderr, "echo_client: error: %s\n", failure.Text().c_str());
        return 1;
    }
    Histogram latency;
    std::uint64_t total = 0;
    for (const auto& worker : workers) {
        latency.Merge(worker->Latency());
        total += worker->Completed();
    }
    const double window = static_cast<double>(last.at - first.at) / 1e9;
    const std::uint64_t messages = last.completed - first.completed;
    if (messages == 0) {
        std::fprintf(stderr, "echo_client: error: no message came back in the window\n");
        return 1;
    }
    const double tick = 1.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
    const double rate = static_cast<double>(messages) / window;
    const double client_cpu = (last.own_cpu - first.own_cpu) / window;
    const double machine_cpu = static_cast<double>(last.machine_ticks - first.machine_ticks) * tick / window;
    double server_cpu = 0;
    double server_user = 0;  // the share of the server's time spent in user mode
    if (options.server_pid > 0) {
        if (!first.server.Valid() || !last.server.Valid()) {
            std::fprintf(stderr, "echo_client: error: cannot read /proc/%d/stat\n", options.server_pid);
            return 1;
        }
        const long long user = last.server.user - first.server.user;
        const long long sys = last.server.sys - first.server.sys;
        server_cpu = static_cast<double>(user + sys) * tick / window;
        server_user = user + sys > 0 ? static_cast<double>(user) / static_cast<double>(user + sys) : 0;
    }
    const double other_cpu = std::max(0.0, machine_cpu - client_cpu - server_cpu);
    const double p50 = static_cast<double>(latency.Quantile(0.50)) / 1e3;
    const double p99 = static_cast<double>(latency.Quantile(0.99)) / 1e3;
    const double p999 = static_cast<double>(latency.Quantile(0.999)) / 1e3;

    std::fprintf(stderr,
                 "%d connections x %zu bytes, depth %d, %d client thread(s): %.0f msg/s, %.2f MB/s "
                 "over %.2f s; round trip p50 %.1f us, p99 %.1f us, p99.9 %.1f us\n",
                 options.connections, options.size, options.depth, options.threads, rate,
                 rate * static_cast<double>(options.size) / 1e6, window, p50, p99, p999);
    std::printf("RESULT msgs_per_s=%.0f mb_per_s=%.3f p50_us=%.1f p99_us=%.1f p999_us=%.1f "
                "window_s=%.3f window_msgs=%" PRIu64 " total_msgs=%" PRIu64
                " client_cpu=%.3f other_cpu=%.3f",
                rate, rate * static_cast<double>(options.size) / 1e6, p50, p99, p999, window,
                messages, total, client_cpu, other_cpu);
    if (options.server_pid > 0) {
        std::printf(" server_cpu=%.3f server_us_per_msg=%.3f server_user=%.3f", server_cpu,
                    server_cpu * window / static_cast<double>(messages) * 1e6, server_user);
    }
    std::printf("\n");
    return 0;
}
