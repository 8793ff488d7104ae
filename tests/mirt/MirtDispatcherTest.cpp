// Transport sockets on the reactor: readiness reaches the handler through the dispatcher
// thread, one callback at a time per socket; a quiet socket's time-out comes through the
// socket timer; a second registration of one socket is refused with the first kept; and
// with nothing registered the dispatcher holds no socket.
#include <Corvane/Config.h>

#if CORVANE_HAVE_SRT

#include <Corvane/Sock.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "../core/Probe.h"
#include "Core/MirtDispatcher.h"
#include "MirtSupport.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using namespace Qelvar::Corvane;
using namespace Qelvar::Test;
using namespace MirtTest;

namespace {

TEST(MirtDispatcherTest, ReadinessReachesOneThreadAtATimeAndTimeOutsComeThrough)
{
    PoolScope pool(4);
    ASSERT_TRUE(pool.ok());
    CMirtIoCollecter& dispatcher = CMirtIoCollecter::Instance();
    EXPECT_EQ(dispatcher.SocketCount(), 0);

    unsigned short port = 0;
    const int listener = make_listener(&port);
    ASSERT_GE(listener, 0) << Mirt::getlasterror_desc();
    const int client = connect_to(port);
    ASSERT_GE(client, 0) << Mirt::getlasterror_desc();
    const int accepted = Mirt::accept(listener, nullptr, nullptr);
    ASSERT_GE(accepted, Mirt::getsockidbase()) << Mirt::getlasterror_desc();
    ASSERT_EQ(Mirt::setnonblocking(accepted, true), 0);
    CSock server;
    ASSERT_EQ(server.Attach(accepted), 0);

    std::atomic<int> inside{0}, overlap{0}, received{0}, wrong_fd{0};
    Signal timed_out;
    Probe probe;
    probe.on_input = [&](int fd) {
        if (fd != accepted) ++wrong_fd;
        if (++inside > 1) ++overlap;
        char buf[1500];
        while (Mirt::recv(fd, buf, sizeof buf) > 0) ++received;
        std::this_thread::sleep_for(1ms);  // the window a second thread would have to hit
        --inside;
        return 0;
    };
    probe.on_input_timeout = [&](int) {
        timed_out.Add();
        return 0;
    };
    ASSERT_EQ(probe.RegisterSock(server, MASK_READ, 300000), 0);
    EXPECT_EQ(dispatcher.SocketCount(), 1);
    // Nothing sent yet: the socket timer reports the quiet socket.
    EXPECT_TRUE(timed_out.WaitFor(1, 3s));

    // Registered again from another pool: refused, and the first registration stays.
    {
        const int other_pool = CNetThread::CreatePrivatePool(1);
        ASSERT_GT(other_pool, 0);
        LogCapture log;
        {
            Probe other(other_pool);
            CSock copy;
            ASSERT_EQ(copy.Attach(accepted), 0);
            EXPECT_NE(other.RegisterSock(copy, MASK_READ, 0), 0);
            copy.Detach();
            other.Close();
        }
        EXPECT_TRUE(log.Contains("Add mirt key")) << "no duplicate-key line";
        CNetThread::DestroyPrivatePool(other_pool);
    }

    constexpr int kMessages = 300;
    for (int i = 0; i < kMessages; ++i) {
        const std::string msg = "message " + std::to_string(i);
        ASSERT_GT(Mirt::send(client, msg.data(), static_cast<int>(msg.size())), 0);
        if (i % 30 == 0) std::this_thread::sleep_for(2ms);
    }
    EXPECT_TRUE(eventually([&] { return received.load() == kMessages; }, 5s)) << received.load();
    EXPECT_EQ(overlap.load(), 0);
    EXPECT_EQ(wrong_fd.load(), 0);

    probe.RemoveSock(server);
    EXPECT_EQ(dispatcher.SocketCount(), 0);
    server.Detach();
    probe.Close();
    Mirt::close(accepted);
    Mirt::close(client);
    Mirt::close(listener);
}

}  // namespace

#endif
