// A TLS echo server and client on the reactor.
//   tls_echo server [--port P] [--bind ADDR] [--threads N] [--cert-dir DIR] [--seconds S]
//   tls_echo client [--host ADDR] [--port P] [--count N] [--size B]
// The server uses DIR/cacert.pem and DIR/privkey.pem, and makes a self-signed pair for
// "localhost" there on first run (DIR defaults to ./tls-echo-cert). The client connects
// twice; the second connection resumes the first one's session.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "TlsEcho.h"

namespace {

std::atomic<bool> g_stop{false};

void on_signal(int)
{
    g_stop = true;
}

int usage(const char* program)
{
    std::fprintf(stderr,
                 "usage: %s server [--port P] [--bind ADDR] [--threads N] [--cert-dir DIR] [--seconds S]\n"
                 "       %s client [--host ADDR] [--port P] [--count N] [--size B]\n",
                 program, program);
    return 2;
}

int run_server(int port, const char* bind, unsigned int threads, const std::string& cert_dir, double seconds)
{
    using namespace Qelvar::Corvane;
    if (!TlsEcho::EnsureCertificate(cert_dir)) {
        std::fprintf(stderr, "no certificate in %s and none could be made there\n", cert_dir.c_str());
        return 1;
    }
    // The top bit asks for exactly this many workers (at least 2).
    if (CNetThread::CreateThreadPool(0x80000000u | threads) != 0) return 1;
    auto* server = new TlsEcho::CTlsEchoServer(0);
    if (server->Start(CSockAddrStorage(bind, static_cast<unsigned short>(port)), cert_dir) != 0) {
        std::fprintf(stderr, "cannot listen on %s port %d\n", bind, port);
        server->Stop();
        CNetThread::DestroyThreadPool();
        return 1;
    }
    std::printf("TLS echo server listening on %s port %u (certificate in %s)\n", bind, server->Port(),
                cert_dir.c_str());
    std::fflush(stdout);
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!g_stop && (seconds <= 0 || std::chrono::steady_clock::now() < end)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const long accepted = server->Accepted();
    server->Stop();
    CNetThread::DestroyThreadPool();
    std::printf("TLS echo server: %ld connections\n", accepted);
    return 0;
}

int run_client(const char* host, int port, int count, int size)
{
    using namespace Qelvar::Corvane;
    if (CNetThread::CreateThreadPool(2) != 0) return 1;
    const CSockAddrStorage server(host, static_cast<unsigned short>(port));
    unsigned int session = 0;  // a new id at the first connection, offered at the second
    bool ok = true;
    for (int round = 1; round <= 2 && ok; ++round) {
        auto* client = new TlsEcho::CTlsEchoClient(0, count, size);
        const TlsEcho::SClientResult r = client->Start(server, &session).get();
        ok = r.ok;
        std::printf("connection %d: %s, %d round trips of %d bytes checked in %.3f s, session %s\n", round,
                    r.ok ? "ok" : "FAILED", r.round_trips, size, r.seconds, r.resumed ? "resumed" : "new");
    }
    CNetThread::DestroyThreadPool();
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) return usage(argv[0]);
    const bool server = std::strcmp(argv[1], "server") == 0;
    if (!server && std::strcmp(argv[1], "client") != 0) return usage(argv[0]);
    int port = 7443, count = 1000, size = 64;
    unsigned int threads = 2;
    const char* bind = "0.0.0.0";
    const char* host = "127.0.0.1";
    std::string cert_dir = "tls-echo-cert";
    double seconds = 0;
    for (int i = 2; i < argc; ++i) {
        const bool value = i + 1 < argc;
        if (std::strcmp(argv[i], "--port") == 0 && value) port = std::atoi(argv[++i]);
        else if (server && std::strcmp(argv[i], "--bind") == 0 && value) bind = argv[++i];
        else if (server && std::strcmp(argv[i], "--threads") == 0 && value)
            threads = static_cast<unsigned int>(std::atoi(argv[++i]));
        else if (server && std::strcmp(argv[i], "--cert-dir") == 0 && value) cert_dir = argv[++i];
        else if (server && std::strcmp(argv[i], "--seconds") == 0 && value) seconds = std::atof(argv[++i]);
        else if (!server && std::strcmp(argv[i], "--host") == 0 && value) host = argv[++i];
        else if (!server && std::strcmp(argv[i], "--count") == 0 && value) count = std::atoi(argv[++i]);
        else if (!server && std::strcmp(argv[i], "--size") == 0 && value) size = std::atoi(argv[++i]);
        else return usage(argv[0]);
    }
    if (count < 1 || size < 1) return usage(argv[0]);
    return server ? run_server(port, bind, threads, cert_dir, seconds) : run_client(host, port, count, size);
}
