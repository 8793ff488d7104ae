// The reactor-driven TLS stream: hand-over to the user's handler, failures reaching it
// as events, transfers afterwards.
#include "TlsSupport.h"

#include <memory>
#include <mutex>
#include <vector>

#ifndef _WIN32
#include <sys/resource.h>
#endif

#include "../core/Probe.h"
#include "Platform/SockTypes.h"
#include "Platform/Socket.h"

namespace TlsTest {
namespace {

using Qelvar::Test::LogCapture;
using Qelvar::Test::Probe;
using Qelvar::Test::Signal;

using SslAsyncStreamTest = TlsFixture;

// A user handler with its stream: records what the hand-over said, then (when
// `message` is set) sends it and collects the echo.
struct AsyncClient {
    explicit AsyncClient(std::string text = "") : message(std::move(text))
    {
        probe.on_output = [this](int) {
            outputs.fetch_add(1);
            status = stream.GetConnectStatus();
            reused = stream.IsSessionReused();
            if (status != 0) {
                probe.RemoveSock(stream);  // what a user does with a failed stream
            } else if (!message.empty()) {
                probe.UnregisterSock(stream, MASK_WRITE);
                probe.RegisterSock(stream, MASK_READ, 0);
                stream.Send_n(message.data(), static_cast<unsigned int>(message.size()), 2000);
            }
            handed.Add();
            return 0;
        };
        probe.on_input = [this](int) {
            char buf[4096];
            int n;
            // TLS may hold more than the socket shows: read until nothing is left.
            while ((n = stream.Recv(buf, sizeof buf)) > 0) {
                std::lock_guard<std::mutex> lock(mutex);
                received.append(buf, static_cast<std::size_t>(n));
                if (received.size() >= message.size()) echoed.Add();
            }
            if (n < 0) probe.RemoveSock(stream);  // the peer left: no more reports of its end
            return 0;
        };
        probe.on_output_timeout = [this](int) {
            timeouts.Add();
            return -1;
        };
    }
    ~AsyncClient()
    {
        probe.RemoveSock(stream);
        probe.Close();
    }
    std::string Received()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

    std::string message;
    CSslAsyncStream stream;
    Probe probe;  // destroyed first: it waits until no callback can run any more
    std::atomic<int> outputs{0};
    std::atomic<int> status{-3};
    std::atomic<int> reused{-1};
    Signal handed, echoed, timeouts;
    std::mutex mutex;
    std::string received;
};

TEST_F(SslAsyncStreamTest, HandsTheSocketOverAfterTheHandshakeAndEchoes)
{
    ServerThread server(
        [](CSslAcceptor& a) {
            UseServerCert(a);
            a.SetOption(0, 1, nullptr);
        },
        Echo, 2);
    for (int round = 0; round < 2; ++round) {
        AsyncClient client("reactor-driven TLS, round " + std::to_string(round));
        client.stream.SetOption(0, 1, nullptr);
        EXPECT_EQ(client.stream.GetType(), static_cast<unsigned int>(SOCK_TYPE_SSL_ASYNC));
        ASSERT_EQ(client.stream.Connect(server.Address(), nullptr), 0);
        EXPECT_EQ(client.stream.GetConnectStatus(), -2);
        ASSERT_EQ(client.probe.RegisterSock(client.stream, MASK_WRITE, 5000000), 0);
        ASSERT_TRUE(client.handed.WaitFor(1, std::chrono::seconds(5)));
        EXPECT_EQ(client.status.load(), 0);
        EXPECT_EQ(client.reused.load(), round);  // the second resumes the first's session
        ASSERT_TRUE(client.echoed.WaitFor(1, std::chrono::seconds(5)));
        EXPECT_EQ(client.Received(), client.message);
        EXPECT_EQ(client.outputs.load(), 1);  // writability went away with MASK_WRITE
        CSslX509 peer;
        EXPECT_EQ(client.stream.GetPeerCert(&peer), 0);
    }
    EXPECT_EQ(server.Join(), 2);
}

TEST_F(SslAsyncStreamTest, RefusedConnectReachesTheUserOnceAsFailure)
{
    AsyncClient client;
    const CSockAddrIPv4 closed("127.0.0.1", FreePort());
    ASSERT_EQ(client.stream.Connect(closed, nullptr), 0);  // non-blocking: under way
    ASSERT_EQ(client.probe.RegisterSock(client.stream, MASK_WRITE, 5000000), 0);
    ASSERT_TRUE(client.handed.WaitFor(1, std::chrono::seconds(5)));
    EXPECT_EQ(client.status.load(), -1);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(client.outputs.load(), 1);
}

TEST_F(SslAsyncStreamTest, SilentServerEndsInTheUsersWriteTimeout)
{
    // Accepts TCP and never answers the handshake.
    PlainListener silent;
    ASSERT_TRUE(silent.ok);

    AsyncClient client;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(client.stream.Connect(silent.Address(), nullptr), 0);
    ASSERT_EQ(client.probe.RegisterSock(client.stream, MASK_WRITE, 1000000), 0);
    ASSERT_TRUE(client.timeouts.WaitFor(1, std::chrono::seconds(5)));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(1000));
    EXPECT_LE(waited, std::chrono::milliseconds(2600));
    EXPECT_EQ(client.outputs.load(), 0);
    EXPECT_EQ(client.stream.GetConnectStatus(), -2);
}

TEST_F(SslAsyncStreamTest, ManyClientsHandshakeAtOnceWithoutLeaks)
{
    constexpr int kClients = 12;
    const int fds = OpenFds();
    {
        ServerThread server(UseServerCert, EchoOnce, kClients);
        std::vector<std::unique_ptr<AsyncClient>> clients;
        for (int i = 0; i < kClients; ++i) {
            clients.push_back(std::make_unique<AsyncClient>("client " + std::to_string(i)));
            ASSERT_EQ(clients.back()->stream.Connect(server.Address(), nullptr), 0);
            ASSERT_EQ(clients.back()->probe.RegisterSock(clients.back()->stream, MASK_WRITE, 10000000), 0);
        }
        // The blocking server takes them one after another; each echoes once it is served.
        for (auto& client : clients) {
            ASSERT_TRUE(client->echoed.WaitFor(1, std::chrono::seconds(20)));
            EXPECT_EQ(client->Received(), client->message);
        }
        clients.clear();
        EXPECT_EQ(server.Join(), kClients);
    }
    EXPECT_TRUE(Qelvar::Test::eventually([&] { return OpenFds() == fds; }, std::chrono::seconds(5)));
}

TEST_F(SslAsyncStreamTest, PeerResetDuringTheHandshakeReachesTheUserAsFailure)
{
    PlainListener plain;
    ASSERT_TRUE(plain.ok);
    std::thread peer = ResetAfterHello(plain);
    const int fds = OpenFds();
    {
        AsyncClient client;
        int exceptions = 0;
        client.probe.on_exception = [&](int) {
            ++exceptions;
            client.handed.Add();
            return -1;
        };
        ASSERT_EQ(client.stream.Connect(plain.Address(), nullptr), 0);
        ASSERT_EQ(client.probe.RegisterSock(client.stream, MASK_WRITE, 5000000), 0);
        ASSERT_TRUE(client.handed.WaitFor(1, std::chrono::seconds(5)));
        // Either the failed handshake is handed over, or the reset comes as an exception.
        EXPECT_TRUE(client.status.load() == -1 || exceptions == 1);
        EXPECT_NE(client.stream.GetConnectStatus(), 0);
    }
    peer.join();
    EXPECT_TRUE(Qelvar::Test::eventually([&] { return OpenFds() <= fds; }, std::chrono::seconds(5)));
}

TEST_F(SslAsyncStreamTest, HandlerClosedDuringTheHandshakeIsSkipped)
{
    // The server takes the TCP connection at once but runs the handshake only when told.
    PlainListener plain;
    ASSERT_TRUE(plain.ok);
    Signal go, served;
    std::thread server([&] {
        auto* conn = new CSockStream();
        if (!plain.Accept(*conn)) {
            delete conn;
            return;
        }
        go.WaitFor(1);
        CSslAcceptor tls;
        UseServerCert(tls);
        CSslStream out;
        if (tls.Accept(out, conn) == 0) served.Add();
    });

    LogCapture log;
    CSslAsyncStream stream;
    std::atomic<int> calls{0};
    Signal released;
    auto* user = new Probe(0, &released, true);
    user->on_output = user->on_exception = user->on_output_timeout = [&](int) {
        calls.fetch_add(1);
        return -1;
    };
    ASSERT_EQ(stream.Connect(plain.Address(), nullptr), 0);
    ASSERT_EQ(user->RegisterSock(stream, MASK_WRITE, 5000000), 0);
    user->Close();
    ASSERT_TRUE(released.WaitFor(1, std::chrono::seconds(5)));
    go.Add();
    ASSERT_TRUE(served.WaitFor(1, std::chrono::seconds(5)));
    EXPECT_TRUE(log.WaitFor("registerNotifyUser obj_id", std::chrono::seconds(5)));
    EXPECT_EQ(calls.load(), 0);
    server.join();
}


// Windows' select sets hold 4096 sockets each, the poller's wake-up socket included. A TLS
// client whose handshake needs the read set once it is full hears nothing: its handshake
// ends in the user's time-out, until a socket leaves and makes room. Linux has no cap.
TEST_F(SslAsyncStreamTest, FullReadSetStallsTheHandshakeUntilASocketLeaves)
{
    constexpr int kFillers = 4095;
#ifdef _WIN32
    constexpr bool capped = true;
#else
    constexpr bool capped = false;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < kFillers + 256) GTEST_SKIP() << "needs " << kFillers + 256 << " descriptors";
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
#endif
    ServerThread server(UseServerCert, Echo, 2);
    // Quiet UDP sockets that sit in the read set for the whole test.
    std::vector<std::unique_ptr<CSockDgram>> fillers;
    Probe holder;
    for (int i = 0; i < kFillers; ++i) {
        fillers.push_back(std::make_unique<CSockDgram>());
        const CSockAddrIPv4 local("127.0.0.1", 0);
        ASSERT_EQ(fillers.back()->Open(&local), 0) << i;
        ASSERT_EQ(holder.RegisterSock(*fillers.back(), MASK_READ, 0), 0) << i;
    }
    {
        AsyncClient first("past the cap");
        ASSERT_EQ(first.stream.Connect(server.Address(), nullptr), 0);
        ASSERT_EQ(first.probe.RegisterSock(first.stream, MASK_WRITE, 1000000), 0);
        if (capped) {
            ASSERT_TRUE(first.timeouts.WaitFor(1, std::chrono::seconds(5)));
            EXPECT_EQ(first.outputs.load(), 0);
        } else {
            ASSERT_TRUE(first.echoed.WaitFor(1, std::chrono::seconds(5)));
        }
    }
    holder.RemoveSock(*fillers.back());
    fillers.pop_back();
    {
        AsyncClient second("room again");
        ASSERT_EQ(second.stream.Connect(server.Address(), nullptr), 0);
        ASSERT_EQ(second.probe.RegisterSock(second.stream, MASK_WRITE, 5000000), 0);
        ASSERT_TRUE(second.echoed.WaitFor(1, std::chrono::seconds(10)));
        EXPECT_EQ(second.Received(), second.message);
    }
    EXPECT_EQ(server.Join(), capped ? 1 : 2);
    for (auto& filler : fillers) holder.RemoveSock(*filler);
    holder.Close();
}

}  // namespace
}  // namespace TlsTest
