// The TLS environment: options, context construction, certificate sources and their
// failures, the acceptor's own rules.
#include "TlsSupport.h"

#include <openssl/ssl.h>

#include <filesystem>
#include <fstream>

#include "Socket/SslOptions.h"

namespace TlsTest {
namespace {

using Qelvar::Test::LogCapture;

using SslSetupTest = TlsFixture;

TEST_F(SslSetupTest, ThreadSetupAndOptionNumbersLogAsDocumented)
{
    LogCapture log;
    CNetThread::SSLThreadSetup();
    CNetThread::SSLThreadSetup();
    EXPECT_EQ(log.Count("SSLThreadSetup have been set!"), 1);
    CNetThread::SSLThreadCleanup();
    CNetThread::SSLThreadCleanup();
    EXPECT_EQ(log.Count("SSLThreadSetup have not set !"), 1);

    CSslAcceptor server;
    CSslStream client;
    EXPECT_EQ(server.SetOption(7, 1, nullptr), 0);
    EXPECT_TRUE(log.Contains("This version do not support NTLS function !"));
    EXPECT_EQ(client.SetOption(7, 3, nullptr), 0);
    EXPECT_TRUE(log.Contains("Unknown Option 7 Type 3 !"));
    EXPECT_EQ(server.SetOption(42, 0, nullptr), 0);
    EXPECT_TRUE(log.Contains("Unknown Option 42 Type 0 !"));
    EXPECT_EQ(server.SetFullPemPath(PathList{nullptr, "key.pem"}), -1);
    EXPECT_TRUE(log.Contains("cacertpath or privkeypath can not set to NULL"));

    // The client's time-out is read with kind 0, the server's with kind 1.
    int ms = 1234, type = -1, value = 0, length = 0;
    client.SetOption(4, 1, &ms);
    client.GetOption(4, type, &value, length);
    EXPECT_EQ(value, 5000);
    client.SetOption(4, 0, &ms);
    client.GetOption(4, type, &value, length);
    EXPECT_EQ(value, 1234);
}

TEST_F(SslSetupTest, ContextsFollowTheOptionRecord)
{
    int owner = 0;
    {
        Qelvar::Corvane::SslOptions client(&owner, false, false);
        client.Set(2, 1, nullptr, -1, "test");
        client.Set(2, 4, nullptr, -1, "test");  // bans add up
        client.Set(0, 1, nullptr, -1, "test");
        SSL_CTX* ctx = client.BuildContext("test");
        ASSERT_NE(ctx, nullptr);
        const uint64_t options = SSL_CTX_get_options(ctx);
        EXPECT_TRUE(options & SSL_OP_NO_TLSv1);
        EXPECT_FALSE(options & SSL_OP_NO_TLSv1_1);
        EXPECT_TRUE(options & SSL_OP_NO_TICKET);  // tickets need flag bit 1
        EXPECT_EQ(SSL_CTX_get_session_cache_mode(ctx), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
        EXPECT_EQ(SSL_CTX_get_mode(ctx) & 3, 3);
        SSL_CTX_free(ctx);
    }
    {
        Qelvar::Corvane::SslOptions server(&owner, true, false);
        server.pem_dir = TestPki::Path("server");
        server.Set(0, 2, nullptr, -1, "test");
        SSL_CTX* ctx = server.BuildContext("test");
        ASSERT_NE(ctx, nullptr);
        EXPECT_FALSE(SSL_CTX_get_options(ctx) & SSL_OP_NO_TICKET);
        EXPECT_EQ(SSL_CTX_get_session_cache_mode(ctx), SSL_SESS_CACHE_SERVER);
        SSL_CTX_free(ctx);
    }
    {
        Qelvar::Corvane::SslOptions server(&owner, true, false);
        server.pem_dir = TestPki::Path("server");
        SSL_CTX* ctx = server.BuildContext("test");
        ASSERT_NE(ctx, nullptr);
        EXPECT_EQ(SSL_CTX_get_session_cache_mode(ctx), SSL_SESS_CACHE_OFF);
        SSL_CTX_free(ctx);
    }
}

// Starts a server configured by `configure`, connects one client, and returns whether
// the handshake succeeded on both sides.
bool handshake_with(const ServerThread::Configure& configure)
{
    ServerThread server(configure, nullptr);
    CSslStream client;
    const bool connected = client.Connect(server.Address(), nullptr) == 0;
    return server.Join() == 1 && connected;
}

TEST_F(SslSetupTest, CertificateSourceFailuresRefuseTheHandshake)
{
    const int fds = OpenFds();
    LogCapture log;
    EXPECT_FALSE(handshake_with([](CSslAcceptor&) {}));
    EXPECT_TRUE(log.Contains("server need the certificate compulsorily"));

    EXPECT_FALSE(handshake_with([](CSslAcceptor& a) { a.SetPemPath("/nonexistent/dir"); }));
    EXPECT_TRUE(log.Contains("SSL_CTX_use_certificate_chain_file failed, error:"));

    const std::string cert = TestPki::Path("server/cacert.pem");
    const std::string encrypted = TestPki::Path("server-key-enc.pem");
    EXPECT_FALSE(handshake_with([&](CSslAcceptor& a) {
        a.SetFullPemPath(PathList{cert.c_str(), encrypted.c_str()});
        a.SetOption(5, 0, const_cast<char*>("wrong"));
    }));
    EXPECT_TRUE(log.Contains("SSL_CTX_use_PrivateKey_file failed, error:"));
    EXPECT_TRUE(handshake_with([&](CSslAcceptor& a) {
        a.SetFullPemPath(PathList{cert.c_str(), encrypted.c_str()});
        a.SetOption(5, 0, const_cast<char*>("secret"));
    }));

    const std::string stray = TestPki::Path("stray-key.pem");
    const int before = log.Count("failed, error:");
    EXPECT_FALSE(handshake_with([&](CSslAcceptor& a) { a.SetFullPemPath(PathList{cert.c_str(), stray.c_str()}); }));
    EXPECT_GT(log.Count("failed, error:"), before);

    // An object whose key does not match its certificate.
    EXPECT_FALSE(handshake_with([&](CSslAcceptor& a) {
        auto* id = new CSslX509();
        id->LoadCertificateFile(cert.c_str());
        id->LoadPrivateKeyFile(stray.c_str());
        a.SetOption(1, 2, id);
    }));
    EXPECT_TRUE(log.Contains("SSL_CTX_use_PrivateKey failed") || log.Contains("SSL_CTX_check_private_key failed"));
    EXPECT_EQ(OpenFds(), fds);
}

TEST_F(SslSetupTest, RejectedCipherListIsLoggedAndTheHandshakeGoesOn)
{
    LogCapture log;
    ServerThread server(UseServerCert, Echo);
    CSslStream client;
    client.SetOption(3, 1, const_cast<char*>("NO-SUCH-CIPHER"));
    // TLS 1.3 suites are not governed by the list, so the handshake still succeeds.
    EXPECT_EQ(client.Connect(server.Address(), nullptr), 0);
    EXPECT_TRUE(log.Contains("Cipher List Rule Set Wrong!"));
    EXPECT_EQ(RoundTrip(client, "still works"), "still works");
}

TEST_F(SslSetupTest, AcceptorRebuildsItsContextAfterAFailedHandshake)
{
    // The pem directory is rewritten between the two accepts: the second handshake must
    // read it again.
    const std::string dir = TestPki::Dir() + "/swapped";
    std::filesystem::create_directories(dir);
    auto use = [&](const char* identity) {
        // Rewritten in place: under Wine, copy_file over an existing file never returned.
        for (const char* file : {"cacert.pem", "privkey.pem"}) {
            std::ofstream(dir + "/" + file, std::ios::binary | std::ios::trunc)
                << TestPki::Read(std::string(identity) + "/" + file);
        }
    };
    use("server");
    ServerThread server([&](CSslAcceptor& a) { a.SetPemPath(dir.c_str()); }, nullptr, 2);

    {
        LogCapture log;
        CSockStream garbage;
        garbage.SetBlockOpt(true);
        ASSERT_EQ(garbage.Connect(server.Address(), nullptr), 0);
        garbage.Send_n("garbage garbage garbage\r\n", 25, 1000000);
        ASSERT_TRUE(log.WaitFor("SSL_accept failed", std::chrono::seconds(5)));
    }
    use("other");
    CSslStream client;
    ASSERT_EQ(client.Connect(server.Address(), nullptr), 0);
    CSslX509 peer;
    ASSERT_EQ(client.GetPeerCert(&peer), 0);
    char subject[256];
    ASSERT_GT(peer.GetSubject(subject, sizeof subject), 0);
    EXPECT_NE(std::string(subject).find("other.test"), std::string::npos) << subject;
    EXPECT_EQ(server.Join(), 1);
}

TEST_F(SslSetupTest, AcceptorOpenRules)
{
    LogCapture log;
    CSslAcceptor acceptor;
    EXPECT_EQ(acceptor.GetType(), static_cast<unsigned int>(SOCK_TYPE_ACCEPTOR));
    ASSERT_EQ(acceptor.Open(CSockAddrIPv4("127.0.0.1", 0), false), 0);
    EXPECT_GT(acceptor.GetSockRecvBuf(), 0);
    ASSERT_EQ(acceptor.Open(CSockAddrIPv4("127.0.0.1", 0), false), 0);
    EXPECT_TRUE(log.Contains("has opened, close old first"));
    EXPECT_NE(acceptor.GetHandle(), -1);

    CSslStream out;
    EXPECT_EQ(acceptor.Accept(out, static_cast<CSockStream*>(nullptr)), -1);
    EXPECT_TRUE(log.Contains("stream is NULL"));
}

TEST_F(SslSetupTest, SelfSignedIdentityRoundTripsThroughFilesAndServes)
{
    const std::string dir = TestPki::Dir() + "/made";
    std::filesystem::create_directories(dir);
    {
        CSslX509 made;
        EXPECT_EQ(made.CreateSelfSigned("", 1), -1);
        ASSERT_EQ(made.CreateSelfSigned("localhost", 30), 0);
        ASSERT_EQ(made.SaveCertificateFile((dir + "/cacert.pem").c_str()), 0);
        ASSERT_EQ(made.SavePrivateKeyFile((dir + "/privkey.pem").c_str()), 0);
    }
#ifndef _WIN32
    // A private key is the owner's alone. Windows files have no such mode bits: who may
    // read one is up to the directory's access list.
    namespace fs = std::filesystem;
    std::error_code ec;
    EXPECT_EQ(fs::status(dir + "/privkey.pem", ec).permissions(), fs::perms::owner_read | fs::perms::owner_write);
#endif

    CSslX509 loaded;
    ASSERT_EQ(loaded.LoadCertificateFile((dir + "/cacert.pem").c_str()), 0);
    ASSERT_EQ(loaded.LoadPrivateKeyFile((dir + "/privkey.pem").c_str()), 0);
    char subject[128];
    ASSERT_GT(loaded.GetSubject(subject, sizeof subject), 0);
    EXPECT_STREQ(subject, "CN = localhost");
    EXPECT_EQ(loaded.LoadCertificate("not PEM", 7), -1);

    // A server on those files, and a client that trusts exactly that certificate.
    ServerThread server([&](CSslAcceptor& a) { a.SetPemPath(dir.c_str()); }, EchoOnce);
    CSslStream client;
    auto* trust = new CSslX509();
    ASSERT_EQ(trust->AddTrustedCAFile((dir + "/cacert.pem").c_str()), 0);
    client.SetOption(1, 1, trust);
    ASSERT_EQ(client.Connect(server.Address(), nullptr), 0);
    EXPECT_EQ(RoundTrip(client, "self-made"), "self-made");
}

}  // namespace
}  // namespace TlsTest
