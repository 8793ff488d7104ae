// The stream sender against a real, slow reader on loopback: what the socket leaves is
// queued and drained in order, the queue takes all of a put or nothing, waiters are
// told once, and a failed socket is reported once.
#include <gtest/gtest.h>

#include <cstdio>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include <Corvane/SimulatorStream.h>
#include <Corvane/StreamSender.h>

#include "../reactor/ReactorSupport.h"
#include "Platform/Socket.h"
#include "Platform/SockTypes.h"
#include "SenderSupport.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using namespace Qelvar::Corvane;
using namespace Qelvar::Test;

namespace {

// The public pool, a pair with 4 KiB socket buffers, and a sender not yet attached.
class StreamSenderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(pool.ok());
        // `client` non-blocking, for the sender; `server` blocking, for the reader. The
        // listener's buffer is set too, so the window the connection starts with is small.
        pair.server.SetBlockOpt(true);
        ASSERT_TRUE(pair.Make(false, 4096));
        pair.client.SetBlockOpt(false);
        ASSERT_EQ(pair.client.SetSockSendBuf(4096), 0);
    }

    /// Reads `expect` bytes slowly from `server` into `got`.
    std::jthread SlowReader(std::size_t expect)
    {
        return std::jthread([this, expect] { ReadSlowly(pair.server, 200000, expect, got); });
    }

    PoolScope pool;
    LoopbackPair pair;
    std::string got;  // by SlowReader
    std::optional<CSimulatorStream> sim;  // before the rig, which may hold it
    SenderRig rig;
    CStreamSender& s = *rig.sender;
};

}  // namespace

TEST_F(StreamSenderTest, QueuesWhatTheSocketLeavesAndDrainsItInOrder)
{
    ASSERT_TRUE(rig.Attach(pair.client));
    const long me = rig.receiver.GetID();
    const int fd = pair.client.GetHandle();
    rig.hold_output = true;  // exact amounts in the queue until the reader starts

    // The socket takes part of the first put; the rest waits for writability.
    const std::string first = Pattern(100000, 1);
    ASSERT_EQ(s.Put(first.data(), 100000), 0);
    EXPECT_GT(s.GetDataLen(), 0u);
    EXPECT_EQ(registered_mask(0, fd), MASK_WRITE);

    // 200000 queued: 70000 more do not fit in the 62144 left and are refused whole.
    const std::string second = Pattern(200000 - s.GetDataLen(), 2);
    ASSERT_EQ(s.Put(second.data(), static_cast<unsigned int>(second.size())), 0);
    ASSERT_EQ(s.GetDataLen(), 200000u);
    const std::string refused = Pattern(70000, 3);
    EXPECT_EQ(s.Put(refused.data(), 70000), -1);
    EXPECT_EQ(s.GetDataLen(), 200000u);
    const std::string third = Pattern(62144, 4);
    EXPECT_EQ(s.Put(third.data(), 62144), 0);
    EXPECT_EQ(s.Put("x", 1), -1);
    EXPECT_EQ(s.GetDataLen(), 262144u);
    {
        // Shrinking below what is queued is a caller's bug; the queue stays as it is.
        LogCapture log;
        AssertCapture asserts;
        EXPECT_EQ(s.SetBufferSize(4), 0);
        CapturedLog line;
        ASSERT_TRUE(log.Find("buf size:131072 smaller than data len:262144!", &line));
        EXPECT_EQ(line.level, 1);
        EXPECT_EQ(asserts.Count("size_in_block * 32768 >= m_data_len"), 1);
        EXPECT_EQ(s.GetCapacity(), 8u);
    }

    // Room and the end are told once each, when they come.
    ASSERT_EQ(s.WaitBufferSize(me, 100000), 0);
    ASSERT_EQ(s.WaitSendFinish(me), 0);
    EXPECT_EQ(rig.Count(STREAM_SENDER_BUFFER_FREE), 0);
    const std::string rest = Pattern(3 << 20, 5);
    std::jthread reader = SlowReader(first.size() + second.size() + third.size() + rest.size());
    rig.hold_output = false;
    ASSERT_TRUE(rig.WaitCount(STREAM_SENDER_FINISHED, 1));
    ASSERT_TRUE(rig.WaitCount(STREAM_SENDER_BUFFER_FREE, 1));
    const auto room = rig.inbox.Notes(STREAM_SENDER_BUFFER_FREE);
    EXPECT_EQ(room[0].from, s.GetID());
    EXPECT_GE(room[0].attach, 100000);
    EXPECT_TRUE(eventually([&] { return registered_mask(0, fd) == MASK_NONE; }));

    // Met already: told at once.
    ASSERT_EQ(s.WaitBufferSize(me, 1000), 0);
    ASSERT_EQ(s.WaitSendFinish(me), 0);
    ASSERT_TRUE(rig.WaitCount(STREAM_SENDER_BUFFER_FREE, 2));
    ASSERT_TRUE(rig.WaitCount(STREAM_SENDER_FINISHED, 2));
    EXPECT_EQ(rig.inbox.Notes(STREAM_SENDER_BUFFER_FREE)[1].attach, 262144);
    EXPECT_EQ(rig.Count(STREAM_SENDER_BUFFER_FREE), 2);
    EXPECT_EQ(rig.Count(STREAM_SENDER_FINISHED), 2);

    // Many odd-sized pieces through recycled blocks, waiting for room when refused.
    ASSERT_TRUE(rig.PushAll(rest, [](int i) { return 1u + static_cast<unsigned int>(i * 7919) % 40000u; }));
    ASSERT_EQ(s.WaitSendFinish(me), 0);
    ASSERT_TRUE(rig.WaitCount(STREAM_SENDER_FINISHED, 3));
    reader.join();
    EXPECT_EQ(got.size(), first.size() + second.size() + third.size() + rest.size());
    EXPECT_TRUE(got == first + second + third + rest);
    EXPECT_EQ(s.GetPeakDataLen(), 262144u);
    EXPECT_EQ(rig.Count(STREAM_SENDER_EXCEPTION), 0);
}

TEST_F(StreamSenderTest, RefusesBadArgumentsWithTheirLines)
{
    const std::string data = Pattern(300000, 6);
    LogCapture log(3);
    char null_text[32];  // how this platform's printf writes a null pointer
    std::snprintf(null_text, sizeof null_text, "%p", static_cast<void*>(nullptr));

    EXPECT_EQ(s.Put(data.data(), 10), -1);
    EXPECT_TRUE(log.Contains("buf size :262144 smaller than data len :10!, buf :"));
    EXPECT_TRUE(log.Contains(std::string(", m_stream :") + null_text + "\n"));
    EXPECT_EQ(s.Attach(nullptr, &pair.client), -1);
    EXPECT_EQ(s.Attach(&rig.owner, nullptr), -1);
    EXPECT_EQ(log.Count("CStreamSender::Attach : Attach failed!Invalid parameter: owner:"), 2);

    ASSERT_TRUE(rig.Attach(pair.client));
    EXPECT_EQ(s.Put(data.data(), 300000), -1);
    CapturedLog line;
    ASSERT_TRUE(log.Find("buf size :262144 smaller than data len :300000!", &line));
    EXPECT_EQ(line.level, 3);
    EXPECT_EQ(line.function, "CStreamSender::Put");
    EXPECT_EQ(s.Put(nullptr, 10), -1);
    EXPECT_TRUE(log.Contains(std::string("smaller than data len :10!, buf :") + null_text));

    EXPECT_EQ(s.WaitException(5), -1);
    EXPECT_TRUE(log.Contains("CStreamSender::WaitException : Invalid receiver id: receiver_id:5\n"));
    EXPECT_EQ(s.WaitSendFinish(0), -1);
    EXPECT_TRUE(log.Contains("CStreamSender::WaitSendFinish : Invalid receiver id: receiver_id:0\n"));
    EXPECT_EQ(s.WaitBufferSize(-5, 0), -1);
    EXPECT_TRUE(log.Contains("CStreamSender::WaitBufferSize :Invalid parameter: receiver_id:-5, size_in_byte:0 \n"));
    EXPECT_EQ(s.WaitBufferSize(7, 100), -1);
    EXPECT_TRUE(log.Contains("receiver_id:7, size_in_byte:100 \n"));

    // Smaller: nothing changes. Larger: what was too much before is taken.
    log.Clear();
    EXPECT_EQ(s.SetBufferSize(4), 0);
    EXPECT_EQ(s.GetCapacity(), 8u);
    EXPECT_EQ(log.Count("CStreamSender"), 0);
    EXPECT_EQ(s.SetBufferSize(16), 0);
    EXPECT_EQ(s.GetCapacity(), 16u);
    EXPECT_EQ(s.Put(data.data(), 300000), 0);
    EXPECT_GT(s.GetDataLen(), 0u);
    EXPECT_EQ(rig.Count(STREAM_SENDER_BUFFER_FREE) + rig.Count(STREAM_SENDER_FINISHED), 0);
}

TEST_F(StreamSenderTest, PeerResetIsReportedOnce)
{
    ASSERT_TRUE(rig.Attach(pair.client));
    LogCapture log(3);
    const std::string data = Pattern(200000, 7);
    ASSERT_EQ(s.Put(data.data(), 200000), 0);
    ASSERT_GT(s.GetDataLen(), 0u);

    // The reader goes away with a reset while bytes are queued.
    const linger reset{1, 0};
    ASSERT_EQ(Qelvar::Platform::sock_setopt(pair.server.GetHandle(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset), 0);
    pair.server.Close();
    ASSERT_TRUE(rig.WaitCount(STREAM_SENDER_EXCEPTION, 1));
    const auto notes = rig.inbox.Notes(STREAM_SENDER_EXCEPTION);
    EXPECT_EQ(notes[0].from, s.GetID());
    EXPECT_EQ(notes[0].attach, 0);
    EXPECT_TRUE(log.Contains("CStreamSender socket exception! fd: " + std::to_string(pair.client.GetHandle())));
    EXPECT_TRUE(eventually([&] { return registered_mask(0, pair.client.GetHandle()) == MASK_NONE; }));

    // The failed socket takes nothing more and raises no second notice, queued or
    // sent at once, before and after the receiver has closed.
    EXPECT_EQ(s.Put(data.data(), 10), -1);
    EXPECT_EQ(s.Clear(), 0);
    EXPECT_EQ(s.Put(data.data(), 10), -1);
    rig.receiver.Close();
    EXPECT_EQ(s.Put(data.data(), 10), -1);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(rig.Count(STREAM_SENDER_EXCEPTION), 1);
    EXPECT_EQ(log.Count("socket exception!"), 1);
    // The sender holds no descriptor of its own: closing the failed socket leaves
    // none behind.
    const int fds = OpenFds();
    pair.client.Close();
    if (fds >= 0) {
        EXPECT_EQ(OpenFds(), fds - 1);
    }
}

TEST_F(StreamSenderTest, SimulatedLinkDrainsAtItsBandwidth)
{
    const std::string data = Pattern(200000, 8);
    std::jthread reader = SlowReader(data.size());
    // Room for a whole second's budget: the simulator then never writes an element in part.
    ASSERT_EQ(pair.client.SetSockSendBuf(1 << 20), 0);
    sim.emplace();  // its first second starts now
    sim->SetRealSocket(&pair.client);
    sim->SetBandWidth(1);  // 131072 bytes a second
    ASSERT_TRUE(rig.Attach(*sim));

    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(s.Put(data.data(), 200000), 0);
    EXPECT_EQ(s.GetDataLen(), 200000u - 131072u);
    ASSERT_EQ(s.WaitSendFinish(rig.receiver.GetID()), 0);
    ASSERT_TRUE(rig.WaitCount(STREAM_SENDER_FINISHED, 1));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 900ms);  // the rest waited for the next second's budget
    EXPECT_LT(took, 5s);
    reader.join();
    EXPECT_TRUE(got == data);
}
