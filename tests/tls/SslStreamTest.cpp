// The blocking TLS stream and acceptor against each other over loopback.
#include "TlsSupport.h"

#include "NoAddr.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "Platform/SockTypes.h"
#include "Platform/Socket.h"

namespace TlsTest {
namespace {

using Qelvar::Test::CapturedLog;
using Qelvar::Test::CNoAddr;
using Qelvar::Test::LogCapture;

using SslStreamTest = TlsFixture;


TEST_F(SslStreamTest, EchoesWithEveryTransferCall)
{
    ServerThread server(UseServerCert, Echo);
    CSslStream client;
    ASSERT_EQ(client.Connect(server.Address(), nullptr), 0);
    EXPECT_EQ(client.GetType(), static_cast<unsigned int>(SOCK_TYPE_SSL));
    EXPECT_FALSE(client.GetBlockOpt());

    EXPECT_EQ(RoundTrip(client, "hello over TLS"), "hello over TLS");

    // A large message: partial writes and several records on the way back.
    std::string big(300000, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(RoundTrip(client, big), big);

    // Gathered: every element in order.
    char part1[] = "gathered ";
    char part2[] = "write";
    iovec vec[2];  // by name: the field order differs between systems
    vec[0].iov_base = part1;
    vec[0].iov_len = std::strlen(part1);
    vec[1].iov_base = part2;
    vec[1].iov_len = std::strlen(part2);
    EXPECT_EQ(client.WriteV(vec, 2), 14);
    char buf[64] = {0};
    int got = 0;
    while (got < 14) {
        const int n = client.Recv_n(buf + got, sizeof buf - got, 2000);
        ASSERT_GT(n, 0);
        got += n;
    }
    EXPECT_STREQ(buf, "gathered write");

    // Nothing to read: Recv and Peek say "nothing now", Recv_n times out with 0.
    EXPECT_EQ(client.Recv(buf, sizeof buf), 0);
    EXPECT_EQ(client.Peek(), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.Recv_n(buf, sizeof buf, 200), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(190));
    EXPECT_EQ(client.Recv_n(buf, sizeof buf, 0), 0);

    CSslX509 peer;
    EXPECT_EQ(client.GetPeerCert(&peer), 0);
    char subject[256];
    ASSERT_GT(peer.GetSubject(subject, sizeof subject), 0);
    EXPECT_NE(std::strstr(subject, "CN = localhost"), nullptr) << subject;
    EXPECT_EQ(client.GetPeerCert(nullptr), -1);
}

TEST_F(SslStreamTest, BadArgumentsAndUnconnectedStreamsAreRefused)
{
    // A null pointer as the log lines print it: "(nil)" on Linux, zeros on Windows.
    char null[32];
    std::snprintf(null, sizeof null, "%p", static_cast<void*>(nullptr));
    LogCapture log;
    CSslStream stream;
    char buf[8];
    EXPECT_EQ(stream.Send(nullptr, 4), -1);
    EXPECT_TRUE(log.Contains(std::string("send failed! buf[") + null + "], len[4]"));
    EXPECT_EQ(stream.Send("abc", 3), -1);
    EXPECT_TRUE(log.Contains(std::string("Send failed!, m_ssl:") + null));
    EXPECT_EQ(stream.Recv(buf, 0), -1);
    EXPECT_EQ(stream.Recv(buf, sizeof buf), -1);
    EXPECT_TRUE(log.Contains(std::string("Recv failed!, m_ssl:") + null));
    EXPECT_EQ(stream.WriteV(nullptr, 1), -1);
    EXPECT_EQ(stream.Send_n(nullptr, 1, 10), -1);
    EXPECT_EQ(stream.Recv_n(nullptr, 1, 10), -1);
    CSslX509 cert;
    EXPECT_EQ(stream.GetPeerCert(&cert), -1);
    EXPECT_EQ(stream.Close(), -1);  // a TLS stream closes with its object only
    CSslAsyncStream async;
    EXPECT_EQ(async.GetPeerCert(&cert), -1);
    EXPECT_EQ(async.Recv(buf, sizeof buf), -1);

    const int fds = OpenFds();
    EXPECT_EQ(stream.Connect(CNoAddr(), nullptr), -1);
    EXPECT_TRUE(log.Contains("connect error, address type[0] error!"));
    EXPECT_EQ(OpenFds(), fds);
}

// Also: the acceptor's default handshake time-out is said once, then kept.
TEST_F(SslStreamTest, SessionsResumeByAddressAndById)
{
    LogCapture log(4);
    ServerThread server(
        [](CSslAcceptor& a) {
            UseServerCert(a);
            a.SetOption(0, 1, nullptr);
        },
        Echo, 5);

    // By address: the first connection stores, the second resumes and stores nothing.
    {
        CSslStream first;
        first.SetOption(0, 1, nullptr);
        ASSERT_EQ(first.Connect(server.Address(), nullptr), 0);
        EXPECT_EQ(first.IsSessionReused(), 0);
        EXPECT_EQ(RoundTrip(first, "one"), "one");  // a TLS 1.3 ticket comes with data
    }
    {
        CSslStream second;
        second.SetOption(0, 1, nullptr);
        ASSERT_EQ(second.Connect(server.Address(), nullptr), 0);
        EXPECT_EQ(second.IsSessionReused(), 1);
        EXPECT_EQ(RoundTrip(second, "two"), "two");
    }

    // By id: id 0 offers nothing and yields a new id, which a later connection resumes.
    unsigned int id = 0;
    {
        CSslStream first;
        first.SetOption(0, 1 | 4, &id);
        ASSERT_EQ(first.Connect(server.Address(), nullptr), 0);
        EXPECT_EQ(first.IsSessionReused(), 0);
        EXPECT_EQ(RoundTrip(first, "three"), "three");
        int type = 0, length = 0;
        ASSERT_EQ(first.GetOption(0, type, &id, length), 0);
        EXPECT_EQ(type, 5);
        EXPECT_NE(id, 0u);
    }
    {
        CSslStream second;
        second.SetOption(0, 1 | 4, &id);
        ASSERT_EQ(second.Connect(server.Address(), nullptr), 0);
        EXPECT_EQ(second.IsSessionReused(), 1);
        EXPECT_EQ(RoundTrip(second, "four"), "four");
    }

    // The other cache knows nothing of these sessions.
    {
        CSslStream other;
        other.SetOption(0, 4, &id);
        ASSERT_EQ(other.Connect(server.Address(), nullptr), 0);
        EXPECT_EQ(other.IsSessionReused(), 0);
        EXPECT_EQ(RoundTrip(other, "five"), "five");
    }
    EXPECT_EQ(server.Join(), 5);
    EXPECT_EQ(log.Count("will set the default 5s timeout!"), 1);  // then stored for the rest
    EXPECT_EQ(log.Count("Setting the listening timeout to :5000ms!"), 4);
}

TEST_F(SslStreamTest, CertificateObjectsVerifyBothWays)
{
    // The server presents its identity from an object and asks for a client certificate
    // signed by the CA; the client checks the server against the same CA.
    ServerThread server(
        [](CSslAcceptor& a) {
            auto* id = new CSslX509();
            id->LoadCertificateFile(TestPki::Path("server/cacert.pem").c_str());
            id->LoadPrivateKeyFile(TestPki::Path("server-key-enc.pem").c_str(), "secret");
            id->AddTrustedCAFile(TestPki::Path("ca.pem").c_str());
            a.SetOption(1, 3, id);
        },
        Echo, 2);

    {
        CSslStream client;
        const std::string pem = TestPki::Read("client.pem");
        const std::string key = TestPki::Read("client-key.pem");
        auto* id = new CSslX509();
        ASSERT_EQ(id->LoadCertificate(pem.data(), static_cast<int>(pem.size())), 0);
        ASSERT_EQ(id->LoadPrivateKey(key.data(), static_cast<int>(key.size())), 0);
        ASSERT_EQ(id->AddTrustedCAFile(TestPki::Path("ca.pem").c_str()), 0);
        client.SetOption(1, 3, id);
        ASSERT_EQ(client.Connect(server.Address(), nullptr), 0);
        EXPECT_EQ(RoundTrip(client, "mutual"), "mutual");
    }
    {
        // Without a certificate of its own the client is refused.
        LogCapture log;
        CSslStream client;
        auto* id = new CSslX509();
        id->AddTrustedCAFile(TestPki::Path("ca.pem").c_str());
        client.SetOption(1, 1, id);
        if (client.Connect(server.Address(), nullptr) == 0) {
            // TLS 1.3 reports a refused client certificate at the first read.
            char buf[8];
            EXPECT_EQ(client.Recv_n(buf, sizeof buf, 2000), -1);
        }
    }
    EXPECT_EQ(server.Join(), 1);
}

TEST_F(SslStreamTest, VerifyingClientRefusesExpiredAndSelfSignedServers)
{
    for (const char* identity : {"expired", "selfsigned"}) {
        SCOPED_TRACE(identity);
        const int fds = OpenFds();
        {
            const std::string dir = TestPki::Path(identity);
            ServerThread server([dir](CSslAcceptor& a) { a.SetPemPath(dir.c_str()); }, Echo);
            LogCapture log;
            CSslStream client;
            auto* trust = new CSslX509();
            trust->AddTrustedCAFile(TestPki::Path("ca.pem").c_str());
            client.SetOption(1, 1, trust);
            EXPECT_EQ(client.Connect(server.Address(), nullptr), -1);
            EXPECT_TRUE(log.Contains("SSL_connect failed"));
            EXPECT_TRUE(log.Contains("certificate verify failed"));
            EXPECT_EQ(server.Join(), 0);
        }
        EXPECT_EQ(OpenFds(), fds);
    }
}

TEST_F(SslStreamTest, HandshakeFailuresLeaveTheGivenStreamToTheCaller)
{
    // A plain TCP server that answers the hello with garbage.
    PlainListener plain;
    ASSERT_TRUE(plain.ok);
    std::thread peer([&] {
        CSockStream conn;
        if (!plain.Accept(conn)) return;
        char buf[512];
        conn.Recv_n(buf, sizeof buf, 2000000);
        conn.Send_n("this is not TLS at all\r\n", 24, 1000000);
        conn.Recv_n(buf, sizeof buf, 2000000);  // until the client gives up
    });

    LogCapture log;
    auto* stream = new CSockStream();
    stream->SetBlockOpt(true);
    ASSERT_EQ(stream->Connect(plain.Address(), nullptr), 0);
    CSslStream client;
    EXPECT_EQ(client.Connect(stream), -1);
    EXPECT_TRUE(log.Contains("SSL_connect failed"));
    EXPECT_TRUE(log.Contains("SSL_state_string_long"));
    EXPECT_TRUE(stream->IsValid());  // still the caller's, still open
    EXPECT_FALSE(client.IsValid());
    delete stream;
    peer.join();
}

TEST_F(SslStreamTest, PeerResetDuringTheHandshakeIsLoggedWithTheSocketError)
{
    PlainListener plain;
    ASSERT_TRUE(plain.ok);
    std::thread peer = ResetAfterHello(plain);
    LogCapture log;
    CSslStream client;
    EXPECT_EQ(client.Connect(plain.Address(), nullptr), -1);
    peer.join();
    // The socket layer's number and text: Winsock's on Windows, not the C library's errno.
#ifdef _WIN32
    const int reset = WSAECONNRESET;
#else
    const int reset = ECONNRESET;
#endif
    CapturedLog line;
    ASSERT_TRUE(log.Find("SSL_connect failed", &line));
    EXPECT_NE(line.message.find("errno:" + std::to_string(reset) + ", " + std::system_category().message(reset)),
              std::string::npos)
        << line.message;
}

TEST_F(SslStreamTest, SilentAndGarbagePeersFailTheAcceptWithoutLeaks)
{
    const int fds = OpenFds();
    {
        LogCapture log;
        int timeout = 300;
        ServerThread server(
            [&](CSslAcceptor& a) {
                UseServerCert(a);
                a.SetOption(4, 1, &timeout);
            },
            Echo, 2);
        // One peer connects and says nothing; the next sends garbage.
        CSockStream silent;
        silent.SetBlockOpt(true);
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(silent.Connect(server.Address(), nullptr), 0);
        ASSERT_TRUE(log.WaitFor("SSL_accept failed", std::chrono::seconds(3)));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(290));
        CSockStream garbage;
        garbage.SetBlockOpt(true);
        ASSERT_EQ(garbage.Connect(server.Address(), nullptr), 0);
        garbage.Send_n("GET / HTTP/1.0\r\n\r\n", 18, 1000000);
        EXPECT_EQ(server.Join(), 0);
        EXPECT_EQ(log.Count("SSL_accept failed"), 2);
        EXPECT_EQ(log.Count("Setting the listening timeout to :300ms!"), 2);
        // The server closed both: the peers see the end of the stream.
        char buf[8];
        EXPECT_EQ(silent.Recv_n(buf, sizeof buf, 1000000), -1);
    }
    EXPECT_EQ(OpenFds(), fds);
}

}  // namespace
}  // namespace TlsTest
