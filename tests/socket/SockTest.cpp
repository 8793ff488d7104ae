#include <gtest/gtest.h>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockAddrIPv6.h>
#include <Corvane/SockAddrStorage.h>
#include <Corvane/SockStream.h>

#include "Platform/SockTypes.h"
#include "Platform/Socket.h"
#include "Socket/SockManager.h"
#include "SocketProbes.h"
#include "TestSupport.h"

using namespace Qelvar::Corvane;
using namespace Qelvar::Test;

namespace {

// A socket of any type code, so the base's rules can be reached directly.
class TypedSock : public CSock {
public:
    explicit TypedSock(unsigned int type) : CSock(-1, type) {}
    void ForceHandle(int fd) { m_sockfd = fd; }
};

int new_tcp_socket()
{
    return Qelvar::Platform::sock_open(AF_INET, SOCK_STREAM, 0);
}

// True while `fd` is an open socket of this process.
bool is_open(int fd)
{
    int type = 0;
    int len = sizeof type;
    return Qelvar::Platform::sock_getopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) == 0;
}

}  // namespace

TEST(Sock, TlsTypesRefusePlainCloseButNotRealClose)
{
    LogCapture log(6);
    for (unsigned int type : {SOCK_TYPE_SSL, SOCK_TYPE_SSL_ASYNC}) {
        TypedSock tls(type);
        const int fd = new_tcp_socket();
        ASSERT_EQ(tls.Attach(fd), 0);
        EXPECT_EQ(tls.Close(), -1);
        EXPECT_TRUE(is_open(fd));
        EXPECT_EQ(tls.real_Close(), 0);
        EXPECT_FALSE(tls.IsValid());
    }
    EXPECT_EQ(log.Count("CSock::Close ssl_socket fd:"), 2);

    TypedSock odd(SOCK_TYPE_STREAM);
    odd.ForceHandle(-5);
    EXPECT_TRUE(odd.IsValid());  // only -1 means "none"
    EXPECT_EQ(odd.Close(), -1);
    odd.ForceHandle(-1);
}

// Two objects share one descriptor's status, attached or copied: the second close is
// refused without a system call, so a number the system handed out again in between
// stays open. A detached descriptor goes to its next holder as it is.
TEST(Sock, SharedDescriptorIsClosedOnceAndDetachHandsItOver)
{
    LogCapture log(6);
    const int fd = new_tcp_socket();
    CSockStream a, b;
    ASSERT_EQ(a.Attach(fd), 0);
    EXPECT_TRUE(log.Contains("Externally created sockfd: " + std::to_string(fd)));
    ASSERT_EQ(b.Attach(fd), 0);
    EXPECT_EQ(log.Count("Externally created sockfd"), 1);

    EXPECT_EQ(a.Close(), 0);
    const int reused = new_tcp_socket();  // most likely the same number
    EXPECT_EQ(b.Close(), -1);
    EXPECT_TRUE(log.Contains("SockManager error! CSock::real_Close failed! fd: " + std::to_string(fd)));
    EXPECT_TRUE(is_open(reused));
    // Options through the stale holder are refused as well.
    EXPECT_EQ(b.SetSockNoDelay(true), -1);
    EXPECT_TRUE(log.Contains("SockManager error! CSockStream::SetSockNoDelay failed!"));
    Qelvar::Platform::sock_close(reused);
    b.Detach();

    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    const int detached = pair.server.Detach();
    EXPECT_FALSE(pair.server.IsValid());
    EXPECT_EQ(pair.server.Close(), -1);

    // Attach applies the new holder's flag: non-blocking from construction.
    CSockStream s;
    ASSERT_EQ(s.Attach(detached), 0);
    EXPECT_EQ(log.Count("Externally created"), 1);  // the number was known already
    char byte;
    EXPECT_EQ(s.Recv(&byte, 1), 0);  // nothing there: would block, not wait

    const int other = new_tcp_socket();
    EXPECT_EQ(s.Attach(other), -1);
    EXPECT_TRUE(log.Contains("Attach sockfd failed, m_sockfd: " + std::to_string(detached) + " is valid"));
    Qelvar::Platform::sock_close(other);

    EXPECT_EQ(s.Close(), 0);
    EXPECT_FALSE(is_open(detached));

    // A copy shares its original's status the same way.
    CSockStream copy(pair.client);
    EXPECT_EQ(copy.GetHandle(), pair.client.GetHandle());
    EXPECT_EQ(pair.client.Close(), 0);
    EXPECT_EQ(copy.Close(), -1);
}

TEST(Sock, AddressesGoOnlyIntoMatchingObjects)
{
    LogCapture log(6);
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    EXPECT_EQ(pair.client.GetLocalAddr(nullptr), -1);
    EXPECT_TRUE(log.Contains("Invalid local addresst type!"));

    CSockAddrIPv4 v4;
    CSockAddrIPv6 v6;
    CSockAddrStorage any;
    EXPECT_EQ(pair.client.GetRemoteAddr(&v4), 0);
    EXPECT_EQ(v4.GetIp(), 0x7F000001u);
    EXPECT_EQ(pair.client.GetLocalAddr(&v6), -1);
    EXPECT_EQ(pair.client.GetRemoteAddr(&v6), -1);
    EXPECT_TRUE(log.Contains("Unkonw Sockaddr Type[2]"));
    EXPECT_EQ(pair.client.GetLocalAddr(&any), 0);
    EXPECT_EQ(any.GetInputType(), SOCKADDR_TYPE_IPV4);

    CSockStream empty;
    EXPECT_EQ(empty.GetLocalAddr(&v4), -1);
}

TEST(SockManager, RegistriesOverwriteAndReport)
{
    LogCapture log(6);
    CSockManager& manager = CSockManager::Instance();
    auto first = std::make_shared<CSocketStatus>(99999);
    auto second = std::make_shared<CSocketStatus>(99999);
    manager.insertValueByFD(99999, first);
    manager.insertValueByFD(99999, second);
    EXPECT_TRUE(log.Contains("The key value already exists in the MapFdStatus! sockfd :99999"));
    SocketStatusPtr found;
    ASSERT_EQ(manager.findValueByFD(99999, found), 0);
    EXPECT_EQ(found, second);
    manager.removeFD(99999);
    EXPECT_EQ(manager.findValueByFD(99999, found), -1);

    // A socket object that never opened has an empty status: no status at all.
    CSockStream fresh;
    EXPECT_EQ(manager.findValueBySock(&fresh, found), -1);
    EXPECT_TRUE(log.Contains("sockStatus is NULL!"));
}

TEST(SockManager, AcceptLatencyReportSetsAndClears)
{
    LogCapture log(6);
    auto status = std::make_shared<CListenSocketStatus>(77777, 80, 1);
    status->m_a = 1;
    status->m_b = 2;
    status->m_c = 3;
    CSockManager::Instance().dealTheInfo(status);
    EXPECT_TRUE(log.Contains("The listen fd: 77777 maybe not accept in time, the rxq is :3"));
    EXPECT_TRUE(status->m_reported);

    status->m_c = 1;  // the queue drained below B
    CSockManager::Instance().dealTheInfo(status);
    EXPECT_FALSE(status->m_reported);
    EXPECT_EQ(status->m_a, -1);
    EXPECT_EQ(status->m_b, -1);
}
