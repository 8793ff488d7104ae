// A TCP echo server, with a reliable-UDP (live mode) echo beside it on request:
//   echo_server [--port P] [--threads N] [--bind ADDR] [--seconds S] [--console PORT]
//               [--srt PORT [--srt-latency MS]]
// Runs until interrupted (Ctrl-C) or for S seconds, then reports what it did. With
// --console, a telnet console on PORT (or one of the next 100 ports) runs the debug
// commands ("help" lists them). With --srt, callers on PORT get each message back as it
// came, on the same reactor and threads as the TCP echo; MS is the latency budget of
// that listener (the transport's default otherwise), and a second report line counts
// them.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <Corvane/R3.h>

#include "EchoServer.h"
#include "SrtEcho.h"

namespace {

std::atomic<bool> g_stop{false};

void on_signal(int)
{
    g_stop = true;
}

}  // namespace

int main(int argc, char** argv)
{
    int port = 7000;
    unsigned int threads = 2;
    const char* bind = "0.0.0.0";
    double seconds = 0;
    int console = 0;
    int srt_port = 0;  // 0: no reliable-UDP echo
    int srt_latency = -1;  // -1: the transport's default
    bool usage = false;
    for (int i = 1; i < argc; ++i) {
        const bool value = i + 1 < argc;
        if (std::strcmp(argv[i], "--port") == 0 && value) port = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--threads") == 0 && value) threads = static_cast<unsigned int>(std::atoi(argv[++i]));
        else if (std::strcmp(argv[i], "--bind") == 0 && value) bind = argv[++i];
        else if (std::strcmp(argv[i], "--seconds") == 0 && value) seconds = std::atof(argv[++i]);
        else if (std::strcmp(argv[i], "--console") == 0 && value) console = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--srt") == 0 && value) srt_port = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--srt-latency") == 0 && value) srt_latency = std::atoi(argv[++i]);
        else usage = true;
    }
    if (usage || srt_port < 0 || srt_port > 65535 || srt_latency < -1) {
        std::fprintf(stderr,
                     "usage: %s [--port P] [--threads N] [--bind ADDR] [--seconds S] [--console PORT] "
                     "[--srt PORT [--srt-latency MS]]\n",
                     argv[0]);
        return 2;
    }

    using namespace Qelvar::Corvane;
    // The top bit asks for exactly this many workers (at least 2).
    if (CNetThread::CreateThreadPool(0x80000000u | threads) != 0) return 1;
    Echo::SEchoStats stats;
    auto* server = new Echo::CEchoServer(0, stats);
    const CSockAddrStorage local(bind, static_cast<unsigned short>(port));
    if (server->Start(local) != 0) {
        std::fprintf(stderr, "cannot listen on %s port %d\n", bind, port);
        server->Stop();
        CNetThread::DestroyThreadPool();
        return 1;
    }
    std::printf("echo server listening on %s port %u\n", bind, server->Port());
    Echo::SEchoStats srt_stats;
    Echo::CSrtEcho* srt = nullptr;
    if (srt_port > 0) {
        srt = new Echo::CSrtEcho(0, srt_stats);
        const CSockAddrStorage srt_local(bind, static_cast<unsigned short>(srt_port));
        if (srt->Start(srt_local, srt_latency) != 0) {
            std::fprintf(stderr, "cannot listen for srt on %s port %d\n", bind, srt_port);
            srt->Stop();
            server->Stop();
            CNetThread::DestroyThreadPool();
            return 1;
        }
        std::printf("srt echo listening on %s port %u\n", bind, srt->Port());
    }
    // The console is off unless the application switches it on.
    const bool with_console = console > 0 && console <= 65535;
    if (with_console) {
        CNetThread::SetR3Enabled(true);
        if (CNetThread::EnableR3(static_cast<unsigned short>(console), "echo") != 0) {
            std::fprintf(stderr, "cannot start the console on port %d\n", console);
            if (srt) srt->Stop();
            server->Stop();
            CNetThread::DestroyThreadPool();
            return 1;
        }
        std::printf("console: telnet 127.0.0.1 %u\n", R3ServerPort());
    }
    std::fflush(stdout);

    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!g_stop && (seconds <= 0 || std::chrono::steady_clock::now() < end)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (srt) srt->Stop();
    server->Stop();
    if (with_console) CNetThread::DisableR3();
    CNetThread::DestroyThreadPool();
    std::printf("echo server: %ld connections, %lld bytes echoed\n", stats.accepted.load(), stats.bytes.load());
    if (srt) {
        std::printf("srt: %ld connections, %lld bytes echoed\n", srt_stats.accepted.load(), srt_stats.bytes.load());
    }
    return 0;
}
