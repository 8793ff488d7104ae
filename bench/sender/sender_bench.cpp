// What the stream sender's queue costs against writing the socket directly.
//
//   sender_bench [--mib N] [--repeats R] [--record BYTES] [--way queue|plain]
//
// For records of 16 KiB and of 1400 B (or --record), R times each (default 3), N MiB
// (default 1024)
// go over a fresh loopback TCP connection (127.0.0.1) to a reader thread, two ways:
//   queue  one CStreamSender: the main thread Puts record after record; when the queue
//          refuses one it asks for code 4 (half the queue free) and waits for it; the
//          pool's workers drain the queue from the owner's handle_output.
//   plain  the main thread calls CSockStream::Send on the non-blocking socket for the
//          rest of the record, and poll()s for writability when it would block.
// The reader checks every byte against the pattern that was sent. The sending side
// (this thread and the pool's) runs on cpu 0, the reader on cpu 1, so that where the
// scheduler happens to put the threads does not decide the figures.
//
// Per run: MB/s (10^6 bytes, from the first byte handed over to the last byte read),
// the waits (queue: refusals waited out; plain: would-blocks polled out), the queue's
// high-water mark, and the sending side's CPU per MB: this process's user+sys time over the run
// (getrusage RUSAGE_SELF) minus the reader thread's own (CLOCK_THREAD_CPUTIME_ID). For
// the queue that is the Put thread plus the pool's threads; for plain, the Send thread
// (the idle pool costs next to nothing). At the end: the medians and the ratio of CPU
// per MB, queue / plain. Every wait is bounded (10 s); a stall, a socket error or a
// wrong byte ends the program with status 1.
#include <Corvane/Corvane.h>

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Qelvar::Corvane;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kPeriod = 65521;           // prime: records do not repeat in step
constexpr std::size_t kReadSize = 256 * 1024;
constexpr auto kStall = std::chrono::seconds(10);

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "sender_bench: %s\n", what);
    std::exit(1);
}

// Pins the calling thread (and the threads it starts later) to `cpu`, when there is one.
void pin_to(int cpu)
{
    if (cpu >= static_cast<int>(std::thread::hardware_concurrency())) return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

double seconds_of(const timespec& ts)
{
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double thread_cpu()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return seconds_of(ts);
}

double process_cpu()
{
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
}

// The bytes sent at stream offset `off` are pattern[off % kPeriod ...]: one buffer long
// enough for any record or read to be a contiguous slice of it.
const std::vector<char>& pattern()
{
    static const std::vector<char> bytes = [] {
        std::vector<char> b(kPeriod + kReadSize);
        unsigned int x = 12345;
        for (std::size_t i = 0; i < kPeriod; ++i) {
            x = x * 1103515245u + 12345u;
            b[i] = static_cast<char>(x >> 24);
        }
        for (std::size_t i = kPeriod; i < b.size(); ++i) b[i] = b[i - kPeriod];  // periodic to the end
        return b;
    }();
    return bytes;
}

// A loopback connection: `client` non-blocking for the sending side; the reader gets
// the accepted socket's descriptor.
struct Connection {
    CSockAcceptor acceptor;
    CSockStream client;
    CSockStream server;

    void Make()
    {
        acceptor.SetBlockOpt(true);
        client.SetBlockOpt(true);
        CSockAddrIPv4 local("127.0.0.1", 0), bound;
        if (acceptor.Open(local) != 0 || acceptor.GetLocalAddr(&bound) != 0 || client.Connect(bound, nullptr) != 0 ||
            acceptor.Accept(server, nullptr) != 0) {
            fail("no loopback connection");
        }
        server.SetBlockOpt(true);
        client.SetBlockOpt(false);
    }
};

// Reads `total` bytes from `fd` on its own thread and checks each one.
class Reader {
public:
    Reader(int fd, std::uint64_t total) : m_thread([this, fd, total] { run(fd, total); }) {}
    ~Reader()
    {
        if (m_thread.joinable()) m_thread.join();
    }
    /// Waits for the end: the reader's CPU seconds; `*done` the moment the last byte came.
    double Join(Clock::time_point* done)
    {
        m_thread.join();
        if (!m_ok) fail("the reader saw a stall, an error or a wrong byte");
        *done = m_done;
        return m_cpu;
    }

private:
    void run(int fd, std::uint64_t total)
    {
        pin_to(1);
        std::vector<char> buf(kReadSize);
        const char* expect = pattern().data();
        std::uint64_t got = 0;
        while (got < total) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kStall).count())) != 1) break;
            const long n = ::recv(fd, buf.data(), buf.size(), 0);
            if (n <= 0) break;
            if (std::memcmp(buf.data(), expect + got % kPeriod, static_cast<std::size_t>(n)) != 0) break;
            got += static_cast<std::uint64_t>(n);
        }
        m_done = Clock::now();
        m_cpu = thread_cpu();
        m_ok = got == total;
    }

    Clock::time_point m_done;
    double m_cpu = 0;
    bool m_ok = false;
    std::thread m_thread;
};

// The handler the connection is registered under: it hands writability to the sender
// and wakes the Put thread for codes 4, 9 and 2.
class Owner : public CNetHandler {
public:
    explicit Owner(std::promise<void>& closed) : m_closed(closed) {}

    void Use(CStreamSender* sender) { m_sender = sender; }
    int handle_output(int handle) override { return m_sender->handle_output(handle); }
    int handle_message(long, unsigned int type, long) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count[type % 16];
        m_cv.notify_all();
        return 0;
    }
    int handle_close(CNetHandler*) override
    {
        std::promise<void>& closed = m_closed;
        delete this;
        closed.set_value();
        return 0;
    }

    int Count(unsigned int type)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count[type];
    }
    /// Waits until `count` notices of `type` came; false after the stall limit.
    bool WaitCount(unsigned int type, int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, kStall, [&] { return m_count[type] >= count || m_count[STREAM_SENDER_EXCEPTION]; }) &&
               m_count[STREAM_SENDER_EXCEPTION] == 0;
    }
    void Stop(CSock& sock)
    {
        RemoveSock(sock);
        Close();
    }

private:
    std::promise<void>& m_closed;
    CStreamSender* m_sender = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    int m_count[16] = {};
};

struct Result {
    double mb_per_s;
    double cpu_us_per_mb;
    int waits;  ///< refusals waited out (queue) or would-blocks polled out (plain)
    unsigned int peak = 0;  ///< the most bytes queued at once (queue)
};

// Sends `total` bytes over `conn` in records of `record` bytes, each with
// `send_record(data, len)`, which returns how often it had to wait; the run's figures.
template <class F>
Result measure(Connection& conn, std::uint64_t total, unsigned int record, F&& send_record)
{
    const char* bytes = pattern().data();
    const double cpu_before = process_cpu();
    Reader reader(conn.server.GetHandle(), total);
    const auto start = Clock::now();
    int waits = 0;
    for (std::uint64_t sent = 0; sent < total;) {
        const auto len = static_cast<unsigned int>(std::min<std::uint64_t>(record, total - sent));
        waits += send_record(bytes + sent % kPeriod, len);
        sent += len;
    }
    Clock::time_point done;
    const double reader_cpu = reader.Join(&done);
    const double sender_cpu = process_cpu() - cpu_before - reader_cpu;
    const double mb = static_cast<double>(total) / 1e6;
    return {mb / std::chrono::duration<double>(done - start).count(), sender_cpu * 1e6 / mb, waits};
}

Result run_queue(std::uint64_t total, unsigned int record)
{
    Connection conn;
    conn.Make();
    std::promise<void> closed;
    auto* owner = new Owner(closed);
    CStreamSender* sender = CStreamSender::Create();
    if (!sender) fail("no sender");
    owner->Use(sender);
    const long id = owner->GetID();
    if (sender->Attach(owner, &conn.client) != 0 || sender->WaitException(id) != 0) fail("attach failed");
    const unsigned int half = sender->GetCapacity() * 32768u / 2;

    Result result = measure(conn, total, record, [&](const char* data, unsigned int len) {
        int waits = 0;
        while (sender->Put(data, len) != 0) {
            const int seen = owner->Count(STREAM_SENDER_BUFFER_FREE);
            ++waits;
            if (sender->WaitBufferSize(id, half) != 0 || !owner->WaitCount(STREAM_SENDER_BUFFER_FREE, seen + 1)) {
                fail("the queue did not drain");
            }
        }
        return waits;
    });
    if (sender->WaitSendFinish(id) != 0 || !owner->WaitCount(STREAM_SENDER_FINISHED, 1)) fail("no end of sending");
    result.peak = sender->GetPeakDataLen();

    owner->Stop(conn.client);
    closed.get_future().wait();  // no handle_output can reach the sender any more
    sender->Close();
    return result;
}

Result run_plain(std::uint64_t total, unsigned int record)
{
    Connection conn;
    conn.Make();
    return measure(conn, total, record, [&](const char* data, unsigned int len) {
        int waits = 0;
        for (unsigned int done = 0; done < len;) {
            const int n = conn.client.Send(data + done, len - done);
            if (n < 0) fail("send failed");
            if (n > 0) {
                done += static_cast<unsigned int>(n);
                continue;
            }
            ++waits;
            pollfd p{conn.client.GetHandle(), POLLOUT, 0};
            if (::poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kStall).count())) != 1) fail("no writability");
        }
        return waits;
    });
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv)
{
    std::uint64_t mib = 1024;
    int repeats = 3;
    std::vector<unsigned int> records = {16384, 1400};
    std::string way = "both";  // one way alone is for profiling it
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--mib") == 0) mib = std::strtoull(argv[i + 1], nullptr, 10);
        else if (std::strcmp(argv[i], "--repeats") == 0) repeats = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--record") == 0) records = {static_cast<unsigned int>(std::atoi(argv[i + 1]))};
        else if (std::strcmp(argv[i], "--way") == 0) way = argv[i + 1];
        else fail("usage: sender_bench [--mib N] [--repeats R] [--record BYTES] [--way queue|plain]");
    }
    if (mib == 0 || repeats < 1 || repeats > 99 || records[0] == 0 || records[0] > 65536) fail("bad arguments");
    const std::uint64_t total = mib << 20;
    pin_to(0);  // before the pool starts: its threads are pinned with it
    if (CNetThread::CreateThreadPool(2) != 0) fail("no thread pool");
    pattern();

    std::printf("%llu MiB per run over 127.0.0.1; sender CPU = process - reader thread\n",
                static_cast<unsigned long long>(mib));
    std::printf("%-8s %-6s %3s %10s %14s %8s %9s\n", "record", "way", "run", "MB/s", "CPU us/MB", "waits",
                "peak KiB");
    for (unsigned int record : records) {
        std::vector<double> q_rate, q_cpu, p_rate, p_cpu;
        for (int r = 1; r <= repeats; ++r) {
            // Interleaved, so both ways meet the same background load.
            if (way != "plain") {
                const Result q = run_queue(total, record);
                std::printf("%-8u %-6s %3d %10.0f %14.1f %8d %9u\n", record, "queue", r, q.mb_per_s, q.cpu_us_per_mb,
                            q.waits, q.peak / 1024);
                q_rate.push_back(q.mb_per_s);
                q_cpu.push_back(q.cpu_us_per_mb);
            }
            if (way != "queue") {
                const Result p = run_plain(total, record);
                std::printf("%-8u %-6s %3d %10.0f %14.1f %8d %9s\n", record, "plain", r, p.mb_per_s, p.cpu_us_per_mb,
                            p.waits, "-");
                p_rate.push_back(p.mb_per_s);
                p_cpu.push_back(p.cpu_us_per_mb);
            }
            std::fflush(stdout);
        }
        if (way == "both") {
            std::printf("MEDIAN record=%u queue_mb_s=%.0f queue_cpu_us_mb=%.1f plain_mb_s=%.0f plain_cpu_us_mb=%.1f "
                        "cpu_ratio=%.2f\n",
                        record, median(q_rate), median(q_cpu), median(p_rate), median(p_cpu),
                        median(q_cpu) / median(p_cpu));
        }
        std::fflush(stdout);
    }
    CNetThread::DestroyThreadPool();
    return 0;
}
