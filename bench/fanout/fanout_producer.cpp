// Live H.264 producer for the fan-out benchmark.
//
//   fanout_producer --file F.h264 --port P [--host 127.0.0.1] [--fps 25] [--seconds S]
//                   [--connect-wait SECONDS]
//
// Reads an Annex-B file, cuts it into access units and puts into each one, right before
// its first slice, the SEI of StampSei.h. Then connects to the server's input port (it
// retries until --connect-wait runs out, since the server may still be starting) and
// writes one access unit per frame period, each in one send, for --seconds, looping the
// file; the sequence number and the send time (CLOCK_MONOTONIC, taken just before the
// send) keep counting across loops. The file must start with an IDR access unit.
//
// Every access unit goes out with a 4-byte start code before each NAL, no trailing
// zeros, and an access unit delimiter first (the file's own are replaced), so that a
// server that rewrites start codes or adds delimiters leaves the announced lengths true.
// With --aud-last 1 (the default) each write carries a unit without its first 11 bytes
// plus the first 11 bytes of the next unit (its delimiter, the start code after it and
// that NAL's header byte): a parser learns that a unit ended only from the next one,
// and sees a NAL whole only from the start of the one after it, so this way the end is
// known as soon as the unit arrives, not a frame period later. --aud-last 0 writes each
// unit whole.
//
// Prints one line on stdout at the end:
//   PRODUCER frames=.. bytes=.. seconds=.. mbit_per_s=.. max_behind_ms=.. key_every=..
// max_behind_ms: how far the producer fell behind its schedule at worst (a server that
// does not read its input holds the producer back, which this shows). SIGTERM ends the
// run early, with the line. Exit status 1
// when the file cannot be used or the server cannot be reached; a server that closes the
// input ends the run early with status 0 and a note.
//
// Built with SRT_TRANSPORT (srt_fanout_producer, for bench/run-srt) it is a reliable-UDP
// caller in live mode instead (SRTO_LATENCY from --latency MS), and each write goes out
// as messages of at most 1316 bytes, the first taking the send time.
#include "../client/MonoClock.h"
#include "StampSei.h"
#ifdef SRT_TRANSPORT
#include "../srt/SrtBench.h"
#endif

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace FanoutBench;

using EchoBench::kSecond;
using EchoBench::Now;

// Set by SIGTERM/SIGINT: the run ends early but still prints its line.
volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int) { g_stop = 1; }

void SleepUntil(std::int64_t at)
{
    EchoBench::SleepUntil(at, &g_stop);
}

struct Options {
    std::string file;
    std::string host = "127.0.0.1";
    int port = 0;
    double fps = 25;
    double seconds = 10;
    double connect_wait = 10;
    bool aud_last = true;
    int latency_ms = -1;  // SRT_TRANSPORT: SRTO_LATENCY (-1: the library's default)
};

struct AccessUnit {
    std::vector<std::uint8_t> bytes;  // with our SEI in it
    std::size_t sei = 0;              // offset of the SEI's NAL header byte
    bool idr = false;
};

struct Nal {
    std::size_t begin = 0;   // first byte of the start code
    std::size_t header = 0;  // the NAL header byte
    std::size_t end = 0;
    int type = 0;
};

std::vector<Nal> SplitNals(const std::vector<std::uint8_t>& data)
{
    std::vector<Nal> nals;
    const std::size_t n = data.size();
    for (std::size_t i = 0; i + 2 < n;) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            std::size_t begin = (i > 0 && data[i - 1] == 0) ? i - 1 : i;
            if (!nals.empty()) {
                nals.back().end = begin;
            }
            if (i + 3 < n) {
                Nal nal;
                nal.begin = begin;
                nal.header = i + 3;
                nal.type = data[i + 3] & 0x1F;
                nals.push_back(nal);
            }
            i += 3;
        } else {
            ++i;
        }
    }
    if (!nals.empty()) {
        nals.back().end = n;
    }
    return nals;
}

// An access unit delimiter (primary_pic_type 7: any slice type) with its start code.
constexpr std::uint8_t kAud[6] = {0, 0, 0, 1, 0x09, 0xF0};
// The delimiter, the start code after it and that NAL's header byte (never our stamp):
// what a parser needs to see the delimiter whole, and so the unit before it ended.
constexpr std::size_t kLead = sizeof kAud + 5;

bool IsVcl(int type) { return type >= 1 && type <= 5; }

/// Cuts the file into access units, each with our SEI before its first slice.
bool LoadAccessUnits(const std::string& path, std::vector<AccessUnit>& aus)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        std::fprintf(stderr, "fanout_producer: cannot open %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    std::vector<std::uint8_t> data;
    std::uint8_t chunk[65536];
    std::size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
        data.insert(data.end(), chunk, chunk + got);
    }
    std::fclose(f);
    const std::vector<Nal> nals = SplitNals(data);

    // Group NALs: an AUD always starts an access unit; SEI, SPS, PPS and types 14-18
    // start one after a slice; a slice with first_mb_in_slice 0 (first bit set) starts
    // one after a slice.
    std::vector<std::vector<Nal>> groups;
    bool has_vcl = false;
    for (const Nal& nal : nals) {
        bool first_mb_zero = nal.header + 1 < nal.end && (data[nal.header + 1] & 0x80) != 0;
        bool starts = groups.empty() || nal.type == 9 ||
                      (has_vcl && (nal.type == 6 || nal.type == 7 || nal.type == 8 ||
                                   (nal.type >= 14 && nal.type <= 18))) ||
                      (has_vcl && IsVcl(nal.type) && first_mb_zero);
        if (starts) {
            groups.emplace_back();
            has_vcl = false;
        }
        groups.back().push_back(nal);
        has_vcl = has_vcl || IsVcl(nal.type);
    }
    const std::uint8_t start[4] = {0, 0, 0, 1};
    for (const auto& group : groups) {
        AccessUnit au;
        au.bytes.assign(kAud, kAud + sizeof kAud);
        bool inserted = false;
        for (const Nal& nal : group) {
            if (nal.type == 9) {
                continue;  // replaced by ours
            }
            if (!inserted && IsVcl(nal.type)) {
                au.bytes.insert(au.bytes.end(), start, start + 4);
                au.sei = au.bytes.size();
                au.bytes.resize(au.bytes.size() + kSeiNalBytes);
                inserted = true;
            }
            au.idr = au.idr || nal.type == 5;
            // Every NAL with a 4-byte start code and no trailing zeros, as a server that
            // rewrites start codes would send it, so the announced lengths hold.
            std::size_t end = nal.end;
            while (end > nal.header + 1 && data[end - 1] == 0) {
                --end;
            }
            au.bytes.insert(au.bytes.end(), start, start + 4);
            au.bytes.insert(au.bytes.end(), data.begin() + static_cast<std::ptrdiff_t>(nal.header),
                            data.begin() + static_cast<std::ptrdiff_t>(end));
        }
        if (inserted) {
            aus.push_back(std::move(au));
        }
    }
    if (aus.empty() || !aus.front().idr) {
        std::fprintf(stderr, "fanout_producer: %s does not start with an IDR access unit\n", path.c_str());
        return false;
    }
    return true;
}

[[noreturn]] void Usage()
{
#ifdef SRT_TRANSPORT
    std::fprintf(stderr,
                 "usage: srt_fanout_producer --file F.h264 --port P [--host 127.0.0.1] [--fps 25]\n"
                 "                           [--seconds S] [--connect-wait SECONDS] [--aud-last 1|0]\n"
                 "                           [--latency MS]\n");
    std::exit(2);
#endif
    std::fprintf(stderr,
                 "usage: fanout_producer --file F.h264 --port P [--host 127.0.0.1] [--fps 25]\n"
                 "                       [--seconds S] [--connect-wait SECONDS] [--aud-last 1|0]\n");
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
        if (arg == "--file") {
            o.file = value;
        } else if (arg == "--host") {
            o.host = value;
        } else if (arg == "--port") {
            o.port = std::atoi(value.c_str());
        } else if (arg == "--fps") {
            o.fps = std::atof(value.c_str());
        } else if (arg == "--seconds") {
            o.seconds = std::atof(value.c_str());
        } else if (arg == "--connect-wait") {
            o.connect_wait = std::atof(value.c_str());
        } else if (arg == "--aud-last") {
            o.aud_last = value != "0";
#ifdef SRT_TRANSPORT
        } else if (arg == "--latency") {
            o.latency_ms = std::atoi(value.c_str());
#endif
        } else {
            Usage();
        }
    }
    if (o.file.empty() || o.port <= 0 || o.port > 65535 || o.fps <= 0 || o.fps > 1000 ||
        o.seconds <= 0 || o.seconds > 3600 || o.connect_wait < 0 || o.connect_wait > 600) {
        Usage();
    }
    return o;
}

#ifdef SRT_TRANSPORT
/// A blocking connected caller, retried every 50 ms until the deadline; -1 on failure.
int ConnectWithRetry(const Options& o)
{
    sockaddr_in addr{};
    if (!SrtBench::MakeAddress(o.host, o.port, addr)) {
        std::fprintf(stderr, "fanout_producer: bad IPv4 address %s\n", o.host.c_str());
        return -1;
    }
    const std::int64_t deadline = Now() + static_cast<std::int64_t>(o.connect_wait * 1e9);
    for (;;) {
        const SRTSOCKET s = srt_create_socket();
        if (s == SRT_INVALID_SOCK) {
            std::fprintf(stderr, "fanout_producer: srt_create_socket: %s\n", srt_getlasterror_str());
            return -1;
        }
        if (SrtBench::SetLiveOptions(s, o.latency_ms, true) &&
            srt_connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != SRT_ERROR) {
            return s;
        }
        const std::string why = srt_getlasterror_str();
        srt_close(s);
        if (Now() >= deadline) {
            std::fprintf(stderr, "fanout_producer: connect to %s:%d: %s\n", o.host.c_str(), o.port, why.c_str());
            return -1;
        }
        SleepUntil(Now() + 50000000);
    }
}

/// One message of at most the live payload; as send() for the loop below.
ssize_t SendSome(int s, const std::uint8_t* data, std::size_t len)
{
    const int n = srt_sendmsg(s, reinterpret_cast<const char*>(data),
                              static_cast<int>(std::min<std::size_t>(len, SrtBench::kLivePayload)), -1, 1);
    if (n < 0) {
        errno = ECONNRESET;
    }
    return n;
}

void CloseSocket(int s) { srt_close(s); }
#else
/// A blocking connected socket, retried every 50 ms until the deadline; -1 on failure.
int ConnectWithRetry(const Options& o)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(o.port));
    if (inet_pton(AF_INET, o.host.c_str(), &addr.sin_addr) != 1) {
        std::fprintf(stderr, "fanout_producer: bad IPv4 address %s\n", o.host.c_str());
        return -1;
    }
    const std::int64_t deadline = Now() + static_cast<std::int64_t>(o.connect_wait * 1e9);
    for (;;) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            std::fprintf(stderr, "fanout_producer: socket: %s\n", std::strerror(errno));
            return -1;
        }
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
            int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            return fd;
        }
        int err = errno;
        close(fd);
        if (Now() >= deadline) {
            std::fprintf(stderr, "fanout_producer: connect to %s:%d: %s\n", o.host.c_str(), o.port,
                         std::strerror(err));
            return -1;
        }
        SleepUntil(Now() + 50000000);
    }
}

ssize_t SendSome(int fd, const std::uint8_t* data, std::size_t len)
{
    return send(fd, data, len, MSG_NOSIGNAL);
}

void CloseSocket(int fd) { close(fd); }
#endif

}  // namespace

int main(int argc, char** argv)
{
    const Options o = ParseOptions(argc, argv);
    std::vector<AccessUnit> aus;
    if (!LoadAccessUnits(o.file, aus)) {
        return 1;
    }
    int key_every = 0;
    for (std::size_t i = 1; i < aus.size(); ++i) {
        if (aus[i].idr) {
            key_every = static_cast<int>(i);
            break;
        }
    }
    struct sigaction action{};
    action.sa_handler = OnSignal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
#ifdef SRT_TRANSPORT
    srt_startup();
    srt_setloglevel(LOG_ERR);
#endif
    const int fd = ConnectWithRetry(o);
    if (fd < 0) {
        return 1;
    }

    const auto period = static_cast<std::int64_t>(1e9 / o.fps);
    const auto frames = static_cast<std::uint64_t>(o.seconds * o.fps);
    const std::int64_t start = Now();
    std::int64_t max_behind = 0;
    std::uint64_t bytes = 0;
    std::uint64_t seq = 0;
    std::uint64_t sent = 0;
    bool closed = false;
    std::vector<std::uint8_t> out;
    for (; seq < frames && !closed && !g_stop; ++seq) {
        const std::int64_t due = start + static_cast<std::int64_t>(seq) * period;
        SleepUntil(due);
        if (g_stop) {
            break;
        }
        AccessUnit& au = aus[seq % aus.size()];
        Stamp stamp;
        stamp.seq = seq;
        stamp.tail = static_cast<std::uint32_t>(au.bytes.size() - au.sei - kSeiNalBytes);
        const std::int64_t now = Now();
        if (now - due > max_behind) {
            max_behind = now - due;
        }
        stamp.time_ns = static_cast<std::uint64_t>(now);
        WriteSei(au.bytes.data() + au.sei, stamp);
        // The byte stream is the same either way; only where the writes cut it differs.
        out.clear();
        const std::size_t skip = (o.aud_last && seq > 0) ? kLead : 0;
        out.insert(out.end(), au.bytes.begin() + static_cast<std::ptrdiff_t>(skip), au.bytes.end());
        if (o.aud_last) {
            const AccessUnit& next = aus[(seq + 1) % aus.size()];
            out.insert(out.end(), next.bytes.begin(), next.bytes.begin() + kLead);
        }
        std::size_t done = 0;
        while (done < out.size()) {
            ssize_t n = SendSome(fd, out.data() + done, out.size() - done);
            if (n > 0) {
                done += static_cast<std::size_t>(n);
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else {
                std::fprintf(stderr, "fanout_producer: note: the server closed the input after %" PRIu64
                             " frames (%s)\n", seq, n == 0 ? "no progress" : std::strerror(errno));
                closed = true;
                break;
            }
        }
        bytes += done;
        sent += closed ? 0 : 1;
    }
    CloseSocket(fd);
    const double seconds = static_cast<double>(Now() - start) / 1e9;
    std::printf("PRODUCER frames=%" PRIu64 " bytes=%" PRIu64 " seconds=%.3f mbit_per_s=%.3f "
                "max_behind_ms=%.3f key_every=%d\n",
                sent, bytes, seconds, static_cast<double>(bytes) * 8 / 1e6 / seconds,
                static_cast<double>(max_behind) / 1e6, key_every);
#ifdef SRT_TRANSPORT
    srt_cleanup();
#endif
    return 0;
}
