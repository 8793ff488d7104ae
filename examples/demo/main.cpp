// The Corvane demo: a public and a private thread pool, handlers that play ping-pong by
// object id across the pools, serial messages, periodic timers, the reactor's echo
// server driven by clients over loopback, a TLS echo whose second connection resumes
// the first one's session, its own report sent many times over through a send queue
// to a slow reader, a generated media stream fanned out to several receivers (one of
// them slow, resuming at key frames after losing frames to aging), and a clean shutdown
// in which every handler is released. It prints what happened and how fast.
//
//   corvane_demo [--seconds S] [--pairs N] [--timers T] [--clients C] [--log-level L]
//
// The library logs errors only (level 2) unless --log-level says otherwise. At its default
// level 3 a clean run also writes lines that describe normal events, not faults: the
// console's "InitConsoleDebug ok! run happy.", "SSL_peek error! ... SSL_get_error=6" when
// a TLS peer closes the connection cleanly (6 is the close notice), and a buffer's Clear
// at shutdown. The demo reports every outcome itself, so it leaves them out.
#include <Corvane/Corvane.h>

#include "../echo_server/EchoServer.h"
#include "FanoutRun.h"
#include "SlowReaderRun.h"
#if CORVANE_HAVE_TLS
#include "../tls_echo/TlsEcho.h"
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Qelvar::Corvane::CNetHandler;
using Qelvar::Corvane::CNetThread;
using Qelvar::Corvane::CSockAddrIPv4;
using Qelvar::Corvane::CSockStream;
using Clock = std::chrono::steady_clock;

constexpr unsigned int kBall = 1;    // a ping-pong message: attach counts the hits
constexpr unsigned int kSerial = 2;  // a serial message: attach is its sequence number

struct Settings {
    double seconds = 1.0;
    int pairs = 4;
    int timers = 8;
    int clients = 4;
    int log_level = Qelvar::Fundel::LOG_ERROR;
    long long timer_us = 20000;
};

/// Counts released handlers; main waits on it before tearing the pools down.
class Releases {
public:
    void Add()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count;
        m_cv.notify_all();
    }
    bool WaitFor(int n)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::seconds(10), [&] { return m_count >= n; });
    }
    int Count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    int m_count = 0;
};

/// A handler that deletes itself when released and says so.
class DemoHandler : public CNetHandler {
public:
    DemoHandler(int pool, Releases& releases) : CNetHandler(pool), m_releases(releases) {}

    int handle_close(CNetHandler*) override
    {
        Releases& releases = m_releases;
        delete this;
        releases.Add();
        return 0;
    }

private:
    Releases& m_releases;
};

/// Returns every ball it receives to the sender until the game is over.
class Player : public DemoHandler {
public:
    Player(int pool, Releases& releases, std::atomic<bool>& playing, std::atomic<long long>& hits)
        : DemoHandler(pool, releases), m_playing(playing), m_hits(hits)
    {
    }

    void Serve(long to) { Notify(to, kBall, 0); }

    int handle_message(long from_id, unsigned int type, long attach) override
    {
        if (type != kBall) return 0;
        m_hits.fetch_add(1, std::memory_order_relaxed);
        if (m_playing.load(std::memory_order_relaxed)) Notify(from_id, kBall, attach + 1);
        return 0;
    }

private:
    std::atomic<bool>& m_playing;
    std::atomic<long long>& m_hits;
};

/// Receives serial messages and checks that they come one at a time, in order.
class SerialReader : public DemoHandler {
public:
    using DemoHandler::DemoHandler;

    void Post(long to, long seq) { NotifySerial(to, kSerial, seq, 0); }

    int handle_message(long, unsigned int type, long attach) override
    {
        if (type != kSerial) return 0;
        if (attach != m_expected) m_out_of_order.fetch_add(1);
        m_expected = attach + 1;
        m_received.fetch_add(1);
        return 0;
    }

    long Received() const { return m_received.load(); }
    long OutOfOrder() const { return m_out_of_order.load(); }

private:
    long m_expected = 0;  // touched by one thread at a time: serial messages never overlap
    std::atomic<long> m_received{0};
    std::atomic<long> m_out_of_order{0};
};

/// A periodic timer that records how far each firing was from the one before.
class Metronome : public DemoHandler {
public:
    Metronome(int pool, Releases& releases, long long interval_us)
        : DemoHandler(pool, releases), m_interval_us(interval_us)
    {
    }

    void Start()
    {
        m_last = Clock::now();
        SetTimer(m_interval_us);
    }
    void Stop() { m_running.store(false); }

    long long handle_timeout(long) override
    {
        const auto now = Clock::now();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_intervals.push_back(std::chrono::duration<double, std::micro>(now - m_last).count());
        }
        m_last = now;
        return m_running.load() ? 0 : -1;  // 0: again at the same interval
    }

    std::vector<double> Intervals()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_intervals;
    }

private:
    long long m_interval_us;
    Clock::time_point m_last;
    std::atomic<bool> m_running{true};
    std::mutex m_mutex;
    std::vector<double> m_intervals;
};

// The lines of the demo's report: printed, and kept for the stream-sender run.
std::string g_report;

void say(const char* fmt, ...)
#if defined(__clang__)
    __attribute__((format(printf, 1, 2)))
#elif defined(__GNUC__)
    __attribute__((format(gnu_printf, 1, 2)))
#endif
    ;

void say(const char* fmt, ...)
{
    char line[1024];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    std::fputs(line, stdout);
    g_report += line;
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const auto i = static_cast<std::size_t>(p * static_cast<double>(v.size() - 1));
    return v[i];
}

/// The reactor's echo server (examples/echo_server) on the public pool, driven over
/// loopback by `clients` blocking client threads that each send 64-byte messages and
/// check every echo byte for byte. Prints the rate and round-trip times; false when
/// anything failed.
bool echo_round_trips(int clients, double seconds)
{
    Echo::SEchoStats stats;
    auto* server = new Echo::CEchoServer(0, stats);
    const CSockAddrIPv4 local("127.0.0.1", 0);
    if (server->Start(local) != 0) {
        server->Stop();
        return false;
    }
    const CSockAddrIPv4 at("127.0.0.1", server->Port());

    std::mutex mutex;
    std::vector<double> rtts;  // microseconds
    std::atomic<bool> failed{false};
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            CSockStream client;
            client.SetBlockOpt(true);
            if (client.Connect(at, nullptr) != 0 || client.SetSockNoDelay(true) != 0) {
                failed = true;
                return;
            }
            std::vector<double> mine;
            char out[64], in[64];
            for (long n = 0; Clock::now() < end && !failed; ++n) {
                std::snprintf(out, sizeof out, "client %d message %ld", c, n);
                const auto sent = Clock::now();
                bool ok = client.Send_n(out, sizeof out, 5000000) == static_cast<int>(sizeof out);
                for (unsigned int got = 0; ok && got < sizeof in;) {
                    const int r = client.Recv_n(in + got, sizeof in - got, 5000000);
                    ok = r > 0;
                    got += ok ? static_cast<unsigned int>(r) : 0;
                }
                if (!ok || std::memcmp(in, out, sizeof out) != 0) {
                    failed = true;
                    break;
                }
                mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
            }
            std::lock_guard<std::mutex> lock(mutex);
            rtts.insert(rtts.end(), mine.begin(), mine.end());
        });
    }
    for (auto& t : threads) t.join();
    server->Stop();
    // The connections end as they see their clients' close.
    for (int i = 0; i < 500 && stats.closed.load() < stats.accepted.load(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    say("  reactor echo server: %d clients x 64 bytes for %.1f s, %zu round trips checked, %.0f round trips/s, "
                "round trip p50 %.1f us, p99 %.1f us\n",
                clients, seconds, rtts.size(), static_cast<double>(rtts.size()) / seconds, percentile(rtts, 0.5),
                percentile(rtts, 0.99));
    return !failed && !rtts.empty();
}

// Two TLS connections to the reactor-driven TLS echo server, each checking its round
// trips; the second offers the session of the first.
bool tls_round_trips()
{
#if CORVANE_HAVE_TLS
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::path dir = fs::temp_directory_path(ec) / ("corvane-demo-cert-" + std::to_string(Clock::now().time_since_epoch().count()));
    if (!TlsEcho::EnsureCertificate(dir.string())) {
        say("  TLS echo: no certificate could be made in %s\n", dir.string().c_str());
        return false;
    }
    auto* server = new TlsEcho::CTlsEchoServer(0);
    bool ok = server->Start(CSockAddrIPv4("127.0.0.1", 0), dir.string()) == 0;
    const CSockAddrIPv4 at("127.0.0.1", ok ? server->Port() : 0);
    unsigned int session = 0;
    TlsEcho::SClientResult first, second;
    if (ok) first = (new TlsEcho::CTlsEchoClient(0, 200, 64))->Start(at, &session).get();
    if (ok && first.ok) second = (new TlsEcho::CTlsEchoClient(0, 200, 64))->Start(at, &session).get();
    server->Stop();
    fs::remove_all(dir, ec);
    ok = ok && first.ok && second.ok && !first.resumed && second.resumed;
    say("  TLS echo: 2 connections x %d round trips of 64 bytes checked (%.0f and %.0f round trips/s); "
                "second connection resumed the first one's session: %s\n",
                first.round_trips, first.round_trips / std::max(first.seconds, 1e-9),
                second.round_trips / std::max(second.seconds, 1e-9), second.resumed ? "yes" : "no");
    return ok;
#else
    say("  TLS echo: not in this build (no OpenSSL)\n");
    return true;
#endif
}

// A generated stream through a media buffer to fast receivers and a slow one.
bool fanout()
{
    const Fanout::SResult r = Fanout::Run();
    if (r.frames == 0) {
        for (const std::string& f : r.failures) say("  fan-out FAILED: %s\n", f.c_str());
        return false;
    }
    std::string fast;
    bool all_fast = true, fast_key = true, fast_whole = true;
    for (int i = 0; i < Fanout::kSlow; ++i) {
        const Fanout::SReceiverReport& rep = r.receivers[static_cast<std::size_t>(i)];
        if (i) fast += '/';
        fast += std::to_string(rep.frames);
        all_fast = all_fast && rep.frames == r.frames;
        fast_key = fast_key && rep.first_key;
        fast_whole = fast_whole && rep.whole;
    }
    fast = (all_fast ? "all " : fast + " of ") + std::to_string(r.frames);
    const Fanout::SReceiverReport& slow = r.receivers[Fanout::kSlow];
    const std::string resumed = slow.gaps_at_key == slow.gaps
                                    ? "each resumed at a key frame"
                                    : std::to_string(slow.gaps_at_key) + " resumed at a key frame";
    const std::string released =
        r.released_once == r.packets
            ? std::to_string(r.packets) + " packets released once each"
            : std::to_string(r.released_once) + " of " + std::to_string(r.packets) + " packets released once";
    say("  fan-out: %d frames at %d fps (%d packets, %.0f KiB) to %d receivers in %.2f s; %d fast ones got %s%s, %s; "
        "the slow one (%d bytes every %d ms) got %d%s, %s, skipping %d in %d gaps, %s; %llu frames aged out, "
        "at most %.0f KiB buffered; %s\n",
        r.frames, r.fps, r.packets, static_cast<double>(r.bytes) / 1024, Fanout::kReceivers, r.put_seconds,
        Fanout::kSlow, fast.c_str(), fast_key ? " from a key frame" : "", fast_whole ? "byte-exact" : "NOT byte-exact",
        r.slow_chunk, r.slow_pause_ms, slow.frames, slow.first_key ? " from a key frame" : "",
        slow.whole ? "byte-exact" : "NOT byte-exact", slow.skipped, slow.gaps, resumed.c_str(),
        static_cast<unsigned long long>(r.aged_frames), static_cast<double>(r.peak_buffered) / 1024, released.c_str());
    for (const std::string& f : r.failures) say("  fan-out FAILED: %s\n", f.c_str());
    return r.ok();
}

bool parse(int argc, char** argv, Settings& s)
{
    for (int i = 1; i < argc; ++i) {
        const bool has_value = i + 1 < argc;
        if (std::strcmp(argv[i], "--seconds") == 0 && has_value) s.seconds = std::atof(argv[++i]);
        else if (std::strcmp(argv[i], "--pairs") == 0 && has_value) s.pairs = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--timers") == 0 && has_value) s.timers = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--clients") == 0 && has_value) s.clients = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--log-level") == 0 && has_value) s.log_level = std::atoi(argv[++i]);
        else return false;
    }
    return s.seconds > 0 && s.seconds <= 60 && s.pairs >= 1 && s.pairs <= 1000 && s.timers >= 0 && s.timers <= 1000 &&
           s.clients >= 1 && s.clients <= 256 && s.log_level >= Qelvar::Fundel::LOG_FATAL &&
           s.log_level <= Qelvar::Fundel::LOG_DEBUG;
}

}  // namespace

int main(int argc, char** argv)
{
    Settings settings;
    if (!parse(argc, argv, settings)) {
        std::fprintf(stderr,
                     "usage: %s [--seconds 0..60] [--pairs 1..1000] [--timers 0..1000] [--clients 1..256] "
                     "[--log-level 1..6]\n",
                     argv[0]);
        return 2;
    }
    Qelvar::Fundel::SetLogLevel(settings.log_level);

    std::printf("Corvane demo\n");
    if (CNetThread::CreateThreadPool(1) != 0) {
        say("  could not create the public pool\n");
        return 1;
    }
    const int priv = CNetThread::CreatePrivatePool(1);
    if (priv < 1) {
        say("  could not create a private pool\n");
        CNetThread::DestroyThreadPool();
        return 1;
    }
    say("  public pool 0 and private pool %d are running\n", priv);

    Releases releases;
    int handlers = 0;

    // Ping-pong by object id between the two pools.
    std::atomic<bool> playing{true};
    std::atomic<long long> hits{0};
    std::vector<Player*> players;
    for (int i = 0; i < settings.pairs; ++i) {
        auto* left = new Player(0, releases, playing, hits);
        auto* right = new Player(priv, releases, playing, hits);
        players.push_back(left);
        players.push_back(right);
        handlers += 2;
    }

    // Periodic timers on both pools, running while the game is on.
    std::vector<Metronome*> metronomes;
    for (int i = 0; i < settings.timers; ++i) {
        auto* m = new Metronome(i % 2 ? priv : 0, releases, settings.timer_us);
        metronomes.push_back(m);
        ++handlers;
    }

    // Serial messages to two readers of the private pool, interleaved.
    auto* reader_a = new SerialReader(priv, releases);
    auto* reader_b = new SerialReader(priv, releases);
    handlers += 2;

    const auto start = Clock::now();
    for (auto* m : metronomes) m->Start();
    for (std::size_t i = 0; i < players.size(); i += 2) players[i]->Serve(players[i + 1]->GetID());
    constexpr long kSerialMessages = 20000;
    for (long seq = 0; seq < kSerialMessages; ++seq) {
        SerialReader* reader = seq % 2 ? reader_b : reader_a;
        reader->Post(reader->GetID(), seq / 2);
    }

    const auto run_for = std::chrono::duration<double>(settings.seconds);
    while (Clock::now() - start < run_for) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    playing = false;
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const long long messages = hits.load();
    for (auto* m : metronomes) m->Stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the last balls and ticks land

    say("  ping-pong across pools: %d pairs, %.2f s, %lld messages, %.0f messages/s\n", settings.pairs,
                elapsed, messages, static_cast<double>(messages) / elapsed);
    const long serial_received = reader_a->Received() + reader_b->Received();
    const long serial_disordered = reader_a->OutOfOrder() + reader_b->OutOfOrder();
    say("  serial messages: %ld of %ld received one at a time, %ld out of order\n", serial_received,
                kSerialMessages, serial_disordered);

    std::vector<double> intervals;
    for (auto* m : metronomes) {
        const auto v = m->Intervals();
        intervals.insert(intervals.end(), v.begin(), v.end());
    }
    if (!intervals.empty()) {
        double sum = 0;
        for (double v : intervals) sum += v;
        const double target = static_cast<double>(settings.timer_us);
        say("  timers: %d of %.0f ms, %zu firings; interval mean %.2f ms, p50 %.2f ms, p99 %.2f ms, "
                    "min %.2f ms, max %.2f ms\n",
                    settings.timers, target / 1000, intervals.size(), sum / static_cast<double>(intervals.size()) / 1000,
                    percentile(intervals, 0.5) / 1000, percentile(intervals, 0.99) / 1000,
                    percentile(intervals, 0.0) / 1000, percentile(intervals, 1.0) / 1000);
    }

    const bool tcp_ok = echo_round_trips(settings.clients, settings.seconds);
    const bool tls_ok = tls_round_trips();
    // The report so far, many times over, through a send queue to a slow reader.
    const bool sender_ok = SlowReader::Run(g_report, 600);
    const bool fanout_ok = fanout();

    // Clean shutdown: every handler is closed and released before the pools go.
    for (auto* p : players) p->Close();
    for (auto* m : metronomes) m->Close();
    reader_a->Close();
    reader_b->Close();
    const bool all_released = releases.WaitFor(handlers);
    const int released = releases.Count();
    CNetThread::DestroyPrivatePool(priv);
    const int destroyed = CNetThread::DestroyThreadPool();
    say("  shutdown: %d handlers closed, %d released, pools destroyed (%s)\n", handlers, released,
                destroyed == 0 ? "ok" : "failed");
    const bool ok = all_released && destroyed == 0 && serial_received == kSerialMessages && serial_disordered == 0 &&
                    tcp_ok && tls_ok && sender_ok && fanout_ok;
    std::printf("%s\n", ok ? "clean shutdown" : "shutdown FAILED");
    return ok ? 0 : 1;
}
