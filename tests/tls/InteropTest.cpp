// Interoperability with a TLS implementation nobody here wrote: the openssl command's
// s_server against Corvane's client, and its s_client against Corvane's server.
#include "TlsSupport.h"

#include <cstring>

namespace TlsTest {
namespace {

using Qelvar::Test::LogCapture;

using InteropTest = TlsFixture;

bool have_openssl_command()
{
    int status = -1;
    RunCommand("openssl version", &status);
    return status == 0;
}

// A file of TestPki as the openssl command names it.
std::string pki(const std::string& name)
{
    return HostPath(TestPki::Path(name));
}

// `openssl s_server` in -rev mode (each line comes back reversed) for `accepts`
// connections, run on a thread; Output() after Join().
class OpensslServer {
public:
    OpensslServer(const std::string& args, int accepts) : m_port(FreePort())
    {
        const std::string command = "openssl s_server -accept 127.0.0.1:" + std::to_string(m_port) + " -cert " +
                                    pki("server/cacert.pem") + " -key " + pki("server/privkey.pem") +
                                    " -rev -naccept " + std::to_string(accepts) + " " + args;
        m_thread = std::thread([this, command] { m_output = RunCommand(command, nullptr, 30); });
        // A probe connection would use up one of s_server's accepts: poll the port by
        // trying to listen on it instead.
        // Under Wine the peer starts through a Linux shell, which can take seconds on a busy machine.
        for (int i = 0; i < 750 && !listening(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ~OpensslServer() { Join(); }

    CSockAddrIPv4 Address() const { return CSockAddrIPv4("127.0.0.1", m_port); }
    const std::string& Join()
    {
        if (m_thread.joinable()) m_thread.join();
        return m_output;
    }

private:
    // The port is taken once listening on it fails.
    bool listening() const
    {
        CSockAcceptor probe;
        return probe.Open(CSockAddrIPv4("127.0.0.1", m_port), false) != 0;
    }

    unsigned short m_port;
    std::string m_output;
    std::thread m_thread;
};

// Sends a line and reads the reversed line back.
std::string reversed_echo(CSslStream& stream, const std::string& line)
{
    const std::string sent = line + "\n";
    if (stream.Send_n(sent.data(), static_cast<unsigned int>(sent.size()), 2000) != static_cast<int>(sent.size())) {
        return "<send failed>";
    }
    std::string back;
    char buf[256];
    while (back.find('\n') == std::string::npos) {
        const int n = stream.Recv_n(buf, sizeof buf, 3000);
        if (n <= 0) return back + "<recv failed>";
        back.append(buf, static_cast<std::size_t>(n));
    }
    return back.substr(0, back.find('\n'));
}

class InteropVersions : public InteropTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(InteropVersions, CorvaneClientResumesWithOpensslServer)
{
    if (!have_openssl_command()) GTEST_SKIP() << "the openssl command is not installed";
    const std::string version = GetParam();
    OpensslServer server("-" + version, 2);
    for (int round = 0; round < 2; ++round) {
        CSslStream client;
        client.SetOption(0, 1 | 2, nullptr);  // the first cache, tickets allowed
        auto* trust = new CSslX509();
        trust->AddTrustedCAFile(TestPki::Path("ca.pem").c_str());
        client.SetOption(1, 1, trust);
        ASSERT_EQ(client.Connect(server.Address(), nullptr), 0) << "round " << round;
        EXPECT_EQ(client.IsSessionReused(), round) << "round " << round;
        const std::string line = "hello " + version;
        EXPECT_EQ(reversed_echo(client, line), std::string(line.rbegin(), line.rend()));
    }
    const std::string& output = server.Join();
    EXPECT_NE(output.find(version == "tls1_3" ? "TLSv1.3" : "TLSv1.2"), std::string::npos) << output;
}

TEST_P(InteropVersions, OpensslClientResumesWithCorvaneServer)
{
    if (!have_openssl_command()) GTEST_SKIP() << "the openssl command is not installed";
    const std::string version = GetParam();
    ServerThread server(
        [](CSslAcceptor& a) {
            UseServerCert(a);
            a.SetOption(0, 1 | 2, nullptr);  // session cache and tickets
        },
        EchoOnce, 2);
    const std::string session = pki("session-" + version + ".pem");
    const std::string base = "printf 'ping\\n' | openssl s_client -connect 127.0.0.1:" +
                             std::to_string(server.Port()) + " -" + version + " -servername localhost -CAfile " +
                             pki("ca.pem") + " -verify_return_error -ign_eof ";
    int status = -1;
    const std::string first = RunCommand(base + "-sess_out " + session, &status, 20);
    EXPECT_EQ(status, 0) << first;
    EXPECT_NE(first.find("New, TLSv1."), std::string::npos) << first;
    EXPECT_NE(first.find("Verification: OK"), std::string::npos) << first;
    EXPECT_NE(first.find("ping"), std::string::npos) << first;
    const std::string second = RunCommand(base + "-sess_in " + session, &status, 20);
    EXPECT_EQ(status, 0) << second;
    EXPECT_NE(second.find("Reused, TLSv1."), std::string::npos) << second;
    EXPECT_EQ(server.Join(), 2);
}

INSTANTIATE_TEST_SUITE_P(Versions, InteropVersions, ::testing::Values("tls1_2", "tls1_3"));

TEST_F(InteropTest, ServerNameSelectsTheOpensslServersSecondIdentity)
{
    if (!have_openssl_command()) GTEST_SKIP() << "the openssl command is not installed";
    OpensslServer server("-servername other.test -cert2 " + pki("other/cacert.pem") + " -key2 " +
                             pki("other/privkey.pem"),
                         2);
    for (const char* name : {"other.test", ""}) {
        SCOPED_TRACE(name);
        CSslStream client;
        if (*name) client.SetOption(6, 0, const_cast<char*>(name));
        ASSERT_EQ(client.Connect(server.Address(), nullptr), 0);
        CSslX509 peer;
        ASSERT_EQ(client.GetPeerCert(&peer), 0);
        char subject[256];
        ASSERT_GT(peer.GetSubject(subject, sizeof subject), 0);
        EXPECT_NE(std::strstr(subject, *name ? "other.test" : "localhost"), nullptr) << subject;
        EXPECT_EQ(reversed_echo(client, "abc"), "cba");
    }
}

TEST_F(InteropTest, BannedVersionsAreRefused)
{
    if (!have_openssl_command()) GTEST_SKIP() << "the openssl command is not installed";
    LogCapture log;
    ServerThread server(
        [](CSslAcceptor& a) {
            UseServerCert(a);
            a.SetOption(2, 4 | 8, nullptr);  // TLS 1.0 and 1.1 on top of SSLv2/SSLv3
        },
        nullptr, 1);
    int status = -1;
    const std::string out = RunCommand(
        "printf '' | openssl s_client -connect 127.0.0.1:" + std::to_string(server.Port()) + " -tls1_1", &status, 20);
    EXPECT_NE(status, 0) << out;
    EXPECT_EQ(server.Join(), 0);
    EXPECT_TRUE(log.Contains("SSL_accept failed"));
}

}  // namespace
}  // namespace TlsTest
