// What the peer echo servers share and is not the library under test: the command line
// (--port P --threads N --bind ADDR) and, for the servers that open their listening
// sockets themselves, a listening socket with SO_REUSEPORT.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace PeerEcho {

/// Bytes one connection reads at a time; every peer uses the same size.
constexpr std::size_t kReadSize = 64 * 1024;
/// Backlog of every listening socket.
constexpr int kBacklog = 1024;

struct Options {
    int port = 0;
    int threads = 1;
    std::string bind = "127.0.0.1";
    std::string cert_dir;  ///< TLS peers: cacert.pem and privkey.pem
};

[[noreturn]] inline void Usage(const char* program)
{
    std::fprintf(stderr, "usage: %s --port P [--threads N] [--bind ADDR] [--cert-dir DIR]\n", program);
    std::exit(2);
}

/// Parses the command line; prints the usage and exits on anything else. Also sets
/// SIGPIPE to be ignored: a peer that goes away must not end the server.
inline Options ParseOptions(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (i + 1 >= argc) {
            Usage(argv[0]);
        }
        const char* value = argv[++i];
        if (arg == "--port") {
            options.port = std::atoi(value);
        } else if (arg == "--threads") {
            options.threads = std::atoi(value);
        } else if (arg == "--bind") {
            options.bind = value;
        } else if (arg == "--cert-dir") {
            options.cert_dir = value;
        } else {
            Usage(argv[0]);
        }
    }
    if (options.port <= 0 || options.port > 65535 || options.threads < 1) {
        Usage(argv[0]);
    }
    std::signal(SIGPIPE, SIG_IGN);
    return options;
}

[[noreturn]] inline void Die(const char* what)
{
    std::fprintf(stderr, "echo server: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

/// Turns Nagle's algorithm off on an accepted socket, as every peer does.
inline void SetNoDelay(int fd)
{
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

/// A non-blocking listening socket on options.bind:options.port with SO_REUSEADDR and
/// SO_REUSEPORT, so each event loop of a multi-threaded server can have its own. Exits
/// on failure.
inline int OpenListener(const Options& options)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    std::string port = std::to_string(options.port);
    if (getaddrinfo(options.bind.c_str(), port.c_str(), &hints, &found) != 0 || !found) {
        std::fprintf(stderr, "echo server: bad address %s\n", options.bind.c_str());
        std::exit(2);
    }
    int fd = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        Die("socket");
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    if (bind(fd, found->ai_addr, found->ai_addrlen) != 0) {
        Die("bind");
    }
    freeaddrinfo(found);
    if (listen(fd, kBacklog) != 0) {
        Die("listen");
    }
    return fd;
}

}  // namespace PeerEcho
