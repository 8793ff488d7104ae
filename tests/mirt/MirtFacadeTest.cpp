// The facade on its own: start counting, a pair on loopback seen through the epoll set,
// and the descriptors it refuses.
#include <Corvane/Config.h>
#include <gtest/gtest.h>

#include "Mirt/Mirt.h"

#if CORVANE_HAVE_SRT

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "MirtSupport.h"

namespace MirtTest {
namespace {

using FacadeTest = MirtFixture;

TEST(MirtStartup, IsCountedAndTheLastCleanupEndsEverything)
{
    ASSERT_EQ(Mirt::startup(), 0);
    ASSERT_EQ(Mirt::startup(), 0);
    ASSERT_EQ(Mirt::cleanup(), 0);
    const int fd = Mirt::socket();  // still started
    ASSERT_GE(fd, Mirt::getsockidbase());
    ASSERT_EQ(Mirt::cleanup(), 0);
    // The last cleanup closed the socket and refuses new ones until the next startup.
    EXPECT_EQ(Mirt::getsockstate(fd), -1);
    EXPECT_EQ(Mirt::getlasterror(), Mirt::MIRT_ERR_BAD_DESCRIPTOR);
    EXPECT_EQ(Mirt::socket(), -1);
    EXPECT_EQ(Mirt::getlasterror(), Mirt::MIRT_ERR_NOT_STARTED);
    EXPECT_EQ(Mirt::epoll_create(), -1);
    EXPECT_EQ(Mirt::cleanup(), -1);
    // And it starts again.
    ASSERT_EQ(Mirt::startup(), 0);
    EXPECT_GE(Mirt::socket(), Mirt::getsockidbase());
    EXPECT_EQ(Mirt::cleanup(), 0);
}

TEST_F(FacadeTest, EpollWaitsOnEmptySetsCountsAdditionsAndReportsFacadeDescriptors)
{
    const int epid = Mirt::epoll_create();
    ASSERT_GE(epid, 0) << Mirt::getlasterror_desc();
    Mirt::SMirtEvent events[8];
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Mirt::epoll_wait(epid, events, 8, 100), 0) << Mirt::getlasterror_desc();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90));

    unsigned short port = 0;
    const int listener = make_listener(&port);
    ASSERT_GE(listener, Mirt::getsockidbase()) << Mirt::getlasterror_desc();
    EXPECT_EQ(Mirt::getsockstate(listener), Mirt::MIRT_STATE_LISTENING);
    const int caller = connect_to(port);
    ASSERT_GE(caller, 0) << Mirt::getlasterror_desc();
    sockaddr_in from{}, local{};
    int from_len = sizeof from, local_len = sizeof local;
    const int server = Mirt::accept(listener, reinterpret_cast<sockaddr*>(&from), &from_len);
    ASSERT_GE(server, Mirt::getsockidbase()) << Mirt::getlasterror_desc();
    EXPECT_EQ(Mirt::getsockstate(server), Mirt::MIRT_STATE_CONNECTED);
    ASSERT_EQ(Mirt::getsockname(caller, reinterpret_cast<sockaddr*>(&local), &local_len), 0);
    EXPECT_EQ(from.sin_port, local.sin_port);
    ASSERT_EQ(Mirt::setnonblocking(server, true), 0);

    const int in = Mirt::MIRT_EPOLL_IN;
    EXPECT_EQ(Mirt::epoll_add_usock(epid, server, &in), 1);
    EXPECT_EQ(Mirt::epoll_add_usock(epid, server, &in), 0);
    EXPECT_EQ(Mirt::epoll_modify_usock(epid, server, &in), 0);
    EXPECT_EQ(Mirt::epoll_remove_usock(epid, server), 0);
    EXPECT_EQ(Mirt::epoll_modify_usock(epid, server, &in), 1);
    EXPECT_EQ(Mirt::epoll_wait(epid, events, 8, 0), 0);  // nothing to read yet

    ASSERT_EQ(Mirt::send(caller, "ping", 4), 4);
    ASSERT_EQ(Mirt::epoll_wait(epid, events, 8, 2000), 1) << Mirt::getlasterror_desc();
    EXPECT_EQ(events[0].fd, server);
    EXPECT_EQ(events[0].events & Mirt::MIRT_EPOLL_IN, Mirt::MIRT_EPOLL_IN);
    EXPECT_EQ(recv_message(server), "ping");
    char buf[1500];
    EXPECT_EQ(Mirt::recv(server, buf, sizeof buf), -1);  // non-blocking and drained
    EXPECT_EQ(Mirt::getlasterror(), SRT_EASYNCRCV);

    // A closed descriptor is refused by the set too; a bad array by the wait.
    EXPECT_EQ(Mirt::close(server), 0);
    EXPECT_EQ(Mirt::epoll_add_usock(epid, server, &in), -1);
    EXPECT_EQ(Mirt::epoll_wait(epid, nullptr, 8, 0), -1);
    EXPECT_EQ(Mirt::getlasterror(), Mirt::MIRT_ERR_INVALID_ARG);
    EXPECT_EQ(Mirt::epoll_release(epid), 0);
    EXPECT_LT(Mirt::epoll_wait(epid, events, 8, 0), 0);
}

// The transport tells only the sets a listener was in when a connection came: one that
// joins a set (or comes back to it, as the dispatcher puts it back) must still be told.
TEST_F(FacadeTest, AListenerJoiningASetWithConnectionsWaitingIsReported)
{
    unsigned short port = 0;
    const int listener = make_listener(&port);
    const int epid = Mirt::epoll_create();
    const int in = Mirt::MIRT_EPOLL_IN;
    Mirt::SMirtEvent ev[4];
    ASSERT_GE(connect_to(port), 0) << Mirt::getlasterror_desc();
    ASSERT_EQ(Mirt::epoll_add_usock(epid, listener, &in), 1);
    EXPECT_EQ(Mirt::epoll_wait(epid, ev, 4, 300), 1);
    ASSERT_EQ(Mirt::epoll_remove_usock(epid, listener), 0);
    ASSERT_GE(connect_to(port), 0) << Mirt::getlasterror_desc();
    ASSERT_EQ(Mirt::epoll_modify_usock(epid, listener, &in), 1);
    ASSERT_EQ(Mirt::epoll_wait(epid, ev, 4, 300), 1);
    EXPECT_EQ(ev[0].fd, listener);
    EXPECT_GE(Mirt::accept(listener, nullptr, nullptr), 0);
    EXPECT_GE(Mirt::accept(listener, nullptr, nullptr), 0);
    EXPECT_EQ(Mirt::epoll_wait(epid, ev, 4, 100), 0);  // none left
    EXPECT_EQ(Mirt::epoll_release(epid), 0);
}

TEST_F(FacadeTest, RefusesClosedForeignAndBelowBaseDescriptors)
{
    const int closed = Mirt::socket();
    ASSERT_EQ(Mirt::close(closed), 0);
    for (const int fd : {closed, Mirt::getsockidbase() + 123456, 3, -1}) {
        SCOPED_TRACE(fd);
        char buf[4];
        EXPECT_EQ(Mirt::send(fd, "x", 1), -1);
        EXPECT_EQ(Mirt::getlasterror(), Mirt::MIRT_ERR_BAD_DESCRIPTOR);
        EXPECT_STREQ(Mirt::getlasterror_desc(), "bad descriptor: not an open reliable-UDP descriptor");
        EXPECT_EQ(Mirt::recv(fd, buf, sizeof buf), -1);
        EXPECT_EQ(Mirt::setlatency(fd, 20), -1);
        EXPECT_EQ(Mirt::close(fd), -1);
        EXPECT_EQ(Mirt::getlasterror(), Mirt::MIRT_ERR_BAD_DESCRIPTOR);
    }
    // A transport error after a refusal is the transport's again.
    const int fd = Mirt::socket();
    EXPECT_EQ(Mirt::listen(fd, 1), -1);  // not bound
    EXPECT_EQ(Mirt::getlasterror(), SRT_EUNBOUNDSOCK);
    EXPECT_EQ(Mirt::getsockstate(fd), Mirt::MIRT_STATE_INIT);
    EXPECT_EQ(Mirt::close(fd), 0);
}

TEST_F(FacadeTest, ConcurrentOpenAddCloseKeepsDescriptorsDistinct)
{
    const int epid = Mirt::epoll_create();
    std::atomic<bool> done{false};
    std::atomic<int> wait_failures{0};
    std::thread waiter([&] {
        Mirt::SMirtEvent events[8];
        while (!done) {
            const int n = Mirt::epoll_wait(epid, events, 8, 5);
            if (n < 0) ++wait_failures;
            for (int i = 0; i < n; ++i) {
                if (events[i].fd < Mirt::getsockidbase()) ++wait_failures;
            }
        }
    });
    std::mutex mutex;
    std::set<int> open;  // no descriptor is handed out twice while open
    std::atomic<int> errors{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w) {
        workers.emplace_back([&] {
            const int all = Mirt::MIRT_EPOLL_IN | Mirt::MIRT_EPOLL_OUT;
            for (int round = 0; round < 20; ++round) {
                int fds[5];
                for (int& fd : fds) {
                    fd = Mirt::socket();
                    const std::lock_guard<std::mutex> lock(mutex);
                    if (fd < 0 || !open.insert(fd).second) ++errors;
                }
                for (const int fd : fds) {
                    if (Mirt::epoll_add_usock(epid, fd, &all) != 1) ++errors;
                }
                for (const int fd : fds) {
                    {
                        const std::lock_guard<std::mutex> lock(mutex);
                        open.erase(fd);
                    }
                    if (Mirt::close(fd) != 0) ++errors;
                }
            }
        });
    }
    for (std::thread& t : workers) t.join();
    done = true;
    waiter.join();
    EXPECT_EQ(errors, 0);
    EXPECT_EQ(wait_failures, 0);
    EXPECT_EQ(Mirt::epoll_release(epid), 0);
}

}  // namespace
}  // namespace MirtTest

#else

TEST(MirtPlaceholder, RefusesEveryCall)
{
    namespace Mirt = Qelvar::Mirt;
    EXPECT_EQ(Mirt::startup(), -1);
    EXPECT_EQ(Mirt::socket(), -1);
    EXPECT_EQ(Mirt::close(Mirt::getsockidbase()), -1);
    EXPECT_EQ(Mirt::epoll_create(), -1);
    EXPECT_EQ(Mirt::getlasterror(), Mirt::MIRT_ERR_NO_TRANSPORT);
    EXPECT_STREQ(Mirt::getlasterror_desc(), "no reliable-UDP transport in this build");
}

#endif
