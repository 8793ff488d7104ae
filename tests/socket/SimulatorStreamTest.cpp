#include <gtest/gtest.h>

#include <vector>

#include <Corvane/SimulatorStream.h>

#include "Loopback.h"

using namespace Qelvar::Corvane;
using namespace Qelvar::Test;

TEST(SimulatorStream, SendingStaysWithinTheBudgetOfTheSecond)
{
    CSimulatorStream sim;
    std::vector<char> data(200000, 'd');
    EXPECT_EQ(sim.Send(data.data(), 100), 0);  // no budget before SetBandWidth

    EXPECT_EQ(sim.SetBandWidth(1), 0);
    EXPECT_EQ(sim.Send(data.data(), static_cast<unsigned int>(data.size())), 131072);
    EXPECT_EQ(sim.Send(data.data(), 10), 0);  // used up for this second

    sim.SetBandWidth(4096);  // 4096 << 20 wraps to 0 in 32 bits
    EXPECT_EQ(sim.Send(data.data(), 10), 0);
    sim.SetBandWidth(4097);  // wraps to 1 MiB / 8
    EXPECT_EQ(sim.Send(data.data(), 10), 0);  // this second's 131072 bytes are already gone
}

// The simulator writes through the real stream it is given, and leaves it open.
TEST(SimulatorStream, WriteVCutsElementsAndSendsThroughTheRealStream)
{
    StreamPair pair;
    ASSERT_TRUE(pair.Make());
    pair.client.SetBlockOpt(false);  // the peer does not read yet: never wait for room
    int n = 0;
    {
        CSimulatorStream sim;
        sim.SetRealSocket(&pair.client);
        EXPECT_EQ(sim.GetHandle(), pair.client.GetHandle());
        EXPECT_EQ(sim.GetType(), SOCK_TYPE_SIMULATOR);
        sim.SetBandWidth(1);

        char a[100000], b[50000];
        iovec vec[2];
        vec[0].iov_base = a;
        vec[0].iov_len = sizeof a;
        vec[1].iov_base = b;
        vec[1].iov_len = sizeof b;
        n = sim.WriteV(vec, 2);
        EXPECT_GT(n, 0);
        EXPECT_LE(n, 131072);
        EXPECT_EQ(sim.WriteV(nullptr, 1), -1);
        EXPECT_EQ(sim.WriteV(vec, 0), 0);
    }
    char got[65536];
    for (int total = 0; total < n;) {
        const int r = pair.server.Recv_n(got, sizeof got, 1000000);
        ASSERT_GT(r, 0);
        total += r;
    }
    EXPECT_EQ(pair.client.Send("k", 1), 1);
}
