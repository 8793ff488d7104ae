// Load client of the reliable-UDP echo benchmark.
//
//   srt_echo_client --port P [--host 127.0.0.1] [--connections N] [--size BYTES]
//                   [--rate MSG_PER_S] [--latency MS] [--warmup S] [--duration S]
//                   [--connect-wait S] [--server-pid PID]
//
// Opens N caller connections in live mode (SRTO_LATENCY MS on each), one after the other,
// retrying for --connect-wait seconds while the server starts. One thread then sends on
// every connection BYTES-byte messages at MSG_PER_S each (the connections' sends spread
// evenly over the period); another waits in srt_epoll_uwait and reads the echoes.
// Each message carries its connection, its sequence number and its send time
// (CLOCK_MONOTONIC, taken just before srt_sendmsg), and the rest is a pattern of those;
// an echo must come back on its own connection, whole and unchanged (else it counts as
// bad). Its round trip is the time it was read minus its send time. Both ways pass the
// receiving side's latency budget, so a round trip holds two of them.
//
// Sending stops after --warmup + --duration seconds; reading goes on for two budgets and
// 300 ms more, so that what was sent can come back. Messages, bytes and round trips
// count for the echoes read inside the window (the --duration seconds after the
// warm-up); at the window's two ends the server's user+sys time is read from
// /proc/PID/stat, with this process's and the machine's.
//
// Prints a summary on stderr and one line on stdout:
//   RESULT window_s=.. messages=.. mb=.. mb_per_s=.. rtt_p50_us=.. rtt_p99_us=.. rtt_max_us=..
//          sent=.. echoed=.. missing=.. bad=.. send_failed=.. closed=.. connected=..
//          server_cpu=.. server_ms_per_mb=.. client_cpu=.. other_cpu=..
// (MB: 10^6 bytes echoed back; *_cpu in cores; missing: sent and never echoed.) Exit
// status 1 when no connection could be made or the options are bad (2).
#include "../client/ProcStat.h"
#include "Samples.h"
#include "SrtBench.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

using namespace SrtBench;

constexpr std::size_t kHeader = 4 + 8 + 8;  // connection, sequence, send time

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    int connections = 1;
    int size = kLivePayload;
    double rate = 1000;
    int latency_ms = -1;
    double warmup = 1;
    double duration = 5;
    double connect_wait = 10;
    int server_pid = 0;
};

[[noreturn]] void Usage()
{
    std::fprintf(stderr,
                 "usage: srt_echo_client --port P [--host 127.0.0.1] [--connections N] [--size BYTES]\n"
                 "                       [--rate MSG_PER_S] [--latency MS] [--warmup S] [--duration S]\n"
                 "                       [--connect-wait S] [--server-pid PID]\n");
    std::exit(2);
}

Options ParseOptions(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 >= argc) {
            Usage();
        }
        const std::string arg = argv[i];
        const char* v = argv[i + 1];
        if (arg == "--host") {
            o.host = v;
        } else if (arg == "--port") {
            o.port = std::atoi(v);
        } else if (arg == "--connections") {
            o.connections = std::atoi(v);
        } else if (arg == "--size") {
            o.size = std::atoi(v);
        } else if (arg == "--rate") {
            o.rate = std::atof(v);
        } else if (arg == "--latency") {
            o.latency_ms = std::atoi(v);
        } else if (arg == "--warmup") {
            o.warmup = std::atof(v);
        } else if (arg == "--duration") {
            o.duration = std::atof(v);
        } else if (arg == "--connect-wait") {
            o.connect_wait = std::atof(v);
        } else if (arg == "--server-pid") {
            o.server_pid = std::atoi(v);
        } else {
            Usage();
        }
    }
    sockaddr_in probe{};
    if (!MakeAddress(o.host, o.port, probe) || o.connections < 1 || o.connections > 1000 ||
        o.size < static_cast<int>(kHeader) || o.size > kLivePayload || o.rate <= 0 || o.rate > 100000 ||
        o.latency_ms > 10000 || o.warmup < 0 || o.warmup > 600 || o.duration <= 0 || o.duration > 600 ||
        o.connect_wait < 0 || o.connect_wait > 600) {
        Usage();
    }
    return o;
}

void Put(char* p, std::uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        p[i] = static_cast<char>(value >> (8 * i));
    }
}

std::uint64_t Get(const char* p, int bytes)
{
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        value |= static_cast<std::uint64_t>(static_cast<unsigned char>(p[i])) << (8 * i);
    }
    return value;
}

char Pattern(std::uint64_t conn, std::uint64_t seq, std::size_t i)
{
    return static_cast<char>(conn * 131 + seq * 31 + i * 7);
}

/// A connected caller, blocking until connected, retried until `deadline`.
SRTSOCKET ConnectOne(const Options& o, std::int64_t deadline)
{
    sockaddr_in addr{};
    MakeAddress(o.host, o.port, addr);
    for (;;) {
        const SRTSOCKET s = srt_create_socket();
        if (s == SRT_INVALID_SOCK) {
            std::fprintf(stderr, "srt_echo_client: srt_create_socket: %s\n", srt_getlasterror_str());
            return s;
        }
        if (SetLiveOptions(s, o.latency_ms, true) &&
            srt_connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != SRT_ERROR) {
            if (SetBlocking(s, false)) {
                return s;
            }
        }
        const std::string why = srt_getlasterror_str();
        srt_close(s);
        if (Now() >= deadline) {
            std::fprintf(stderr, "srt_echo_client: connect to %s:%d: %s\n", o.host.c_str(), o.port, why.c_str());
            return SRT_INVALID_SOCK;
        }
        SleepUntil(Now() + 50 * kMs);
    }
}

EchoBench::CpuSample Take(int pid)
{
    return EchoBench::TakeCpuSample(pid, Now());
}

}  // namespace

int main(int argc, char** argv)
{
    const Options o = ParseOptions(argc, argv);
    srt_startup();
    srt_setloglevel(LOG_ERR);

    std::vector<SRTSOCKET> socks;
    std::unordered_map<SRTSOCKET, std::uint32_t> index;
    const std::int64_t deadline = Now() + static_cast<std::int64_t>(o.connect_wait * 1e9);
    for (int i = 0; i < o.connections; ++i) {
        const SRTSOCKET s = ConnectOne(o, deadline);
        if (s == SRT_INVALID_SOCK) {
            break;
        }
        index[s] = static_cast<std::uint32_t>(socks.size());
        socks.push_back(s);
    }
    if (socks.empty()) {
        srt_cleanup();
        return 1;
    }
    const int connected = static_cast<int>(socks.size());
    const int epoll = srt_epoll_create();
    const int events = SRT_EPOLL_IN | SRT_EPOLL_ERR;
    for (SRTSOCKET s : socks) {
        srt_epoll_add_usock(epoll, s, &events);
    }

    const std::int64_t start = Now() + 20 * kMs;
    const std::int64_t window_begin = start + static_cast<std::int64_t>(o.warmup * 1e9);
    const std::int64_t window_end = window_begin + static_cast<std::int64_t>(o.duration * 1e9);
    const std::int64_t budget = o.latency_ms >= 0 ? o.latency_ms : 120;
    const std::int64_t read_end = window_end + 2 * budget * kMs + 300 * kMs;

    std::atomic<std::uint64_t> sent{0};
    std::uint64_t send_failed = 0;
    std::thread sender([&] {
        // Message j goes to connection j % N at start + j / (N * rate).
        const double period = 1e9 / (o.rate * static_cast<double>(socks.size()));
        std::vector<char> msg(static_cast<std::size_t>(o.size));
        std::vector<std::uint64_t> seq(socks.size(), 0);
        for (std::uint64_t j = 0;; ++j) {
            const std::int64_t due = start + static_cast<std::int64_t>(static_cast<double>(j) * period);
            if (due >= window_end) {
                break;
            }
            SleepUntil(due);
            const std::size_t c = j % socks.size();
            const std::uint64_t n = seq[c]++;
            for (std::size_t i = kHeader; i < msg.size(); ++i) {
                msg[i] = Pattern(c, n, i);
            }
            Put(msg.data(), c, 4);
            Put(msg.data() + 4, n, 8);
            Put(msg.data() + 12, static_cast<std::uint64_t>(Now()), 8);
            if (srt_sendmsg(socks[c], msg.data(), o.size, -1, 1) == o.size) {
                sent.fetch_add(1, std::memory_order_relaxed);
            } else {
                ++send_failed;
            }
        }
    });

    Samples rtt;
    std::int64_t rtt_max = 0;
    std::uint64_t messages = 0, bytes = 0, echoed = 0, bad = 0, closed = 0;
    EchoBench::CpuSample first, last;
    bool took_first = false, took_last = false;
    std::vector<SRT_EPOLL_EVENT> ready(1024);
    std::vector<char> buf(1500);
    for (;;) {
        std::int64_t now = Now();
        if (!took_first && now >= window_begin) {
            first = Take(o.server_pid);
            took_first = true;
        }
        if (!took_last && now >= window_end) {
            last = Take(o.server_pid);
            took_last = true;
        }
        if (now >= read_end) {
            break;
        }
        const std::int64_t next = !took_first ? window_begin : !took_last ? window_end : read_end;
        const std::int64_t wait_ms = std::clamp<std::int64_t>((next - now + kMs - 1) / kMs, 0, 100);
        const int n = srt_epoll_uwait(epoll, ready.data(), static_cast<int>(ready.size()), wait_ms);
        for (int k = 0; k < n && k < static_cast<int>(ready.size()); ++k) {
            const SRTSOCKET s = ready[static_cast<std::size_t>(k)].fd;
            for (;;) {
                const int got = srt_recvmsg(s, buf.data(), static_cast<int>(buf.size()));
                if (got < 0) {
                    if (!WouldBlock()) {
                        ++closed;
                        srt_epoll_remove_usock(epoll, s);
                    }
                    break;
                }
                now = Now();
                ++echoed;
                const auto it = index.find(s);
                const std::uint64_t c = it != index.end() ? it->second : ~std::uint64_t{0};
                bool ok = got == o.size && Get(buf.data(), 4) == c;
                const std::uint64_t n_seq = Get(buf.data() + 4, 8);
                for (std::size_t i = kHeader; ok && i < static_cast<std::size_t>(got); ++i) {
                    ok = buf[i] == Pattern(c, n_seq, i);
                }
                if (!ok) {
                    ++bad;
                    continue;
                }
                if (now >= window_begin && now < window_end) {
                    const std::int64_t d = now - static_cast<std::int64_t>(Get(buf.data() + 12, 8));
                    rtt.Add(static_cast<std::uint64_t>(std::max<std::int64_t>(d, 0)));
                    rtt_max = std::max(rtt_max, d);
                    ++messages;
                    bytes += static_cast<std::uint64_t>(got);
                }
            }
        }
    }
    sender.join();
    for (SRTSOCKET s : socks) {
        srt_close(s);
    }
    srt_epoll_release(epoll);
    srt_cleanup();

    const EchoBench::CpuShares cpu = EchoBench::CpuBetween(first, last, o.server_pid, "srt_echo_client");
    const double window = cpu.window_s;
    const double server_cpu = cpu.server;
    const double client_cpu = cpu.client;
    const double other_cpu = cpu.other;
    const double mb = static_cast<double>(bytes) / 1e6;
    const double ms_per_mb = mb > 0 ? server_cpu * window * 1e3 / mb : 0;
    const std::uint64_t total_sent = sent.load();
    const std::uint64_t missing = total_sent > echoed ? total_sent - echoed : 0;
    const double us = 1e3;

    std::fprintf(stderr,
                 "%d of %d connections, %d B at %.0f/s each: %" PRIu64 " echoes in %.2f s (%.3f MB), round trip "
                 "p50 %.1f p99 %.1f max %.1f us; sent %" PRIu64 ", missing %" PRIu64 ", bad %" PRIu64
                 ", send failed %" PRIu64 ", closed %" PRIu64 "; server %.3f cores, %.3f ms per MB; client %.2f, "
                 "other %.2f\n",
                 connected, o.connections, o.size, o.rate, messages, window, mb,
                 static_cast<double>(rtt.Quantile(0.5)) / us, static_cast<double>(rtt.Quantile(0.99)) / us,
                 static_cast<double>(rtt_max) / us, total_sent, missing, bad, send_failed, closed, server_cpu,
                 ms_per_mb, client_cpu, other_cpu);
    std::printf("RESULT window_s=%.3f messages=%" PRIu64 " mb=%.3f mb_per_s=%.3f rtt_p50_us=%.1f rtt_p99_us=%.1f "
                "rtt_max_us=%.1f sent=%" PRIu64 " echoed=%" PRIu64 " missing=%" PRIu64 " bad=%" PRIu64
                " send_failed=%" PRIu64 " closed=%" PRIu64 " connected=%d server_cpu=%.4f server_ms_per_mb=%.4f "
                "client_cpu=%.3f other_cpu=%.3f\n",
                window, messages, mb, mb / window, static_cast<double>(rtt.Quantile(0.5)) / us,
                static_cast<double>(rtt.Quantile(0.99)) / us, static_cast<double>(rtt_max) / us, total_sent,
                echoed, missing, bad, send_failed, closed, connected, server_cpu, ms_per_mb, client_cpu,
                other_cpu);
    return 0;
}
