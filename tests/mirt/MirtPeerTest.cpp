// Interoperability with an implementation of the protocol nobody here wrote:
// srt-live-transmit relaying between the facade and a plain UDP socket, both ways, and
// its pass phrase check.
#include <Corvane/Config.h>

#if CORVANE_HAVE_SRT

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <vector>

#include "MirtSupport.h"

extern char** environ;

namespace MirtTest {
namespace {

bool have_srt_live_transmit()
{
    return std::system("command -v srt-live-transmit >/dev/null 2>&1") == 0;
}

// srt-live-transmit from `input` to `output`, quiet, killed with the test (and ending on
// its own after 15 s should the test die).
class CLiveTransmit {
public:
    CLiveTransmit(std::string input, std::string output)
    {
        std::string args[] = {"srt-live-transmit", "-q", "-t:15", std::move(input), std::move(output)};
        char* argv[] = {args[0].data(), args[1].data(), args[2].data(), args[3].data(), args[4].data(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        if (posix_spawnp(&m_pid, argv[0], &actions, nullptr, argv, environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~CLiveTransmit()
    {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    CLiveTransmit(const CLiveTransmit&) = delete;
    CLiveTransmit& operator=(const CLiveTransmit&) = delete;

    bool Started() const { return m_pid > 0; }

private:
    pid_t m_pid = -1;
};

// Connects to a listener that is starting up: tries for up to 3 s.
int connect_when_listening(unsigned short port, const char* phrase)
{
    for (int i = 0; i < 10; ++i) {
        const int fd = connect_to(port, phrase, 300);
        if (fd >= 0) return fd;
    }
    return -1;
}

class PeerTest : public MirtFixture {
protected:
    void SetUp() override
    {
        if (!have_srt_live_transmit()) GTEST_SKIP() << "srt-live-transmit (srt-tools) is not installed";
        MirtFixture::SetUp();
    }
    void TearDown() override
    {
        if (have_srt_live_transmit()) MirtFixture::TearDown();
    }
};

// The facade calls a srt-live-transmit listener that relays to a UDP socket here; then a
// caller with another pass phrase is turned away.
TEST_F(PeerTest, FacadeCallerReachesPeerListenerThatChecksThePassPhrase)
{
    const char* phrase = "a shared secret 42";
    CUdpSocket sink;
    const unsigned short port = free_udp_port();
    CLiveTransmit peer("srt://127.0.0.1:" + std::to_string(port) + "?mode=listener&passphrase=" + phrase,
                       "udp://127.0.0.1:" + std::to_string(sink.Port()));
    ASSERT_TRUE(peer.Started());
    const int fd = connect_when_listening(port, phrase);
    ASSERT_GE(fd, Mirt::getsockidbase()) << Mirt::getlasterror_desc();
    for (const std::string& m : std::vector<std::string>{"first", "second message", std::string(1316, 'z')}) {
        ASSERT_EQ(Mirt::send(fd, m.data(), static_cast<int>(m.size())), static_cast<int>(m.size()));
        EXPECT_EQ(sink.Recv(2000), m);
    }
    EXPECT_EQ(Mirt::close(fd), 0);

    const int wrong = make_socket("wrong pass phrase!");
    const sockaddr_in addr = loopback(port);
    EXPECT_EQ(Mirt::connect(wrong, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), -1);
    EXPECT_EQ(Mirt::getlasterror(), SRT_ECONNREJ) << Mirt::getlasterror_desc();
    EXPECT_EQ(Mirt::close(wrong), 0);
}

TEST_F(PeerTest, PeerCallerReachesFacadeListener)
{
    unsigned short port = 0;
    const int listener = make_listener(&port);
    ASSERT_GE(listener, 0) << Mirt::getlasterror_desc();
    const unsigned short udp_in = free_udp_port();
    CLiveTransmit peer("udp://127.0.0.1:" + std::to_string(udp_in), "srt://127.0.0.1:" + std::to_string(port));
    ASSERT_TRUE(peer.Started());

    // The connection shows as readiness of the listener.
    const int epid = Mirt::epoll_create();
    const int in = Mirt::MIRT_EPOLL_IN;
    ASSERT_EQ(Mirt::epoll_add_usock(epid, listener, &in), 1);
    Mirt::SMirtEvent ev[1];
    ASSERT_EQ(Mirt::epoll_wait(epid, ev, 1, 5000), 1) << Mirt::getlasterror_desc();
    EXPECT_EQ(ev[0].fd, listener);
    const int fd = Mirt::accept(listener, nullptr, nullptr);
    ASSERT_GE(fd, Mirt::getsockidbase()) << Mirt::getlasterror_desc();
    int short_wait = 100;
    ASSERT_EQ(Mirt::setsockopt(fd, SRTO_RCVTIMEO, &short_wait, sizeof short_wait), 0);

    // The peer's UDP input may not be bound yet: knock until a datagram comes through,
    // then skip the knocks still on their way.
    CUdpSocket source;
    std::string got;
    for (int i = 0; i < 30 && got != "knock"; ++i) {
        source.SendTo(udp_in, "knock");
        got = recv_message(fd);
    }
    ASSERT_EQ(got, "knock");
    int long_wait = 2000;
    ASSERT_EQ(Mirt::setsockopt(fd, SRTO_RCVTIMEO, &long_wait, sizeof long_wait), 0);
    for (const char* m : {"one", "two", "three"}) {
        source.SendTo(udp_in, m);
        do got = recv_message(fd);
        while (got == "knock");
        EXPECT_EQ(got, m);
    }
    EXPECT_EQ(Mirt::epoll_release(epid), 0);
    EXPECT_EQ(Mirt::close(fd), 0);
    EXPECT_EQ(Mirt::close(listener), 0);
}

}  // namespace
}  // namespace MirtTest

#endif
