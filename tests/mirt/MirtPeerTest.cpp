// Interoperability with an implementation of the protocol nobody here wrote:
// srt-live-transmit relaying between the facade and a plain UDP socket, both ways, and
// its pass phrase check.
#include <Corvane/Config.h>

#if CORVANE_HAVE_SRT

#include <string>
#include <vector>

#include "MirtSupport.h"
#include "TestSupport.h"

namespace MirtTest {
namespace {

bool have_srt_live_transmit()
{
    // Asked once: under Wine every command costs a start of the host's shell.
    static const bool have = [] {
        int status = -1;
        Qelvar::Test::RunCommand("command -v srt-live-transmit", &status, 10);
        return status == 0;
    }();
    return have;
}

// srt-live-transmit from `input` to `output`, quiet, run by the host's shell (on Windows
// too, through Wine), ended with the test and on its own after 15 s should the test die.
// Its data comes and goes over UDP: a host program under Wine has no pipe to us.
class CLiveTransmit {
public:
    CLiveTransmit(const std::string& input, const std::string& output)
        : m_pid(Qelvar::Test::StartCommand("exec srt-live-transmit -q -t:15 '" + input + "' '" + output + "'", 20))
    {
    }
    ~CLiveTransmit() { Qelvar::Test::StopCommand(m_pid); }
    CLiveTransmit(const CLiveTransmit&) = delete;
    CLiveTransmit& operator=(const CLiveTransmit&) = delete;

    bool Started() const { return m_pid > 0; }

private:
    int m_pid;
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
