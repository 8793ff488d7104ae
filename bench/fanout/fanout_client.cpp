// Load client for the fan-out benchmark: many receivers of one H.264 stream.
//
//   fanout_client --port P [--host 127.0.0.1] [--connections N] [--threads T]
//                 [--slow-every K --slow-rate BYTES_PER_S [--slow-rcvbuf BYTES]]
//                 [--joiners J] [--connect-rate PER_S] [--warmup S] [--duration S]
//                 [--fps 25] [--server-pid PID] [--verbose 1]
//
// Opens N connections (at --connect-rate per second, 0 = all at once), split over T
// threads, each with its own epoll set. Every K-th connection (K = --slow-every) is a
// slow reader: it is read on a 10 ms tick at no more than --slow-rate bytes per second,
// through a receive buffer of --slow-rcvbuf bytes (set before connecting). J joiners
// connect one by one during the first half of the window, spread evenly, so that each
// has at least half the window to join.
//
// Each connection's bytes are parsed as an Annex-B stream: start codes, NAL types and
// the producer's SEI (StampSei.h), which carries the access unit's sequence number, its
// send time and the length of the rest of the unit. A frame is complete when that many
// bytes after the SEI have arrived; its latency is the arrival time minus the send time
// (same machine, same clock). Per connection the client checks:
//   - the stream starts with a start code, and the first slice is an IDR slice that
//     follows one of our SEIs (first key);
//   - the sequence numbers: a jump is a gap (its missing numbers are skipped frames),
//     and the unit after a gap must be an IDR unit (resync on a key frame), else it is
//     counted as a bad resync; a number that does not go forward is counted too;
//   - the units are whole: a new unit starting before the previous one's announced
//     length is reached, or slices without our SEI, count as torn; a unit whose next
//     start code is not exactly at its announced end counts as a length mismatch.
// Join time: from starting to connect to the completion of the first IDR unit.
//
// The window starts --warmup seconds after the first connection; frames, bytes and
// latencies count inside it, skipped frames and resyncs over the whole run. At the two
// ends of the window the main thread reads the server's user+sys time
// (/proc/PID/stat), this process's CPU time and the machine's busy time.
//
// Prints a summary on stderr and one line on stdout:
//   RESULT window_s=.. mb=.. mb_per_s=.. server_cpu=.. server_ms_per_mb=.. client_cpu=..
//          other_cpu=.. connect_failed=.. all_joined_s=.. and per group (n normal, s slow,
//          j joiners) G_conns G_connected G_closed G_joined G_first_key G_first_bad
//          G_join_p50_ms G_join_max_ms G_mb G_frames G_fps_min G_lat_p50_ms G_lat_p99_ms
//          G_lat_max_ms G_skipped G_gaps G_resync_key G_resync_bad G_backwards G_torn
//          G_mismatch G_stalled
// (MB: 10^6 bytes; *_cpu in cores; a stalled connection completed no frame in the last
// second of the window.) Exit status 1 only when the run itself cannot go on (bad
// options, no descriptors); what the server does is reported, never fatal.
//
// Built with SRT_TRANSPORT (srt_fanout_client, for bench/run-srt) the receivers are
// reliable-UDP callers in live mode instead of TCP connections, with SRTO_LATENCY set by
// --latency MS on each; every message is appended to the receiver's byte stream, which
// is parsed as above. Latency quantiles are then exact (every sample kept), since a
// histogram bucket at the tens of ms the latency budget adds is wider than the
// differences looked for. Slow readers are not offered there.
#include "../client/Histogram.h"
#include "../client/MonoClock.h"
#include "../client/ProcStat.h"
#include "StampSei.h"
#ifdef SRT_TRANSPORT
#include "../srt/Samples.h"
#include "../srt/SrtBench.h"

#include <unordered_map>
#endif

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using EchoBench::Histogram;
#ifdef SRT_TRANSPORT
using Latencies = SrtBench::Samples;
#else
using Latencies = EchoBench::Histogram;
#endif
using EchoBench::CpuBetween;
using EchoBench::CpuSample;
using EchoBench::CpuShares;
using EchoBench::TakeCpuSample;
using namespace FanoutBench;

using EchoBench::kMs;
using EchoBench::kSecond;
using EchoBench::Now;
using EchoBench::SleepUntil;
constexpr std::size_t kReadSize = 256 * 1024;
constexpr std::int64_t kSlowTick = 10 * kMs;
constexpr int kGroups = 3;
constexpr const char* kGroupName[kGroups] = {"n", "s", "j"};
enum Group { kNormal = 0, kSlow = 1, kJoiner = 2 };

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    int connections = 10;
    int threads = 1;
    int slow_every = 0;
    double slow_rate = 0;
    int slow_rcvbuf = 16384;
    int joiners = 0;
    double connect_rate = 0;
    double warmup = 5;
    double duration = 10;
    double fps = 25;
    int server_pid = 0;
    bool verbose = false;
    int latency_ms = -1;  // SRT_TRANSPORT: SRTO_LATENCY (-1: the library's default)
};

/// Times shared by every thread.
struct Schedule {
    std::int64_t start = 0;
    std::int64_t window_begin = 0;
    std::int64_t window_end = 0;
};

struct Conn {
    int fd = -1;
    int group = kNormal;
    std::int64_t due = 0;           // when to start connecting
    std::int64_t connect_start = 0;
    bool connected = false;
    bool closed = false;
    bool failed = false;            // the connect itself failed
    std::int64_t join_at = 0;       // first IDR unit complete
    std::int64_t last_frame_at = 0;
    std::uint64_t total = 0;        // bytes received
    std::uint64_t window_bytes = 0;
    std::uint64_t window_frames = 0;
    std::uint64_t frames = 0;
    // Parser state.
    std::uint8_t hist[3] = {0xFF, 0xFF, 0xFF};  // the last three bytes before this chunk
    bool saw_start = false;         // any start code yet
    bool leading_garbage = false;
    bool collecting = false;        // gathering the first bytes of the current NAL
    std::size_t head_len = 0;
    std::uint64_t head_pos = 0;     // stream position of the current NAL's header byte
    std::uint8_t head[kSeiNalBytes] = {};
    bool pending = false;           // a unit announced by our SEI is not complete yet
    bool pending_vcl = false;       // its first slice was seen
    bool pending_idr = false;
    std::uint64_t pending_end = 0;  // stream position just after its last byte
    std::uint64_t pending_time = 0;
    bool check_next_start = false;  // the next start code must begin at last_end
    std::uint64_t last_end = 0;
    std::int64_t last_seq = -1;
    bool expect_key = false;        // after a gap
    bool vcl_before_stamp = false;  // a slice before any of our SEIs
    bool first_key = false;
    // Slow readers.
    double tokens = 0;
    // Counters.
    std::uint64_t skipped = 0, gaps = 0, resync_key = 0, resync_bad = 0, backwards = 0,
                  torn = 0, mismatch = 0;
};

struct GroupStats {
    Latencies latency;  // frames completed in the window
    Histogram join;
    std::int64_t latency_max = 0;
};

void CloseSocket(int fd)
{
#ifdef SRT_TRANSPORT
    srt_close(fd);
#else
    close(fd);
#endif
}

class Worker {
public:
    Worker(const Options& options, const Schedule& schedule) : m_options(options), m_schedule(schedule) {}

    void Add(int group, std::int64_t due)
    {
        Conn conn;
        conn.group = group;
        conn.due = due;
        m_conns.push_back(conn);
    }

    void Run()
    {
#ifdef SRT_TRANSPORT
        m_epoll = srt_epoll_create();
        if (m_epoll < 0) {
            std::fprintf(stderr, "fanout_client: srt_epoll_create: %s\n", srt_getlasterror_str());
            return;
        }
        srt_epoll_set(m_epoll, SRT_EPOLL_ENABLE_EMPTY);
#else
        m_epoll = epoll_create1(EPOLL_CLOEXEC);
        if (m_epoll < 0) {
            std::fprintf(stderr, "fanout_client: epoll_create1: %s\n", std::strerror(errno));
            return;
        }
#endif
        std::sort(m_conns.begin(), m_conns.end(), [](const Conn& a, const Conn& b) { return a.due < b.due; });
        std::size_t next_connect = 0;
        std::int64_t next_tick = m_schedule.start;
        std::int64_t last_tick = m_schedule.start;
#ifdef SRT_TRANSPORT
        std::vector<SRT_EPOLL_EVENT> events(1024);
#else
        std::vector<epoll_event> events(1024);
#endif
        for (;;) {
            std::int64_t now = Now();
            if (now >= m_schedule.window_end) {
                break;
            }
            while (next_connect < m_conns.size() && m_conns[next_connect].due <= now) {
                StartConnect(m_conns[next_connect], now);
                ++next_connect;
            }
            if (now >= next_tick) {
                SlowTick(now, now - last_tick);
                last_tick = now;
                next_tick = now + kSlowTick;
            }
            std::int64_t wake = std::min(next_tick, m_schedule.window_end);
            if (next_connect < m_conns.size()) {
                wake = std::min(wake, m_conns[next_connect].due);
            }
            int timeout_ms = static_cast<int>(std::max<std::int64_t>(0, (wake - now + kMs - 1) / kMs));
#ifdef SRT_TRANSPORT
            const int n = srt_epoll_uwait(m_epoll, events.data(), static_cast<int>(events.size()), timeout_ms);
            for (int i = 0; i < std::min(n, static_cast<int>(events.size())); ++i) {
                const auto found = m_index.find(events[static_cast<std::size_t>(i)].fd);
                if (found == m_index.end()) {
                    continue;
                }
                Conn& conn = m_conns[found->second];
                if (!conn.connected) {
                    FinishConnect(conn, static_cast<std::uint32_t>(events[static_cast<std::size_t>(i)].events));
                } else {
                    // One message per receive: take all that are ready.
                    while (conn.fd >= 0 && ReadSome(conn, kReadSize) > 0) {
                    }
                }
            }
#else
            int n = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), timeout_ms);
            if (n < 0 && errno != EINTR) {
                std::fprintf(stderr, "fanout_client: epoll_wait: %s\n", std::strerror(errno));
                break;
            }
            for (int i = 0; i < n; ++i) {
                Conn& conn = m_conns[events[static_cast<std::size_t>(i)].data.u64];
                std::uint32_t what = events[static_cast<std::size_t>(i)].events;
                if (!conn.connected) {
                    FinishConnect(conn, what);
                } else {
                    ReadSome(conn, kReadSize);
                }
            }
#endif
        }
        for (Conn& conn : m_conns) {
            if (conn.fd >= 0) {
                CloseSocket(conn.fd);
                conn.fd = -1;
            }
        }
#ifdef SRT_TRANSPORT
        srt_epoll_release(m_epoll);
#else
        close(m_epoll);
#endif
    }

    const std::vector<Conn>& Conns() const { return m_conns; }
    const GroupStats& Stats(int group) const { return m_stats[group]; }

private:
    void StartConnect(Conn& conn, std::int64_t now)
    {
        conn.connect_start = now;
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<std::uint16_t>(m_options.port));
        inet_pton(AF_INET, m_options.host.c_str(), &addr.sin_addr);
#ifdef SRT_TRANSPORT
        const SRTSOCKET s = srt_create_socket();
        if (s == SRT_INVALID_SOCK) {
            std::fprintf(stderr, "fanout_client: srt_create_socket: %s\n", srt_getlasterror_str());
            conn.failed = true;
            return;
        }
        // Not blocking: the connect completes when the socket reports writable.
        if (!SrtBench::SetLiveOptions(s, m_options.latency_ms, false) ||
            srt_connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == SRT_ERROR) {
            conn.failed = true;
            srt_close(s);
            return;
        }
        conn.fd = s;
        m_index[s] = static_cast<std::size_t>(&conn - m_conns.data());
        const int watch = SRT_EPOLL_OUT | SRT_EPOLL_ERR;
        srt_epoll_add_usock(m_epoll, s, &watch);
        return;
#endif
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            std::fprintf(stderr, "fanout_client: socket: %s\n", std::strerror(errno));
            conn.failed = true;
            return;
        }
        if (conn.group == kSlow) {
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &m_options.slow_rcvbuf, sizeof m_options.slow_rcvbuf);
        }
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 && errno != EINPROGRESS) {
            conn.failed = true;
            close(fd);
            return;
        }
        conn.fd = fd;
        epoll_event ev{};
        ev.events = EPOLLOUT;
        ev.data.u64 = static_cast<std::uint64_t>(&conn - m_conns.data());
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &ev);
    }

    void FinishConnect(Conn& conn, std::uint32_t what)
    {
#ifdef SRT_TRANSPORT
        if ((what & SRT_EPOLL_ERR) != 0 || srt_getsockstate(conn.fd) != SRTS_CONNECTED) {
            conn.failed = true;
            srt_epoll_remove_usock(m_epoll, conn.fd);
            srt_close(conn.fd);
            conn.fd = -1;
            return;
        }
        conn.connected = true;
        const int watch = SRT_EPOLL_IN | SRT_EPOLL_ERR;
        srt_epoll_update_usock(m_epoll, conn.fd, &watch);
        return;
#endif
        int err = 0;
        socklen_t len = sizeof err;
        if (!(what & EPOLLOUT) || getsockopt(conn.fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
            conn.failed = true;
            epoll_ctl(m_epoll, EPOLL_CTL_DEL, conn.fd, nullptr);
            close(conn.fd);
            conn.fd = -1;
            return;
        }
        conn.connected = true;
        if (conn.group == kSlow) {
            // Read on the tick only.
            epoll_ctl(m_epoll, EPOLL_CTL_DEL, conn.fd, nullptr);
            m_slow.push_back(&conn);
        } else {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.u64 = static_cast<std::uint64_t>(&conn - m_conns.data());
            epoll_ctl(m_epoll, EPOLL_CTL_MOD, conn.fd, &ev);
        }
    }

    void SlowTick(std::int64_t now, std::int64_t elapsed)
    {
        const double add = m_options.slow_rate * static_cast<double>(elapsed) / 1e9;
        const double cap = std::max(m_options.slow_rate * 0.05, 4096.0);
        for (Conn* conn : m_slow) {
            if (conn->fd < 0) {
                continue;
            }
            conn->tokens = std::min(conn->tokens + add, cap);
            if (conn->tokens >= 1) {
                std::size_t want = std::min(static_cast<std::size_t>(conn->tokens), kReadSize);
                ssize_t got = ReadSome(*conn, want);
                if (got > 0) {
                    conn->tokens -= static_cast<double>(got);
                }
            }
        }
        (void)now;
    }

    /// One recv of at most `want` bytes; the bytes read, 0 when none.
    ssize_t ReadSome(Conn& conn, std::size_t want)
    {
#ifdef SRT_TRANSPORT
        ssize_t n = srt_recvmsg(conn.fd, reinterpret_cast<char*>(m_buf), static_cast<int>(want));
        if (n < 0) {
            if (SrtBench::WouldBlock()) {
                return 0;
            }
            errno = ECONNRESET;
        }
#else
        ssize_t n = recv(conn.fd, m_buf, want, 0);
#endif
        if (n <= 0) {
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                return 0;
            }
            conn.closed = true;
            if (conn.group != kSlow) {
#ifdef SRT_TRANSPORT
                srt_epoll_remove_usock(m_epoll, conn.fd);
#else
                epoll_ctl(m_epoll, EPOLL_CTL_DEL, conn.fd, nullptr);
#endif
            }
            CloseSocket(conn.fd);
            conn.fd = -1;
            return 0;
        }
        const std::int64_t now = Now();
        if (now >= m_schedule.window_begin && now < m_schedule.window_end) {
            conn.window_bytes += static_cast<std::uint64_t>(n);
        }
        Feed(conn, m_buf, static_cast<std::size_t>(n), now);
        return n;
    }

    // ---- Annex-B parsing ------------------------------------------------------------

    static std::uint8_t ByteAt(const Conn& conn, const std::uint8_t* d, std::ptrdiff_t k)
    {
        return k >= 0 ? d[k] : conn.hist[3 + k];  // k in -3..-1 reaches into the history
    }

    void Feed(Conn& conn, const std::uint8_t* d, std::size_t n, std::int64_t now)
    {
        const std::uint64_t base = conn.total;
        std::size_t seg = 0;  // first byte not yet offered to the NAL head
        std::size_t i = 0;
        while (i < n) {
            const void* hit = std::memchr(d + i, 1, n - i);
            if (hit == nullptr) {
                break;
            }
            const auto p = static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - d);
            const auto sp = static_cast<std::ptrdiff_t>(p);
            bool start = (base + p >= 2) && ByteAt(conn, d, sp - 1) == 0 && ByteAt(conn, d, sp - 2) == 0;
            if (start) {
                const bool four = base + p >= 3 && ByteAt(conn, d, sp - 3) == 0;
                Collect(conn, d + seg, p + 1 - seg, base + seg, now);
                const std::uint64_t at = base + p;  // the 0x01 byte
                NalBoundary(conn, four ? at - 3 : at - 2, now);
                conn.collecting = true;
                conn.head_len = 0;
                conn.head_pos = at + 1;
                seg = p + 1;
            }
            i = p + 1;
        }
        Collect(conn, d + seg, n - seg, base + seg, now);
        conn.total += n;
        for (int k = 0; k < 3; ++k) {
            const auto back = static_cast<std::ptrdiff_t>(n) - 3 + k;
            conn.hist[k] = ByteAt(conn, d, back);
        }
        if (conn.pending && conn.total >= conn.pending_end) {
            Complete(conn, now);
        }
    }

    /// A start code begins at stream position `begin`.
    void NalBoundary(Conn& conn, std::uint64_t begin, std::int64_t now)
    {
        if (!conn.saw_start) {
            conn.saw_start = true;
            conn.leading_garbage = begin != 0;
        }
        conn.collecting = false;
        if (conn.pending && begin >= conn.pending_end) {
            Complete(conn, now);
        }
        if (conn.check_next_start) {
            conn.check_next_start = false;
            if (begin != conn.last_end) {
                ++conn.mismatch;
            }
        }
    }

    /// Offers bytes at stream position `pos` to the head of the current NAL.
    void Collect(Conn& conn, const std::uint8_t* d, std::size_t n, std::uint64_t pos, std::int64_t now)
    {
        if (!conn.collecting || n == 0) {
            return;
        }
        std::size_t skip = 0;
        if (pos < conn.head_pos) {  // start code bytes
            skip = static_cast<std::size_t>(conn.head_pos - pos);
            if (skip >= n) {
                return;
            }
        }
        const std::size_t take = std::min(n - skip, kSeiNalBytes - conn.head_len);
        const bool had_header = conn.head_len > 0;
        std::memcpy(conn.head + conn.head_len, d + skip, take);
        conn.head_len += take;
        if (!had_header && conn.head_len > 0) {
            const int type = conn.head[0] & 0x1F;
            OnNalType(conn, type);
            if (type != 6) {
                conn.collecting = false;
                return;
            }
        }
        if (conn.head_len == kSeiNalBytes) {
            conn.collecting = false;
            Stamp stamp;
            if (ReadSei(conn.head, stamp)) {
                OnStamp(conn, stamp, now);
            }
        }
    }

    void OnNalType(Conn& conn, int type)
    {
        const bool vcl = type >= 1 && type <= 5;
        if (vcl) {
            if (conn.pending) {
                if (!conn.pending_vcl) {
                    conn.pending_vcl = true;
                    conn.pending_idr = type == 5;
                    if (conn.expect_key) {
                        conn.expect_key = false;
                        ++(conn.pending_idr ? conn.resync_key : conn.resync_bad);
                    }
                }
            } else if (conn.last_seq < 0) {
                conn.vcl_before_stamp = true;
            } else {
                ++conn.torn;  // slices outside any announced unit
            }
        } else if (conn.pending && (type == 6 || type == 7 || type == 8 || type == 9)) {
            // A new unit begins before the announced end of the previous one.
            ++conn.torn;
            conn.pending = false;
        }
    }

    void OnStamp(Conn& conn, const Stamp& stamp, std::int64_t now)
    {
        (void)now;
        const auto seq = static_cast<std::int64_t>(stamp.seq);
        if (conn.last_seq >= 0) {
            if (seq <= conn.last_seq) {
                ++conn.backwards;
            } else if (seq > conn.last_seq + 1) {
                conn.skipped += static_cast<std::uint64_t>(seq - conn.last_seq - 1);
                ++conn.gaps;
                conn.expect_key = true;
            }
        }
        conn.last_seq = seq;
        conn.pending = true;
        conn.pending_vcl = false;
        conn.pending_idr = false;
        conn.pending_end = conn.head_pos + kSeiNalBytes + stamp.tail;
        conn.pending_time = stamp.time_ns;
    }

    void Complete(Conn& conn, std::int64_t now)
    {
        conn.pending = false;
        conn.check_next_start = true;
        conn.last_end = conn.pending_end;
        if (!conn.pending_vcl) {
            ++conn.torn;
            return;
        }
        if (conn.frames == 0) {
            conn.first_key = conn.pending_idr && !conn.leading_garbage && !conn.vcl_before_stamp;
        }
        ++conn.frames;
        conn.last_frame_at = now;
        GroupStats& stats = m_stats[conn.group];
        if (conn.join_at == 0 && conn.pending_idr) {
            conn.join_at = now;
            stats.join.Add(static_cast<std::uint64_t>(now - conn.connect_start));
        }
        if (now >= m_schedule.window_begin && now < m_schedule.window_end) {
            ++conn.window_frames;
            const std::int64_t lat = now - static_cast<std::int64_t>(conn.pending_time);
            stats.latency.Add(static_cast<std::uint64_t>(std::max<std::int64_t>(lat, 0)));
            stats.latency_max = std::max(stats.latency_max, lat);
        }
    }

    const Options& m_options;
    const Schedule& m_schedule;
    std::vector<Conn> m_conns;
    std::vector<Conn*> m_slow;
    GroupStats m_stats[kGroups];
    int m_epoll = -1;
#ifdef SRT_TRANSPORT
    std::unordered_map<SRTSOCKET, std::size_t> m_index;  // socket -> m_conns
#endif
    std::uint8_t m_buf[kReadSize];
};

[[noreturn]] void Usage()
{
#ifdef SRT_TRANSPORT
    std::fprintf(stderr,
                 "usage: srt_fanout_client --port P [--host 127.0.0.1] [--connections N] [--threads T]\n"
                 "                         [--latency MS] [--joiners J] [--connect-rate PER_S] [--warmup S]\n"
                 "                         [--duration S] [--fps 25] [--server-pid PID] [--verbose 1]\n");
    std::exit(2);
#endif
    std::fprintf(stderr,
                 "usage: fanout_client --port P [--host 127.0.0.1] [--connections N] [--threads T]\n"
                 "                     [--slow-every K --slow-rate BYTES_PER_S [--slow-rcvbuf BYTES]]\n"
                 "                     [--joiners J] [--connect-rate PER_S] [--warmup S] [--duration S]\n"
                 "                     [--fps 25] [--server-pid PID] [--verbose 1]\n");
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
        const char* v = argv[++i];
        if (arg == "--host") {
            o.host = v;
        } else if (arg == "--port") {
            o.port = std::atoi(v);
        } else if (arg == "--connections") {
            o.connections = std::atoi(v);
        } else if (arg == "--threads") {
            o.threads = std::atoi(v);
        } else if (arg == "--slow-every") {
            o.slow_every = std::atoi(v);
        } else if (arg == "--slow-rate") {
            o.slow_rate = std::atof(v);
        } else if (arg == "--slow-rcvbuf") {
            o.slow_rcvbuf = std::atoi(v);
        } else if (arg == "--joiners") {
            o.joiners = std::atoi(v);
        } else if (arg == "--connect-rate") {
            o.connect_rate = std::atof(v);
        } else if (arg == "--warmup") {
            o.warmup = std::atof(v);
        } else if (arg == "--duration") {
            o.duration = std::atof(v);
        } else if (arg == "--fps") {
            o.fps = std::atof(v);
        } else if (arg == "--server-pid") {
            o.server_pid = std::atoi(v);
        } else if (arg == "--verbose") {
            o.verbose = std::atoi(v) != 0;
#ifdef SRT_TRANSPORT
        } else if (arg == "--latency") {
            o.latency_ms = std::atoi(v);
#endif
        } else {
            Usage();
        }
    }
    in_addr probe{};
    if (o.port <= 0 || o.port > 65535 || o.connections < 1 || o.connections > 100000 || o.threads < 1 ||
        o.threads > 64 || o.slow_every < 0 || (o.slow_every > 0 && o.slow_rate <= 0) || o.slow_rcvbuf < 1024 ||
        o.joiners < 0 || o.joiners > 10000 || o.connect_rate < 0 || o.warmup < 0 || o.warmup > 600 ||
        o.duration <= 0 || o.duration > 600 || o.fps <= 0 || inet_pton(AF_INET, o.host.c_str(), &probe) != 1) {
        Usage();
    }
#ifdef SRT_TRANSPORT
    if (o.slow_every > 0 || o.latency_ms > 10000) {
        Usage();
    }
#endif
    return o;
}

CpuSample Take(int pid)
{
    return TakeCpuSample(pid, Now());
}

double Ms(std::uint64_t ns) { return static_cast<double>(ns) / 1e6; }

}  // namespace

int main(int argc, char** argv)
{
    const Options o = ParseOptions(argc, argv);
#ifdef SRT_TRANSPORT
    srt_startup();
    srt_setloglevel(LOG_ERR);
#endif
    Schedule schedule;
    schedule.start = Now() + 20 * kMs;
    schedule.window_begin = schedule.start + static_cast<std::int64_t>(o.warmup * 1e9);
    schedule.window_end = schedule.window_begin + static_cast<std::int64_t>(o.duration * 1e9);

    std::vector<std::unique_ptr<Worker>> workers;
    for (int t = 0; t < o.threads; ++t) {
        workers.push_back(std::make_unique<Worker>(o, schedule));
    }
    for (int i = 0; i < o.connections; ++i) {
        const int group = (o.slow_every > 0 && i % o.slow_every == o.slow_every - 1) ? kSlow : kNormal;
        const std::int64_t due =
            schedule.start + (o.connect_rate > 0 ? static_cast<std::int64_t>(i / o.connect_rate * 1e9) : 0);
        workers[static_cast<std::size_t>(i % o.threads)]->Add(group, due);
    }
    for (int k = 0; k < o.joiners; ++k) {
        const std::int64_t due =
            schedule.window_begin + static_cast<std::int64_t>((k + 0.5) / o.joiners * o.duration * 0.5 * 1e9);
        workers[static_cast<std::size_t>(k % o.threads)]->Add(kJoiner, due);
    }

    std::vector<std::thread> threads;
    for (auto& worker : workers) {
        threads.emplace_back([&worker] { worker->Run(); });
    }
    SleepUntil(schedule.window_begin);
    const CpuSample first = Take(o.server_pid);
    SleepUntil(schedule.window_end);
    const CpuSample last = Take(o.server_pid);
    for (std::thread& thread : threads) {
        thread.join();
    }
#ifdef SRT_TRANSPORT
    srt_cleanup();
#endif

    const CpuShares cpu = CpuBetween(first, last, o.server_pid, "fanout_client");
    const double window = cpu.window_s;
    const double server_cpu = cpu.server;
    const double client_cpu = cpu.client;
    const double other_cpu = cpu.other;

    struct Totals {
        int conns = 0, connected = 0, closed = 0, joined = 0, first_key = 0, first_bad = 0, stalled = 0;
        std::uint64_t bytes = 0, frames = 0, skipped = 0, gaps = 0, resync_key = 0, resync_bad = 0,
                      backwards = 0, torn = 0, mismatch = 0;
        double fps_min = -1;
        Latencies latency;
        Histogram join;
        std::int64_t latency_max = 0;
    } g[kGroups];
    int connect_failed = 0;
    std::int64_t last_normal_join = 0;
    bool all_normal_joined = true;
    for (const auto& worker : workers) {
        for (int k = 0; k < kGroups; ++k) {
            g[k].latency.Merge(worker->Stats(k).latency);
            g[k].join.Merge(worker->Stats(k).join);
            g[k].latency_max = std::max(g[k].latency_max, worker->Stats(k).latency_max);
        }
        for (const Conn& c : worker->Conns()) {
            Totals& t = g[c.group];
            ++t.conns;
            connect_failed += c.failed ? 1 : 0;
            t.connected += c.connected ? 1 : 0;
            t.closed += c.closed ? 1 : 0;
            t.joined += c.join_at != 0 ? 1 : 0;
            if (c.frames > 0) {
                ++(c.first_key ? t.first_key : t.first_bad);
            }
            if (c.connected && c.group != kJoiner && c.last_frame_at < schedule.window_end - kSecond) {
                ++t.stalled;
                if (o.verbose) {
                    std::fprintf(stderr, "  stalled %s connection: %" PRIu64 " bytes, %" PRIu64
                                 " frames, last sequence %" PRId64 ", closed %d\n",
                                 kGroupName[c.group], c.total, c.frames, c.last_seq, c.closed ? 1 : 0);
                }
            }
            t.bytes += c.window_bytes;
            t.frames += c.window_frames;
            t.skipped += c.skipped;
            t.gaps += c.gaps;
            t.resync_key += c.resync_key;
            t.resync_bad += c.resync_bad;
            t.backwards += c.backwards;
            t.torn += c.torn;
            t.mismatch += c.mismatch;
            if (c.group != kJoiner) {
                const double fps = static_cast<double>(c.window_frames) / window;
                t.fps_min = t.fps_min < 0 ? fps : std::min(t.fps_min, fps);
            }
            if (c.group == kNormal) {
                if (c.join_at == 0) {
                    all_normal_joined = false;
                } else {
                    last_normal_join = std::max(last_normal_join, c.join_at);
                }
            }
        }
    }
    std::uint64_t bytes = 0;
    for (const Totals& t : g) {
        bytes += t.bytes;
    }
    const double mb = static_cast<double>(bytes) / 1e6;
    const double ms_per_mb = mb > 0 ? server_cpu * window * 1e3 / mb : 0;
    const double all_joined_s =
        all_normal_joined && g[kNormal].conns > 0 ? static_cast<double>(last_normal_join - schedule.start) / 1e9 : -1;

    std::fprintf(stderr,
                 "%d connections (%d slow, %d joiners): %.1f MB in %.2f s (%.1f MB/s); server %.3f cores, "
                 "%.3f ms CPU per MB; client %.2f cores, other %.2f\n",
                 o.connections, g[kSlow].conns, g[kJoiner].conns, mb, window, mb / window, server_cpu, ms_per_mb,
                 client_cpu, other_cpu);
    for (int k = 0; k < kGroups; ++k) {
        const Totals& t = g[k];
        if (t.conns == 0) {
            continue;
        }
        std::fprintf(stderr,
                     "  %s: %d conns, %d connected, %d joined, %d closed, %d stalled; first key %d, bad %d; "
                     "join p50 %.1f ms max %.1f ms; %" PRIu64 " frames, latency p50 %.2f p99 %.2f max %.2f ms; "
                     "skipped %" PRIu64 " in %" PRIu64 " gaps, resync key %" PRIu64 " bad %" PRIu64
                     "; torn %" PRIu64 ", mismatch %" PRIu64 ", backwards %" PRIu64 "\n",
                     kGroupName[k], t.conns, t.connected, t.joined, t.closed, t.stalled, t.first_key, t.first_bad,
                     Ms(t.join.Quantile(0.5)), Ms(t.join.Quantile(1.0)), t.frames, Ms(t.latency.Quantile(0.5)),
                     Ms(t.latency.Quantile(0.99)), static_cast<double>(t.latency_max) / 1e6, t.skipped, t.gaps,
                     t.resync_key, t.resync_bad, t.torn, t.mismatch, t.backwards);
    }

    std::printf("RESULT window_s=%.3f mb=%.3f mb_per_s=%.3f server_cpu=%.4f server_ms_per_mb=%.4f client_cpu=%.3f "
                "other_cpu=%.3f connect_failed=%d all_joined_s=%.3f",
                window, mb, mb / window, server_cpu, ms_per_mb, client_cpu, other_cpu, connect_failed, all_joined_s);
    for (int k = 0; k < kGroups; ++k) {
        const Totals& t = g[k];
        const char* p = kGroupName[k];
        std::printf(" %s_conns=%d %s_connected=%d %s_closed=%d %s_joined=%d %s_first_key=%d %s_first_bad=%d"
                    " %s_join_p50_ms=%.2f %s_join_max_ms=%.2f %s_mb=%.3f %s_frames=%" PRIu64 " %s_fps_min=%.2f"
                    " %s_lat_p50_ms=%.3f %s_lat_p99_ms=%.3f %s_lat_max_ms=%.3f %s_skipped=%" PRIu64
                    " %s_gaps=%" PRIu64 " %s_resync_key=%" PRIu64 " %s_resync_bad=%" PRIu64 " %s_backwards=%" PRIu64
                    " %s_torn=%" PRIu64 " %s_mismatch=%" PRIu64 " %s_stalled=%d",
                    p, t.conns, p, t.connected, p, t.closed, p, t.joined, p, t.first_key, p, t.first_bad, p,
                    Ms(t.join.Quantile(0.5)), p, Ms(t.join.Quantile(1.0)), p, static_cast<double>(t.bytes) / 1e6, p,
                    t.frames, p, std::max(t.fps_min, 0.0), p, Ms(t.latency.Quantile(0.5)), p,
                    Ms(t.latency.Quantile(0.99)), p, static_cast<double>(t.latency_max) / 1e6, p, t.skipped, p,
                    t.gaps, p, t.resync_key, p, t.resync_bad, p, t.backwards, p, t.torn, p, t.mismatch, p,
                    t.stalled);
    }
    std::printf("\n");
    return 0;
}
