// TCP and UDP over loopback through the platform calls, for both address families.
#include <gtest/gtest.h>

#include <Corvane/IoVec.h>

#include <cstring>
#include <string>
#include <vector>

#include "Loopback.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"

namespace Qelvar::Platform {

using namespace Test;

namespace {

class LoopbackTest : public SocketTestBase, public testing::WithParamInterface<int> {
protected:
    void SetUp() override
    {
        SocketTestBase::SetUp();
        Fd probe(bound_socket(family(), SOCK_DGRAM));
        if (probe == -1) GTEST_SKIP() << "no loopback address of this family here";
    }

    int family() const { return GetParam(); }
};

/// The library's iovec over `parts` (fields set by name: their order differs by system)
/// and what they send together.
std::vector<Corvane::iovec> gather(const std::vector<std::string>& parts, std::string* all)
{
    std::vector<Corvane::iovec> vec(parts.size());
    for (std::size_t i = 0; i < parts.size(); ++i) {
        vec[i].iov_base = const_cast<char*>(parts[i].data());
        vec[i].iov_len = static_cast<decltype(vec[i].iov_len)>(parts[i].size());
        *all += parts[i];
    }
    return vec;
}
// Parts that die with the call would leave the iovec pointing into freed strings.
std::vector<Corvane::iovec> gather(std::vector<std::string>&&, std::string*) = delete;

/// What arrives on `fd` (one datagram, or a stream until `n` bytes) within a while.
std::string receive(int fd, std::size_t n, Addr* from = nullptr)
{
    std::string got;
    char buf[4096];
    for (int i = 0; i < 100 && got.size() < n && readable_soon(fd); ++i) {
        const long r = from ? sock_recvfrom(fd, buf, sizeof buf, from->get(), &from->len) : sock_recv(fd, buf, sizeof buf);
        if (r <= 0) break;
        got.append(buf, static_cast<std::size_t>(r));
        if (from) break;
    }
    return got;
}

}  // namespace

TEST_P(LoopbackTest, TcpConnectsAcceptsAndCarriesAGatheredSendInOrder)
{
    Fd listener(bound_socket(family(), SOCK_STREAM));
    ASSERT_NE(listener, -1);
    ASSERT_EQ(sock_listen(listener, 4), 0);
    const Addr server = local_of(listener);
    ASSERT_NE(server.port(), 0);
    EXPECT_EQ(server.text(), make_addr(family(), server.port()).text());

    // Non-blocking, as the socket classes connect: done when writable without an error.
    Fd client(sock_open(family(), SOCK_STREAM, 0));
    ASSERT_EQ(sock_set_nonblocking(client, true), 0);
    if (sock_connect(client, server.get(), server.len) != 0) {
        ASSERT_TRUE(is_in_progress(last_error())) << last_error();
    }
    unsigned int ready = 0;
    ASSERT_EQ(sock_wait(client, SOCK_WRITABLE, 2000000, &ready), 1);
    EXPECT_EQ(ready, SOCK_WRITABLE);
    int err = -1;
    int err_len = sizeof err;
    ASSERT_EQ(sock_getopt(client, SOL_SOCKET, SO_ERROR, &err, &err_len), 0);
    EXPECT_EQ(err, 0);

    Addr peer;
    Fd accepted(sock_accept(listener, peer.get(), &peer.len));
    ASSERT_NE(accepted, -1);
    EXPECT_FALSE(inheritable(accepted));
    EXPECT_EQ(peer.len, make_addr(family(), 0).len);
    EXPECT_EQ(peer.text(), local_of(client).text());
    EXPECT_EQ(peer_of(client).text(), server.text());
    EXPECT_EQ(local_of(accepted).text(), server.text());

    const std::vector<std::string> parts = {"head:", std::string(3000, 'x') + "y", "-", std::string(700, 'z'), ":tail"};
    std::string all;
    const std::vector<Corvane::iovec> vec = gather(parts, &all);
    ASSERT_EQ(sock_set_nonblocking(client, false), 0);
    ASSERT_EQ(sock_sendv(client, vec.data(), static_cast<int>(vec.size()), nullptr, 0), static_cast<long>(all.size()));
    EXPECT_EQ(receive(accepted, all.size()), all);
}

TEST_P(LoopbackTest, RefusedNonBlockingConnectIsAnExceptionWithItsReasonInSoError)
{
    // A bound socket that does not listen: its port refuses, and nobody else can take it.
    Fd closed(bound_socket(family(), SOCK_STREAM));
    ASSERT_NE(closed, -1);
    const Addr target = local_of(closed);

    Fd client(sock_open(family(), SOCK_STREAM, 0));
    ASSERT_EQ(sock_set_nonblocking(client, true), 0);
    ASSERT_EQ(sock_connect(client, target.get(), target.len), -1);
    ASSERT_TRUE(is_in_progress(last_error())) << last_error();
    // Windows tries a refused loopback connect again for about two seconds.
    unsigned int ready = 0;
    ASSERT_EQ(sock_wait(client, SOCK_WRITABLE, 5000000, &ready), 1);
    EXPECT_NE(ready & SOCK_EXCEPTION, 0u) << ready;
    int err = 0;
    int err_len = sizeof err;
    ASSERT_EQ(sock_getopt(client, SOL_SOCKET, SO_ERROR, &err, &err_len), 0);
    EXPECT_NE(err, 0);
    EXPECT_FALSE(is_would_block(err)) << err;
}

TEST_P(LoopbackTest, UdpDatagramsKeepTheirBoundariesAndSenders)
{
    Fd a(bound_socket(family(), SOCK_DGRAM));
    Fd b(bound_socket(family(), SOCK_DGRAM));
    ASSERT_TRUE(a != -1 && b != -1);
    const Addr to_b = local_of(b);

    ASSERT_EQ(sock_sendto(a, "one", 3, to_b.get(), to_b.len), 3);
    const std::vector<std::string> parts = {"two-", "three-", std::string(1000, 'f'), "-four"};
    std::string all;
    const std::vector<Corvane::iovec> vec = gather(parts, &all);
    ASSERT_EQ(sock_sendv(a, vec.data(), static_cast<int>(vec.size()), to_b.get(), to_b.len),
              static_cast<long>(all.size()));

    Addr from;
    EXPECT_EQ(receive(b, 1, &from), "one");
    EXPECT_EQ(from.text(), local_of(a).text());
    EXPECT_EQ(receive(b, 1, &from), all);
}

TEST_P(LoopbackTest, RecvMsgTellsTheAddressADatagramWasSentToWithThePort)
{
    // Bound to the wildcard: only the datagram itself can tell which address it came to.
    Fd receiver(bound_socket(family(), SOCK_DGRAM, true));
    Fd sender(bound_socket(family(), SOCK_DGRAM));
    ASSERT_TRUE(receiver != -1 && sender != -1);
    char buf[64];
    Addr from;
    Addr local;
#ifdef _WIN32
    EXPECT_EQ(sock_recvmsg(receiver, buf, sizeof buf, from.get(), &from.len, local.get(), &local.len),
              SOCK_UNSUPPORTED);
#else
    // Sent before the first call, which is the one that asks for the address.
    const Addr to = make_addr(family(), local_of(receiver).port());
    for (const char* text : {"first", "second"}) {
        ASSERT_EQ(sock_sendto(sender, text, std::strlen(text), to.get(), to.len), static_cast<long>(std::strlen(text)));
        ASSERT_TRUE(readable_soon(receiver));
        from = Addr();
        local = Addr();
        ASSERT_EQ(sock_recvmsg(receiver, buf, sizeof buf, from.get(), &from.len, local.get(), &local.len),
                  static_cast<long>(std::strlen(text)));
        EXPECT_EQ(std::string(buf, std::strlen(text)), text);
        EXPECT_EQ(local.text(), to.text());
        EXPECT_EQ(local.len, to.len);
        EXPECT_EQ(from.text(), local_of(sender).text());
    }
#endif
}

INSTANTIATE_TEST_SUITE_P(Families, LoopbackTest, testing::Values(AF_INET, AF_INET6),
                         [](const testing::TestParamInfo<int>& info) -> std::string {
                             return info.param == AF_INET ? "IPv4" : "IPv6";
                         });

}  // namespace Qelvar::Platform
