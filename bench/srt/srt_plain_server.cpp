// The reliable-UDP benchmark's plain server: the same services as Corvane's, on one
// thread that waits in srt_epoll_uwait and does all the work itself.
//
//   srt_plain_server [--bind 127.0.0.1] [--latency MS] [--seconds S] echo PORT
//   srt_plain_server [--bind 127.0.0.1] [--latency MS] [--seconds S] fanout IN_PORT OUT_PORT
//
// echo: every message a caller on PORT sends comes back to it as it is.
// fanout: callers on IN_PORT publish (normally one); every message one of them sends goes
// to every receiver connected on OUT_PORT, from the moment it connected (the stream is
// not parsed). A receiver whose send buffer is full loses that message (live mode).
//
// All sockets are live mode with SRTO_LATENCY MS (the library's default when not given)
// and never block. Runs for --seconds (60) or until SIGTERM/SIGINT, then prints
//   PLAIN accepted=.. closed=.. messages_in=.. messages_out=.. bytes_out=.. send_dropped=..
// Exit status 1 when it cannot listen.
#include "SrtBench.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unordered_set>
#include <vector>

namespace {

using namespace SrtBench;

volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int) { g_stop = 1; }

struct Options {
    std::string bind = "127.0.0.1";
    int latency_ms = -1;
    double seconds = 60;
    bool fanout = false;
    int port = 0;      // echo, or the fan-out's input
    int out_port = 0;  // the fan-out's receivers
};

[[noreturn]] void Usage()
{
    std::fprintf(stderr,
                 "usage: srt_plain_server [--bind 127.0.0.1] [--latency MS] [--seconds S] echo PORT\n"
                 "       srt_plain_server [--bind 127.0.0.1] [--latency MS] [--seconds S] fanout IN_PORT OUT_PORT\n");
    std::exit(2);
}

Options ParseOptions(int argc, char** argv)
{
    Options o;
    int i = 1;
    for (; i + 1 < argc && std::strncmp(argv[i], "--", 2) == 0; i += 2) {
        const std::string arg = argv[i];
        const char* v = argv[i + 1];
        if (arg == "--bind") {
            o.bind = v;
        } else if (arg == "--latency") {
            o.latency_ms = std::atoi(v);
        } else if (arg == "--seconds") {
            o.seconds = std::atof(v);
        } else {
            Usage();
        }
    }
    if (i < argc && std::strcmp(argv[i], "echo") == 0 && i + 2 == argc) {
        o.port = std::atoi(argv[i + 1]);
    } else if (i < argc && std::strcmp(argv[i], "fanout") == 0 && i + 3 == argc) {
        o.fanout = true;
        o.port = std::atoi(argv[i + 1]);
        o.out_port = std::atoi(argv[i + 2]);
    } else {
        Usage();
    }
    sockaddr_in probe{};
    if (!MakeAddress(o.bind, o.port, probe) || (o.fanout && !MakeAddress(o.bind, o.out_port, probe)) ||
        o.seconds <= 0 || o.seconds > 3600 || o.latency_ms > 10000) {
        Usage();
    }
    return o;
}

SRTSOCKET Listen(const Options& o, int port)
{
    sockaddr_in addr{};
    MakeAddress(o.bind, port, addr);
    const SRTSOCKET s = srt_create_socket();
    if (s == SRT_INVALID_SOCK || !SetLiveOptions(s, o.latency_ms, false) ||
        srt_bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || srt_listen(s, 1024) != 0) {
        std::fprintf(stderr, "srt_plain_server: cannot listen on %s:%d: %s\n", o.bind.c_str(), port,
                     srt_getlasterror_str());
        if (s != SRT_INVALID_SOCK) {
            srt_close(s);
        }
        return SRT_INVALID_SOCK;
    }
    return s;
}

class Server {
public:
    explicit Server(const Options& o) : m_options(o) {}

    int Run()
    {
        m_epoll = srt_epoll_create();
        srt_epoll_set(m_epoll, SRT_EPOLL_ENABLE_EMPTY);
        m_in = Listen(m_options, m_options.port);
        if (m_in == SRT_INVALID_SOCK) {
            return 1;
        }
        if (m_options.fanout) {
            m_out = Listen(m_options, m_options.out_port);
            if (m_out == SRT_INVALID_SOCK) {
                return 1;
            }
        }
        const int accept_events = SRT_EPOLL_IN | SRT_EPOLL_ERR;
        srt_epoll_add_usock(m_epoll, m_in, &accept_events);
        if (m_out != SRT_INVALID_SOCK) {
            srt_epoll_add_usock(m_epoll, m_out, &accept_events);
        }
        std::printf("srt_plain_server: %s on %s port %d%s%s, latency %d ms\n", m_options.fanout ? "fanout" : "echo",
                    m_options.bind.c_str(), m_options.port, m_options.fanout ? " to port " : "",
                    m_options.fanout ? std::to_string(m_options.out_port).c_str() : "", m_options.latency_ms);
        std::fflush(stdout);

        const std::int64_t end = Now() + static_cast<std::int64_t>(m_options.seconds * 1e9);
        std::vector<SRT_EPOLL_EVENT> events(1024);
        while (!g_stop && Now() < end) {
            const int n = srt_epoll_uwait(m_epoll, events.data(), static_cast<int>(events.size()), 100);
            for (int k = 0; k < n && k < static_cast<int>(events.size()); ++k) {
                const SRTSOCKET s = events[static_cast<std::size_t>(k)].fd;
                const int what = events[static_cast<std::size_t>(k)].events;
                if (s == m_in || s == m_out) {
                    AcceptOne(s);
                } else if (what & SRT_EPOLL_IN) {
                    ReadAll(s);
                } else if (what & SRT_EPOLL_ERR) {
                    Drop(s);
                }
            }
        }
        for (SRTSOCKET s : m_sources) {
            srt_close(s);
        }
        for (SRTSOCKET s : m_receivers) {
            srt_close(s);
        }
        srt_close(m_in);
        if (m_out != SRT_INVALID_SOCK) {
            srt_close(m_out);
        }
        srt_epoll_release(m_epoll);
        std::printf("PLAIN accepted=%llu closed=%llu messages_in=%llu messages_out=%llu bytes_out=%llu "
                    "send_dropped=%llu\n",
                    m_accepted, m_closed, m_messages_in, m_messages_out, m_bytes_out, m_dropped);
        return 0;
    }

private:
    // One per readiness: the wait reports the listener again while more are pending, and
    // an accept with none pending would log an error.
    void AcceptOne(SRTSOCKET listener)
    {
        sockaddr_storage peer{};
        int len = sizeof peer;
        const SRTSOCKET s = srt_accept(listener, reinterpret_cast<sockaddr*>(&peer), &len);
        if (s == SRT_INVALID_SOCK) {
            return;
        }
        ++m_accepted;
        // Receivers of the fan-out send nothing: only their breaking matters.
        const int events = listener == m_out ? SRT_EPOLL_ERR : (SRT_EPOLL_IN | SRT_EPOLL_ERR);
        srt_epoll_add_usock(m_epoll, s, &events);
        (listener == m_out ? m_receivers : m_sources).insert(s);
    }

    void ReadAll(SRTSOCKET s)
    {
        for (;;) {
            const int n = srt_recvmsg(s, m_buf, sizeof m_buf);
            if (n < 0) {
                if (!WouldBlock()) {
                    Drop(s);
                }
                return;
            }
            if (n == 0) {
                continue;
            }
            ++m_messages_in;
            if (!m_options.fanout) {
                Send(s, n);
                continue;
            }
            for (auto it = m_receivers.begin(); it != m_receivers.end();) {
                const SRTSOCKET r = *it++;  // Send may drop r
                Send(r, n);
            }
        }
    }

    void Send(SRTSOCKET s, int n)
    {
        if (srt_sendmsg(s, m_buf, n, -1, 1) == n) {
            ++m_messages_out;
            m_bytes_out += static_cast<unsigned long long>(n);
        } else if (WouldBlock()) {
            ++m_dropped;
        } else {
            Drop(s);
        }
    }

    void Drop(SRTSOCKET s)
    {
        if (m_sources.erase(s) + m_receivers.erase(s) == 0) {
            return;
        }
        srt_epoll_remove_usock(m_epoll, s);
        srt_close(s);
        ++m_closed;
    }

    const Options& m_options;
    int m_epoll = -1;
    SRTSOCKET m_in = SRT_INVALID_SOCK;
    SRTSOCKET m_out = SRT_INVALID_SOCK;
    std::unordered_set<SRTSOCKET> m_sources;    // echo callers or publishers
    std::unordered_set<SRTSOCKET> m_receivers;  // fan-out receivers
    unsigned long long m_accepted = 0, m_closed = 0, m_messages_in = 0, m_messages_out = 0, m_bytes_out = 0,
                       m_dropped = 0;
    char m_buf[1500];
};

}  // namespace

int main(int argc, char** argv)
{
    const Options o = ParseOptions(argc, argv);
    struct sigaction action{};
    action.sa_handler = OnSignal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    srt_startup();
    srt_setloglevel(LOG_ERR);
    const int status = Server(o).Run();
    srt_cleanup();
    return status;
}
