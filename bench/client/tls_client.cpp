// Load client of the TLS benchmark (bench/run-tls), written on OpenSSL alone so that it
// favours no server. C threads each run one of:
//   --mode full     connect, full handshake, one 64-byte round trip, close; again
//   --mode resume   the same, offering the newest session of the thread's previous connection
//   --mode bulk     one connection writing --size byte blocks (16384) and reading each back
// Prints one line:
//   RESULT ops_per_s=.. mb_per_s=.. resumed=.. window_s=.. [server_cpu=.. server_us_per_op=..]
// ops are handshakes (full, resume) or blocks echoed (bulk); resumed is the share of
// handshakes that resumed; server CPU comes from /proc/PID/stat over the same window.
//
//   tls_client --port P [--host 127.0.0.1] [--mode full|resume|bulk] [--connections C]
//              [--size B] [--warmup S] [--duration S] [--server-pid PID]
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    int port = 0;
    std::string host = "127.0.0.1";
    std::string mode = "full";
    int connections = 4;
    int size = 16384;
    double warmup = 1;
    double duration = 5;
    int server_pid = 0;
};

[[noreturn]] void usage()
{
    std::fprintf(stderr,
                 "usage: tls_client --port P [--host ADDR] [--mode full|resume|bulk] [--connections C]\n"
                 "                  [--size B] [--warmup S] [--duration S] [--server-pid PID]\n");
    std::exit(2);
}

Options parse(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) usage();
        const char* value = argv[++i];
        if (arg == "--port") o.port = std::atoi(value);
        else if (arg == "--host") o.host = value;
        else if (arg == "--mode") o.mode = value;
        else if (arg == "--connections") o.connections = std::atoi(value);
        else if (arg == "--size") o.size = std::atoi(value);
        else if (arg == "--warmup") o.warmup = std::atof(value);
        else if (arg == "--duration") o.duration = std::atof(value);
        else if (arg == "--server-pid") o.server_pid = std::atoi(value);
        else usage();
    }
    if (o.port <= 0 || o.connections < 1 || o.size < 1 || o.duration <= 0 ||
        (o.mode != "full" && o.mode != "resume" && o.mode != "bulk")) {
        usage();
    }
    return o;
}

int connect_to(const Options& o)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<unsigned short>(o.port));
    ::inet_pton(AF_INET, o.host.c_str(), &addr.sin_addr);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

// Writes all of `len`, then reads exactly `len` back and checks it.
bool round_trip(SSL* ssl, const char* out, char* in, int len)
{
    for (int sent = 0; sent < len;) {
        const int n = SSL_write(ssl, out + sent, len - sent);
        if (n <= 0) return false;
        sent += n;
    }
    for (int got = 0; got < len;) {
        const int n = SSL_read(ssl, in + got, len - got);
        if (n <= 0) return false;
        got += n;
    }
    return std::memcmp(in, out, static_cast<std::size_t>(len)) == 0;
}

struct Counters {
    std::atomic<long long> ops{0};
    std::atomic<long long> resumed{0};
    std::atomic<long long> bytes{0};
    std::atomic<bool> failed{false};
};

void handshakes(const Options& o, SSL_CTX* ctx, const Clock::time_point& start, const Clock::time_point& end,
                Counters& c)
{
    SSL_SESSION* session = nullptr;
    char out[64], in[64];
    std::memset(out, 'h', sizeof out);
    while (Clock::now() < end && !c.failed) {
        const int fd = connect_to(o);
        SSL* ssl = fd >= 0 ? SSL_new(ctx) : nullptr;
        if (!ssl) {
            c.failed = true;
            if (fd >= 0) ::close(fd);
            break;
        }
        SSL_set_fd(ssl, fd);
        if (o.mode == "resume" && session) SSL_set_session(ssl, session);
        // The round trip also takes in the session tickets a TLS 1.3 server sends.
        const bool ok = SSL_connect(ssl) == 1 && round_trip(ssl, out, in, sizeof out);
        if (!ok) c.failed = true;
        if (ok && Clock::now() >= start) {
            c.ops.fetch_add(1);
            if (SSL_session_reused(ssl)) c.resumed.fetch_add(1);
        }
        // The newest session each time: a TLS 1.3 ticket is meant for one resumption.
        if (ok && o.mode == "resume") {
            SSL_SESSION_free(session);
            session = SSL_get1_session(ssl);
        }
        SSL_shutdown(ssl);
        SSL_free(ssl);
        ::close(fd);
    }
    SSL_SESSION_free(session);
}

void bulk(const Options& o, SSL_CTX* ctx, const Clock::time_point& start, const Clock::time_point& end, Counters& c)
{
    const int fd = connect_to(o);
    SSL* ssl = fd >= 0 ? SSL_new(ctx) : nullptr;
    if (!ssl || (SSL_set_fd(ssl, fd), SSL_connect(ssl)) != 1) {
        c.failed = true;
        if (ssl) SSL_free(ssl);
        if (fd >= 0) ::close(fd);
        return;
    }
    std::vector<char> out(static_cast<std::size_t>(o.size)), in(out.size());
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<char>(i * 7);
    while (Clock::now() < end && !c.failed) {
        if (!round_trip(ssl, out.data(), in.data(), o.size)) {
            c.failed = true;
            break;
        }
        if (Clock::now() >= start) {
            c.ops.fetch_add(1);
            c.bytes.fetch_add(o.size);
        }
    }
    SSL_shutdown(ssl);
    SSL_free(ssl);
    ::close(fd);
}

// user + sys clock ticks of a process; -1 when unreadable.
long long cpu_ticks(int pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return -1;
    const std::size_t close = line.rfind(')');
    if (close == std::string::npos) return -1;
    // After the command come the state (field 3) and the rest; utime and stime are the
    // fields 14 and 15.
    std::istringstream fields(line.substr(close + 2));
    std::string value;
    long long utime = -1, stime = -1;
    for (int field = 3; field <= 15 && fields >> value; ++field) {
        if (field == 14) utime = std::atoll(value.c_str());
        if (field == 15) stime = std::atoll(value.c_str());
    }
    return utime < 0 || stime < 0 ? -1 : utime + stime;
}

}  // namespace

int main(int argc, char** argv)
{
    const Options o = parse(argc, argv);
    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    // Sessions are kept by the threads themselves, never by OpenSSL's internal cache.
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);

    Counters counters;
    const Clock::time_point start = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                       std::chrono::duration<double>(o.warmup));
    const Clock::time_point end =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.duration));
    long long ticks_before = -1;
    std::thread sampler([&] {
        std::this_thread::sleep_until(start);
        if (o.server_pid > 0) ticks_before = cpu_ticks(o.server_pid);
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < o.connections; ++i) {
        threads.emplace_back([&] {
            if (o.mode == "bulk") bulk(o, ctx, start, end, counters);
            else handshakes(o, ctx, start, end, counters);
        });
    }
    sampler.join();
    for (auto& t : threads) t.join();
    const long long ticks_after = o.server_pid > 0 ? cpu_ticks(o.server_pid) : -1;
    SSL_CTX_free(ctx);
    if (counters.failed) {
        std::fprintf(stderr, "tls_client: a connection failed\n");
        return 1;
    }
    const double window = o.duration;
    const double ops = static_cast<double>(counters.ops.load());
    std::printf("RESULT ops_per_s=%.0f mb_per_s=%.2f resumed=%.3f window_s=%.3f", ops / window,
                static_cast<double>(counters.bytes.load()) / window / 1e6,
                ops > 0 ? static_cast<double>(counters.resumed.load()) / ops : 0.0, window);
    if (ticks_before >= 0 && ticks_after >= 0 && ops > 0) {
        const double cpu = static_cast<double>(ticks_after - ticks_before) / static_cast<double>(sysconf(_SC_CLK_TCK));
        std::printf(" server_cpu=%.3f server_us_per_op=%.2f", cpu / window, cpu / ops * 1e6);
    }
    std::printf("\n");
    return 0;
}
