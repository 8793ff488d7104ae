// A live H.264 relay: one producer in, any number of receivers out.
//   media_relay [--port P] [--input tcp:PORT | udp:PORT | srt:PORT] [--srt-port P]
//               [--srt-latency MS] [--bind ADDR] [--tick MS] [--stats SEC] [--once]
//               [--seconds S] [--record PATH]
//   media_relay --play PATH [--fps N] [--fast-start MS] [--rate R] [--port P] ...
// The producer sends an Annex-B elementary stream, for example
//   ffmpeg -re -i in.mp4 -c copy -bsf:v h264_mp4toannexb -f h264 tcp://127.0.0.1:9000
// or, over reliable UDP (live mode) to --input srt:PORT, in messages:
//   ffmpeg -re -i x.h264 -c copy -f h264 'srt://127.0.0.1:9000?pkt_size=1316'
// and each receiver that connects to --port gets the same stream from its next key frame
// on, e.g. ffplay -f h264 tcp://127.0.0.1:8554; with --srt-port, reliable-UDP callers
// there get it the same way (srt-live-transmit srt://127.0.0.1:P file://con > x.h264).
// MS is the latency budget of both reliable-UDP listeners (the transport's default
// otherwise); the stats line counts the receivers of both transports together.
// --record keeps a copy of the input in a file; --play sends such a file instead of a
// live input, N pictures a second (25), the first MS milliseconds at once, at R times the
// normal speed. Runs until interrupted, for S seconds, or with --once until the first
// producer (or the file) has ended.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <Corvane/NTimer.h>
#include <Corvane/NTimerEvent.h>

#include "FilePlayer.h"
#include "MediaRelay.h"

namespace {

using namespace Qelvar::Corvane;

std::atomic<bool> g_stop{false};

void on_signal(int)
{
    g_stop = true;
}

struct SOptions {
    int port = 8554;
    int input_port = 9000;
    Relay::CRelayInput::EKind input = Relay::CRelayInput::EKind::Tcp;
    int srt_port = 0;      // 0: no reliable-UDP receivers
    int srt_latency = -1;  // -1: the transport's default
    const char* bind = "127.0.0.1";
    int tick_ms = 40;
    double stats_s = 1;
    bool once = false;
    double seconds = 0;
    const char* record = nullptr;
    const char* play = nullptr;
    double fps = 25;
    long long fast_start_ms = 0;
    float rate = 1.0f;
};

bool parse(int argc, char** argv, SOptions& o)
{
    for (int i = 1; i < argc; ++i) {
        const bool value = i + 1 < argc;
        if (std::strcmp(argv[i], "--port") == 0 && value) o.port = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--bind") == 0 && value) o.bind = argv[++i];
        else if (std::strcmp(argv[i], "--tick") == 0 && value) o.tick_ms = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--stats") == 0 && value) o.stats_s = std::atof(argv[++i]);
        else if (std::strcmp(argv[i], "--seconds") == 0 && value) o.seconds = std::atof(argv[++i]);
        else if (std::strcmp(argv[i], "--record") == 0 && value) o.record = argv[++i];
        else if (std::strcmp(argv[i], "--play") == 0 && value) o.play = argv[++i];
        else if (std::strcmp(argv[i], "--fps") == 0 && value) o.fps = std::atof(argv[++i]);
        else if (std::strcmp(argv[i], "--fast-start") == 0 && value) o.fast_start_ms = std::atoll(argv[++i]);
        else if (std::strcmp(argv[i], "--rate") == 0 && value) o.rate = static_cast<float>(std::atof(argv[++i]));
        else if (std::strcmp(argv[i], "--srt-port") == 0 && value) o.srt_port = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--srt-latency") == 0 && value) o.srt_latency = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--once") == 0) o.once = true;
        else if (std::strcmp(argv[i], "--input") == 0 && value) {
            const char* input = argv[++i];
            if (std::strncmp(input, "udp:", 4) == 0) o.input = Relay::CRelayInput::EKind::Udp;
            else if (std::strncmp(input, "srt:", 4) == 0) o.input = Relay::CRelayInput::EKind::Srt;
            else if (std::strncmp(input, "tcp:", 4) != 0) return false;
            o.input_port = std::atoi(input + 4);
        } else {
            return false;
        }
    }
    // The receiver refuses a bad rate or fast start itself, with its own line.
    return o.port > 0 && o.port < 65536 && o.input_port > 0 && o.input_port < 65536 && o.srt_port >= 0 &&
           o.srt_port < 65536 && o.srt_latency >= -1 && o.tick_ms >= 0 && o.fps > 0 && !(o.play && o.record);
}

// The line another program parses: keep its format.
void print_stats(CMediaBuffer& buffer, const Relay::SRelayStats& relay)
{
    const SMediaBufferStats stats = buffer.GetStats();
    std::printf("relay: receivers=%d bytes_out=%llu frames_in=%llu aged_frames=%llu max_lag_bytes=%llu\n",
                relay.receivers.load(), static_cast<unsigned long long>(relay.bytes_out.load()),
                static_cast<unsigned long long>(relay.frames_in.load()),
                static_cast<unsigned long long>(stats.aged_frames), static_cast<unsigned long long>(stats.max_lag));
    std::fflush(stdout);
}

// Prints the stats line on every tick of a CNTimer, on a reactor thread.
class CStatsEvent : public CNTimerEvent {
public:
    CStatsEvent(CMediaBuffer& buffer, const Relay::SRelayStats& stats) : m_buffer(buffer), m_stats(stats) {}

    int handle_timer_event() override
    {
        print_stats(m_buffer, m_stats);
        return 0;
    }

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

private:
    CMediaBuffer& m_buffer;
    const Relay::SRelayStats& m_stats;
};

// The input side: a live producer (optionally recorded) or a file played.
struct SInput {
    Relay::CRelayInput* live = nullptr;
    Relay::CRecorder* recorder = nullptr;
    Relay::CFilePlayer* player = nullptr;

    int Start(const SOptions& o, CMediaBuffer& buffer, Relay::SRelayStats& stats)
    {
        if (o.play) {
            player = new Relay::CFilePlayer(buffer, stats, o.fps);
            if (player->Start(o.play, o.fast_start_ms, o.rate) == 0) return 0;
            std::fprintf(stderr, "cannot play %s\n", o.play);
            return -1;
        }
        live = new Relay::CRelayInput(buffer, stats);
        if (o.record) {
            recorder = new Relay::CRecorder;
            if (recorder->Open(o.record) != 0) {
                std::fprintf(stderr, "cannot record to %s\n", o.record);
                return -1;
            }
            live->Record(recorder);
        }
        const CSockAddrStorage addr(o.bind, static_cast<unsigned short>(o.input_port));
        if (live->Start(addr, o.input, o.srt_latency) == 0) return 0;
        std::fprintf(stderr, "cannot listen on %s port %d\n", o.bind, o.input_port);
        return -1;
    }

    void Stop()
    {
        if (player) player->Stop();
        if (live) live->Stop();
        // After the input: nothing is written to the recorder any more.
        if (recorder) recorder->Stop(std::chrono::seconds(5));
    }
};

int run(const SOptions& o)
{
    CMediaBuffer buffer;
    Relay::SRelayStats stats;
    SInput input;
    auto* output = new Relay::CRelayOutput(buffer, stats);
    const CSockAddrStorage output_addr(o.bind, static_cast<unsigned short>(o.port));
    if (output->Start(output_addr) != 0) {
        std::fprintf(stderr, "cannot listen on %s port %d\n", o.bind, o.port);
        output->Stop();
        return 1;
    }
    if (o.srt_port > 0 && output->StartSrt(CSockAddrStorage(o.bind, static_cast<unsigned short>(o.srt_port)),
                                           o.srt_latency) != 0) {
        std::fprintf(stderr, "cannot listen for srt on %s port %d\n", o.bind, o.srt_port);
        output->Stop();
        return 1;
    }
    if (input.Start(o, buffer, stats) != 0) {
        input.Stop();
        output->Stop();
        return 1;
    }
    // Without the tick a receiver blocked by a full socket waits for the next Put.
    if (o.tick_ms > 0) buffer.EnableAutoSend(static_cast<std::uint64_t>(o.tick_ms));
    char srt_out[48] = "";
    if (o.srt_port > 0) std::snprintf(srt_out, sizeof srt_out, ", srt receivers port %d", o.srt_port);
    if (o.play) {
        std::printf("media_relay on %s: playing %s, receivers port %d%s\n", o.bind, o.play, o.port, srt_out);
    } else {
        static const char* const kInputs[] = {"tcp", "udp", "srt"};
        std::printf("media_relay on %s: input %s port %d, receivers port %d%s\n", o.bind,
                    kInputs[static_cast<int>(o.input)], o.input_port, o.port, srt_out);
    }
    std::fflush(stdout);

    CNTimer* timer = nullptr;
    if (o.stats_s > 0) {
        timer = CNTimer::Create(static_cast<long long>(o.stats_s * 1e6));
        auto* event = new CStatsEvent(buffer, stats);
        if (timer && timer->PushTimerEvent(event) == 0) {
            event->Start();
        } else {
            event->Close();
        }
    }

    // A reliable-UDP receiver gets a message up to its latency after it went out (a lost
    // one takes a round trip more), and a closed connection takes what is still on its
    // way with it: those receivers get that long for the end of the stream.
    const int latency_ms = o.srt_latency >= 0 ? o.srt_latency : 120;
    const auto linger = std::chrono::milliseconds(o.srt_port > 0 ? 2 * latency_ms + 250 : 0);
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    auto input_gone = Clock::time_point::max();
    auto drained = Clock::time_point::max();
    while (!g_stop) {
        const auto now = Clock::now();
        if (o.seconds > 0 && now - start >= std::chrono::duration<double>(o.seconds)) break;
        if (o.once && input_gone == Clock::time_point::max() && stats.producers_ended.load() > 0) input_gone = now;
        // The producer has gone: receivers take what the buffer still holds, for 3 s at most.
        if (input_gone != Clock::time_point::max() && drained == Clock::time_point::max() &&
            (buffer.GetStats().max_lag == 0 || now - input_gone >= std::chrono::seconds(3))) {
            drained = now;
        }
        if (drained != Clock::time_point::max() && now - drained >= linger) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    if (timer) timer->Close();  // its event goes with it
    input.Stop();
    print_stats(buffer, stats);
    output->Stop();
    buffer.DisableAutoSend();
    if (stats.missed_cuts.load() > 0) {
        std::fprintf(stderr, "media_relay: %llu slices were longer than one read\n",
                     static_cast<unsigned long long>(stats.missed_cuts.load()));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    SOptions options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: %s [--port P] [--input tcp:PORT|udp:PORT|srt:PORT] [--srt-port P] [--srt-latency MS] "
                     "[--bind ADDR] [--tick MS] [--stats SEC] [--once] [--seconds S] "
                     "[--record PATH | --play PATH [--fps N] [--fast-start MS] [--rate R]]\n",
                     argv[0]);
        return 2;
    }
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    // The file threads read and write the played and recorded files.
    if (CNetThread::CreateThreadPool(0x80000000u | 2, true) != 0) return 1;
    const int rc = run(options);
    CNetThread::DestroyThreadPool();
    return rc;
}
