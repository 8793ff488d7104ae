#include <gtest/gtest.h>

#include <vector>

#include "ReactorSupport.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using namespace Qelvar::Corvane;
using namespace Qelvar::Test;

// A time-out is kept in milliseconds on a 500 ms tick and never fires early: a 1 s
// registration fires between 1.5 and 2 s. The callback's result then decides: 5000
// re-arms it at 5 ms (the next tick or the one after), -1 cancels it.
TEST(SocketTimeout, FiresInItsWindowAndFollowsTheResultRule)
{
    PoolScope scope;
    Connection c;
    ASSERT_TRUE(c.Make());
    Signal fired;
    Moments moments;
    Probe h;
    h.on_input_timeout = [&](int) {
        moments.Add();
        fired.Add();
        return fired.Count() == 1 ? 5000 : -1;
    };
    ASSERT_EQ(h.RegisterSock(c.server, MASK_READ, 1000000), 0);
    ASSERT_TRUE(fired.WaitFor(2, 5s));
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(fired.Count(), 2);  // -1 cancelled it
    const auto at = moments.Get();
    EXPECT_GE(at[0], 1490000);
    EXPECT_LE(at[0], 2100000);
    EXPECT_GE(at[1] - at[0], 400000);  // a full tick at least, tick phase aside
    EXPECT_LE(at[1] - at[0], 1100000);
    h.RemoveSock(c.server);
    h.Close();
}

// A data callback returning 0 re-arms the registered time-out from its return; 999 µs
// is below a millisecond and arms nothing.
TEST(SocketTimeout, ZeroKeepsTheRegisteredTimeoutAndSubMillisecondArmsNone)
{
    PoolScope scope;
    Connection a, b;
    ASSERT_TRUE(a.Make() && b.Make());
    Signal input, timeout;
    Moments moments;
    Probe h;
    h.on_input = [&](int fd) {
        char buf[8];
        (fd == a.server.GetHandle() ? a.server : b.server).Recv(buf, sizeof buf);
        moments.Add();
        input.Add();
        return 0;
    };
    h.on_input_timeout = [&](int fd) {
        if (fd == a.server.GetHandle()) moments.Add();
        timeout.Add();
        return -1;
    };
    ASSERT_EQ(h.RegisterSock(a.server, MASK_READ, 1000000), 0);
    ASSERT_EQ(h.RegisterSock(b.server, MASK_READ, 999), 0);
    std::this_thread::sleep_for(600ms);
    ASSERT_EQ(a.client.Send("x", 1), 1);
    ASSERT_TRUE(input.WaitFor(1));
    ASSERT_TRUE(timeout.WaitFor(1, 5s));
    std::this_thread::sleep_for(1000ms);
    EXPECT_EQ(timeout.Count(), 1);  // b never times out
    const auto at = moments.Get();
    ASSERT_EQ(at.size(), 2u);
    // Re-armed from the data event: a whole second at least, two at most, after it.
    EXPECT_GE(at[1] - at[0], 990000);
    EXPECT_LE(at[1] - at[0], 2100000);
    h.RemoveSock(a.server);
    h.RemoveSock(b.server);
    h.Close();
}

TEST(SocketTimeout, WriteOnlyRegistrationsTimeOutAsOutput)
{
    PoolScope scope;
    Connection c;
    ASSERT_TRUE(c.Make());
    Signal fired;
    Probe h;
    h.on_output = [&](int) {
        h.UnregisterSock(c.server, MASK_WRITE);
        h.RegisterSock(c.server, MASK_WRITE, 500000);  // no Read: the time-out is an output one
        return 0;
    };
    h.on_output_timeout = [&](int) {
        fired.Add();
        return -1;
    };
    // A full send buffer keeps the socket from ever being writable.
    c.server.SetBlockOpt(false);
    std::vector<char> chunk(65536, 'z');
    while (c.server.Send(chunk.data(), static_cast<unsigned int>(chunk.size())) > 0) {
    }
    ASSERT_EQ(h.RegisterSock(c.server, MASK_WRITE, 500000), 0);
    EXPECT_TRUE(fired.WaitFor(1, 5s));
    h.RemoveSock(c.server);
    h.Close();
}
