// Reliable-UDP streams and acceptors: an echo on the reactor, blocking transfers without
// it, a refused pass phrase, refusals on a stream that is not open, and a stream sender
// writing to a reliable-UDP stream.
#include <Corvane/Config.h>

#if CORVANE_HAVE_SRT

#include <gtest/gtest.h>

#include <Corvane/EventMask.h>
#include <Corvane/MirtAcceptor.h>
#include <Corvane/MirtStream.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/StreamSender.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../core/Probe.h"
#include "../tool/SenderSupport.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using namespace Qelvar::Corvane;
using namespace Qelvar::Test;

namespace {

constexpr int kSecond = 1000000;

// Opens `acceptor` on 127.0.0.1 and the port the transport chose, returned in `addr`.
// A latency budget above the default: a loaded machine must not make live messages late.
bool listen_on(CMirtAcceptor& acceptor, CSockAddrIPv4* addr)
{
    CSockAddrIPv4 local("127.0.0.1", 0);
    return acceptor.SetLatency(250) == 0 && acceptor.Open(local) == 0 && acceptor.GetLocalAddr(addr) == 0 &&
           addr->GetPort() != 0;
}

// A blocking pair: `client` connected to `acceptor`, its peer accepted into `server`.
bool blocking_pair(CMirtAcceptor& acceptor, CMirtStream& client, CMirtStream& server)
{
    CSockAddrIPv4 addr;
    if (!listen_on(acceptor, &addr)) return false;
    client.SetBlockOpt(true);
    server.SetBlockOpt(true);
    if (client.Connect(addr, nullptr) != 0 || client.GetConnectStatus() != 0) return false;
    return eventually([&] { return acceptor.Accept(server, nullptr) == 0; }, 2s);
}

// Accepts every connection of an acceptor on the reactor and echoes what comes.
class EchoServer {
public:
    explicit EchoServer(CMirtAcceptor& acceptor) : m_acceptor(acceptor)
    {
        probe.on_input = [this](int fd) { return fd == m_acceptor.GetHandle() ? accept_all() : echo(fd); };
    }
    ~EchoServer()
    {
        for (auto& stream : m_streams) probe.RemoveSock(*stream);
        probe.RemoveSock(m_acceptor);
        probe.Close();
    }
    bool Start() { return probe.RegisterSock(m_acceptor, MASK_READ, 0) == 0; }

    std::atomic<int> accepted{0};

private:
    int accept_all()
    {
        for (;;) {
            auto stream = std::make_unique<CMirtStream>();
            if (m_acceptor.Accept(*stream, nullptr) != 0) return 0;
            std::lock_guard<std::mutex> lock(m_mutex);
            if (probe.RegisterSock(*stream, MASK_READ, 0) != 0) return 0;
            m_streams.push_back(std::move(stream));
            ++accepted;
        }
    }
    int echo(int fd)
    {
        CMirtStream* stream = nullptr;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (auto& s : m_streams) {
                if (s->GetHandle() == fd) stream = s.get();
            }
        }
        char buf[1500];
        int n = 0;
        while (stream && (n = stream->Recv(buf, sizeof buf)) > 0) stream->Send(buf, static_cast<unsigned int>(n));
        return 0;
    }

    CMirtAcceptor& m_acceptor;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<CMirtStream>> m_streams;  // outlive the probe's wait

public:
    Probe probe;
};

}  // namespace

TEST(MirtStreamTest, EchoOnTheReactorWithANonBlockingConnect)
{
    PoolScope pool(2);
    ASSERT_TRUE(pool.ok());
    CMirtAcceptor acceptor;
    CSockAddrIPv4 addr;
    ASSERT_TRUE(listen_on(acceptor, &addr));
    EXPECT_EQ(acceptor.GetType(), SOCK_TYPE_ACCEPTOR);
    EchoServer server(acceptor);
    ASSERT_TRUE(server.Start());

    CMirtStream client;  // non-blocking, live mode
    EXPECT_EQ(client.GetType(), SOCK_TYPE_MIRT);
    std::mutex mutex;
    std::vector<std::string> echoes;
    std::atomic<int> status_at_output{99};
    Signal connected;
    Probe handler;
    handler.on_output = [&](int) {
        status_at_output = client.GetConnectStatus();
        handler.UnregisterSock(client, MASK_WRITE);
        connected.Add();
        return 0;
    };
    handler.on_input = [&](int) {
        char buf[1500];
        int n = 0;
        while ((n = client.Recv(buf, sizeof buf)) > 0) {
            std::lock_guard<std::mutex> lock(mutex);
            echoes.emplace_back(buf, static_cast<std::size_t>(n));
        }
        return 0;
    };
    ASSERT_EQ(client.Connect(addr, nullptr), 0);
    EXPECT_GE(client.GetConnectStatus(), 0);  // pending (1) or already done (0)
    ASSERT_EQ(handler.RegisterSock(client, MASK_READ | MASK_WRITE, 0), 0);
    ASSERT_TRUE(connected.WaitFor(1, 3s));
    EXPECT_EQ(status_at_output.load(), 0);

    // Messages up to the payload size; one longer than it goes out as its first 1316.
    constexpr int kMessages = 40;
    std::vector<std::string> sent;
    for (int i = 0; i < kMessages; ++i) {
        sent.push_back(Pattern(1 + static_cast<std::size_t>(i) * 173 % 1316, static_cast<unsigned int>(i)));
    }
    const std::string longer = Pattern(2000, 99);
    for (const std::string& msg : sent) {
        ASSERT_EQ(client.Send(msg.data(), static_cast<unsigned int>(msg.size())), static_cast<int>(msg.size()));
    }
    ASSERT_EQ(client.Send(longer.data(), 2000), 1316);
    sent.push_back(longer.substr(0, 1316));
    EXPECT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return echoes.size() >= sent.size();
    }, 5s));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_TRUE(echoes == sent) << echoes.size() << " echoes of " << sent.size();
    }
    EXPECT_EQ(server.accepted.load(), 1);

    handler.RemoveSock(client);
    handler.Close();
}

TEST(MirtStreamTest, BlockingTransfersWithoutTheReactorLiveAndFile)
{
    PoolScope pool(1);
    ASSERT_TRUE(pool.ok());
    {
        // Live: Send_n cuts the buffer into messages, Recv_n returns them one by one.
        CMirtAcceptor acceptor;
        CMirtStream client, server;
        ASSERT_TRUE(blocking_pair(acceptor, client, server));
        char buf[1500];
        EXPECT_EQ(server.Recv_n(buf, sizeof buf, 100000), 0);  // nothing yet: time-out
        const std::string data = Pattern(5000, 7);
        ASSERT_EQ(client.Send_n(data.data(), 5000, kSecond), 5000);
        std::string got;
        while (got.size() < data.size()) {
            const int n = server.Recv_n(buf, sizeof buf, kSecond);
            ASSERT_GT(n, 0);
            EXPECT_LE(n, 1316);
            got.append(buf, static_cast<std::size_t>(n));
        }
        EXPECT_EQ(got, data);

        // And back, through one gathered message.
        const std::string a = "gathered ", b = "reply";
        iovec vec[2];
        vec[0].iov_base = const_cast<char*>(a.data());
        vec[0].iov_len = a.size();
        vec[1].iov_base = const_cast<char*>(b.data());
        vec[1].iov_len = b.size();
        ASSERT_EQ(server.WriteV(vec, 2), 14);
        const int n = client.Recv_n(buf, sizeof buf, kSecond);
        EXPECT_EQ(std::string(buf, static_cast<std::size_t>(n > 0 ? n : 0)), "gathered reply");
    }
    {
        // File mode, set on both ends (the accepted stream inherits it): a byte stream.
        CMirtAcceptor acceptor;
        CMirtStream client, server;
        ASSERT_EQ(acceptor.SetTransType(MIRT_FILE), 0);
        ASSERT_EQ(client.SetTransType(MIRT_FILE), 0);
        ASSERT_TRUE(blocking_pair(acceptor, client, server));
        const std::string data = Pattern(300000, 8);
        std::atomic<int> sent{0};
        std::thread writer([&] { sent = client.Send_n(data.data(), static_cast<unsigned int>(data.size()), kSecond); });
        std::string got;
        char buf[65536];
        while (got.size() < data.size()) {
            const int n = server.Recv_n(buf, sizeof buf, 2 * kSecond);
            if (n <= 0) break;
            got.append(buf, static_cast<std::size_t>(n));
        }
        writer.join();
        EXPECT_EQ(sent.load(), 300000);
        EXPECT_TRUE(got == data) << got.size();
    }
}

TEST(MirtStreamTest, PassPhrasesMustMatchAndAClosedStreamRefusesWithItsLine)
{
    PoolScope pool(1);
    ASSERT_TRUE(pool.ok());
    CMirtAcceptor acceptor;
    ASSERT_EQ(acceptor.SetPassphrase("the right pass phrase"), 0);
    CSockAddrIPv4 addr;
    ASSERT_TRUE(listen_on(acceptor, &addr));
    {
        LogCapture log;
        CMirtStream wrong;
        wrong.SetBlockOpt(true);
        EXPECT_EQ(wrong.SetPassphrase("short"), -1);
        EXPECT_TRUE(log.Contains("CMirtStream::SetPassphrase : Invalid parameter"));
        ASSERT_EQ(wrong.SetPassphrase("a wrong pass phrase"), 0);
        EXPECT_EQ(wrong.Connect(addr, nullptr), -1);
        EXPECT_TRUE(log.Contains("CMirtStream::Connect : connect failed!"));
        EXPECT_FALSE(wrong.IsValid());
    }
    {
        // Open first: options set between Open and Connect reach the socket at once.
        CMirtStream right, server;
        right.SetBlockOpt(true);
        CSockAddrIPv4 local("127.0.0.1", 0), bound;
        ASSERT_EQ(right.Open(&local), 0);
        ASSERT_EQ(right.GetLocalAddr(&bound), 0);
        EXPECT_NE(bound.GetPort(), 0);
        ASSERT_EQ(right.SetPassphrase("the right pass phrase"), 0);
        ASSERT_EQ(right.Connect(addr, nullptr), 0);
        ASSERT_TRUE(eventually([&] { return acceptor.Accept(server, nullptr) == 0; }, 2s));
        ASSERT_EQ(right.Send("secret", 6), 6);
        char buf[1500];
        EXPECT_EQ(server.Recv_n(buf, sizeof buf, kSecond), 6);

        // Too late on a connected stream and on a listening acceptor.
        LogCapture log;
        EXPECT_EQ(right.SetLatency(20), -1);
        EXPECT_TRUE(log.Contains("CMirtStream::SetLatency : set latency failed!"));
        EXPECT_EQ(acceptor.SetLatency(20), -1);
        EXPECT_TRUE(log.Contains("CMirtAcceptor::SetLatency : set latency failed!"));

        // The peer's close reads as a reset, without a line.
        log.Clear();
        server.Close();
        EXPECT_EQ(right.Recv_n(buf, sizeof buf, 2 * kSecond), -1);
        EXPECT_EQ(right.Recv(buf, sizeof buf), -1);
        EXPECT_FALSE(log.Contains("CMirtStream::Recv"));
    }

    // Never opened, or opened and closed: every operation fails and says so.
    CMirtStream stream;
    char buf[1500];
    iovec vec[1];
    vec[0].iov_base = buf;
    vec[0].iov_len = 1;
    for (int round = 0; round < 2; ++round) {
        if (round == 1) {
            ASSERT_EQ(stream.Open(nullptr), 0);
            ASSERT_EQ(stream.Close(), 0);
        }
        LogCapture log;
        EXPECT_EQ(stream.Send("x", 1), -1);
        EXPECT_EQ(stream.WriteV(vec, 1), -1);
        EXPECT_EQ(stream.Recv(buf, sizeof buf), -1);
        EXPECT_EQ(stream.Send_n("x", 1, kSecond), -1);
        EXPECT_EQ(stream.Recv_n(buf, sizeof buf, kSecond), -1);
        EXPECT_EQ(stream.GetConnectStatus(), -2);
        for (const char* name : {"CMirtStream::Send :", "CMirtStream::WriteV :", "CMirtStream::Recv :",
                                 "CMirtStream::Recv_n :", "CMirtStream::GetConnectStatus :"}) {
            EXPECT_TRUE(log.Contains(name)) << name;
        }
    }
    CMirtAcceptor closed;
    LogCapture log;
    CMirtStream into;
    EXPECT_EQ(closed.Accept(into, nullptr), -1);
    EXPECT_EQ(closed.Accept(nullptr), nullptr);
    EXPECT_TRUE(log.Contains("CMirtAcceptor::Accept : accept failed!"));
}

TEST(MirtStreamTest, AStreamSenderDrainsIntoAReliableUdpStream)
{
    PoolScope pool(2);
    ASSERT_TRUE(pool.ok());
    CMirtAcceptor acceptor;
    CMirtStream client, server;  // before the rig, which holds the client
    ASSERT_TRUE(blocking_pair(acceptor, client, server));
    client.SetBlockOpt(false);
    SenderRig rig;
    ASSERT_TRUE(rig.Attach(client));

    // One put: the first message goes at once, the rest drains one message per
    // writability through WriteV.
    const std::string data = Pattern(100000, 5);
    ASSERT_EQ(rig.sender->Put(data.data(), static_cast<unsigned int>(data.size())), 0);
    std::string got;
    ReadSlowly(server, 200000, data.size(), got);
    EXPECT_TRUE(got == data) << got.size();
    EXPECT_EQ(rig.Count(STREAM_SENDER_EXCEPTION), 0);
}

#endif
