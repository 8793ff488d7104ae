// Ten thousand connections on one pool, each echoed. Linux only: the client side runs in
// a forked process, since one process may not hold both ends of 10,000 connections
// within this machine's descriptor limit.
#ifndef _WIN32

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "../../examples/echo_server/EchoServer.h"
#include "Platform/Socket.h"
#include "Platform/SockTypes.h"
#include "ReactorSupport.h"

using namespace Qelvar::Corvane;
using Qelvar::Test::eventually;
using Qelvar::Test::PoolScope;

namespace {

constexpr int kConnections = 10000;

long rss_kib()
{
    std::ifstream status("/proc/self/status");
    std::string key;
    long value = 0;
    while (status >> key) {
        if (key == "VmRSS:") {
            status >> value;
            return value;
        }
    }
    return -1;
}

// The forked client: connects, sends one byte on every connection and reads its echo,
// reports on `done`, holds the connections until `release` is readable, then exits.
// Only system calls after the fork: the parent's other threads are gone here.
[[noreturn]] void client(unsigned short port, int done, int release, std::vector<int>& fds)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    char ok = 1;
    for (int& fd : fds) {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        timeval tv{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) ok = 0;
    }
    for (int fd : fds) {
        if (ok && ::send(fd, "e", 1, MSG_NOSIGNAL) != 1) ok = 0;
    }
    for (int fd : fds) {
        char c = 0;
        if (ok && (::recv(fd, &c, 1, 0) != 1 || c != 'e')) ok = 0;
    }
    (void)!::write(done, &ok, 1);
    char byte;
    (void)!::read(release, &byte, 1);
    ::_exit(ok ? 0 : 1);
}

}  // namespace

TEST(Scale, TenThousandConnectionsOnOnePoolAreEachEchoed)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < kConnections + 200) GTEST_SKIP() << "descriptor limit " << limit.rlim_cur << " is too low";

    PoolScope scope;
    Echo::SEchoStats stats;
    auto* server = new Echo::CEchoServer(0, stats);
    const CSockAddrIPv4 local("127.0.0.1", 0);
    ASSERT_EQ(server->Start(local), 0);
    const unsigned short port = server->Port();

    int done[2], release[2];
    ASSERT_EQ(::pipe(done), 0);
    ASSERT_EQ(::pipe(release), 0);
    std::vector<int> fds(kConnections, -1);  // allocated before the fork
    const long before = rss_kib();
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) client(port, done[1], release[0], fds);

    char ok = 0;
    ASSERT_EQ(::read(done[0], &ok, 1), 1);
    EXPECT_EQ(ok, 1) << "a connection failed or was not echoed";
    EXPECT_EQ(stats.accepted.load(), kConnections);
    EXPECT_EQ(stats.bytes.load(), kConnections);
    const long after = rss_kib();
    std::printf("memory per idle connection: %.0f bytes (RSS %ld -> %ld KiB for %d connections)\n",
                (after - before) * 1024.0 / kConnections, before, after, kConnections);

    (void)!::write(release[1], "x", 1);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(eventually([&] { return stats.closed.load() == kConnections; }, std::chrono::seconds(30)));
    server->Stop();
    for (int fd : {done[0], done[1], release[0], release[1]}) ::close(fd);
}

#endif
