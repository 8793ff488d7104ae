// The media buffer and its senders over real loopback sockets: receivers start at key
// frames, get whole frames byte for byte, skip aged frames up to the next key frame, and
// every packet is released exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <Corvane/Level2Buffer.h>
#include <Corvane/MediaStreamSender.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockDgram.h>
#include <Corvane/SockStream.h>

#include "Platform/Socket.h"
#include "Platform/SockTypes.h"
#include "LoopbackPair.h"
#include "MediaSupport.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using namespace Qelvar::Corvane;
using namespace Qelvar::Test;

namespace {

// One receiver: `tx` non-blocking for the sender, `rx` blocking for the test, with small
// socket buffers when asked so that writes stop part way.
struct Receiver {
    LoopbackPair pair;
    CSockStream& tx = pair.server;
    CSockStream& rx = pair.client;
    CMediaStreamSender* sender = nullptr;
    std::string got;

    bool Make(long owner, unsigned int socket_bytes = 0)
    {
        if (!pair.Make(false, socket_bytes)) return false;
        tx.SetBlockOpt(false);
        if (socket_bytes && tx.SetSockSendBuf(socket_bytes) != 0) return false;
        sender = CMediaStreamSender::Create();
        if (!sender || sender->Attach(&tx) != 0) return false;
        sender->WaitException(owner);
        return true;
    }
    /// Reads until nothing more comes for 200 ms. With `drive`, asks that buffer to go on
    /// after every read (without an aging pass).
    const std::string& Drain(CMediaBuffer* drive = nullptr)
    {
        char chunk[65536];
        for (int quiet = 0; quiet < 4;) {
            const int n = rx.Recv_n(chunk, sizeof chunk, 50000);
            if (n < 0) break;
            quiet = n == 0 ? quiet + 1 : 0;
            got.append(chunk, static_cast<std::size_t>(n));
            if (drive) drive->put(nullptr, 0, 0, 0, false);
        }
        return got;
    }
    /// Attaches the sender to `buf`; it is detached and closed with the receiver.
    void Join(CMediaBuffer& buf)
    {
        buf.AddSender(sender);
        m_buffer = &buf;
    }
    ~Receiver()
    {
        if (m_buffer) m_buffer->DelSender(sender);
        if (sender) sender->Close();
    }

private:
    CMediaBuffer* m_buffer = nullptr;
};

class MediaBufferTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(pool.ok()); }
    void TearDown() override
    {
        buffer.reset();
        EXPECT_EQ(g_live.load(), 0) << "packets not released";
        EXPECT_EQ(g_overfree.load(), 0) << "packets released twice";
        g_packets.clear();
    }

    PoolScope pool;
    Inbox owner;
    std::unique_ptr<CMediaBuffer> buffer = std::make_unique<CMediaBuffer>();  // reset before the leak check
    CMediaBuffer& buf = *buffer;
};

}  // namespace

TEST_F(MediaBufferTest, ReceiversStartAtAKeyFrameAndGetWholeFramesInOrder)
{
    // Nobody watching: a completed frame goes at once; only the one being filled stays.
    PutFrame(buf, 0, 3000, 1);
    EXPECT_EQ(buf.GetBufferSize(), 0u);
    g_packets.push_back(std::make_unique<Packet>("open"));
    buf.Put(g_packets.back().get(), 4, 0, MediaLevel(5, 0));
    EXPECT_EQ(buf.GetBufferSize(), 4u);
    PutFrame(buf, 1, 2000, 5);  // completes the open frame plus frame 1: a 2004-byte frame, dropped

    Receiver a, b;
    ASSERT_TRUE(a.Make(owner.Id()));
    ASSERT_TRUE(b.Make(owner.Id()));
    a.Join(buf);
    PutFrame(buf, 2, 5000, 5);  // not a key frame: a waits
    PutFrame(buf, 3, 7000, 1);
    PutFrame(buf, 4, 4000, 10, 0, 1);
    b.Join(buf);  // joins inside the group of pictures
    PutFrame(buf, 5, 6000, 5);
    PutFrame(buf, 6, 8000, 1);
    PutFrame(buf, 7, 3000, 10);

    const Parsed pa = Parse(a.Drain()), pb = Parse(b.Drain());
    EXPECT_FALSE(pa.torn);
    EXPECT_FALSE(pb.torn);
    EXPECT_EQ(pa.frames, (std::vector<unsigned int>{3, 4, 5, 6, 7}));
    EXPECT_EQ(pb.frames, (std::vector<unsigned int>{6, 7}));
    // Both caught up: everything was discarded behind them.
    EXPECT_EQ(buf.GetBufferSize(), 0u);
    EXPECT_EQ(buf.GetStats().max_lag, 0u);

    // A sender that leaves and comes back starts afresh at a key frame.
    buf.DelSender(b.sender);
    buf.DelSender(b.sender);  // not in the list: nothing happens
    b.Join(buf);
    PutFrame(buf, 8, 3000, 10);
    PutFrame(buf, 9, 3000, 1);
    b.got.clear();
    EXPECT_EQ(Parse(b.Drain()).frames, (std::vector<unsigned int>{9}));
}

TEST_F(MediaBufferTest, AStalledReceiverSkipsAgedFramesAndResumesAtAKeyFrame)
{
    Receiver slow, fast, late;
    ASSERT_TRUE(slow.Make(owner.Id(), 4096));
    ASSERT_TRUE(fast.Make(owner.Id()));
    ASSERT_TRUE(late.Make(owner.Id()));
    slow.Join(buf);
    fast.Join(buf);
    // 40 packets: the frame's arrays grow past 32 entries, and the small socket stops
    // the slow sender inside it.
    PutFrame(buf, 0, 400000, 1, 0, 40);
    const SMediaBufferStats held = buf.GetStats();
    EXPECT_GT(held.max_lag, 0u);
    EXPECT_EQ(held.buffered, 400000u);

    late.Join(buf);  // never started, behind everything that ages
    PutFrame(buf, 1, 2000, 10);
    for (unsigned int n = 2; n < 11; ++n) PutFrame(buf, n, 1000 + n, 5);
    EXPECT_EQ(buf.GetStats().aged_frames, 0u);  // frame 1 has had 10 passes
    PutFrame(buf, 11, 1011, 5);                 // its 11th: aged out and deleted
    const SMediaBufferStats aged = buf.GetStats();
    EXPECT_EQ(aged.aged_frames, 1u);
    EXPECT_EQ(aged.aged_bytes, 2000u);
    // Discard stops at the frame the slow sender has begun: whole frames only.
    EXPECT_EQ(aged.buffered, 400000u + (1002 + 1010) * 9 / 2 + 1011);
    PutFrame(buf, 12, 5000, 1);
    PutFrame(buf, 13, 3000, 5);

    // The slow one gets frame 0 whole, then nothing until the next key frame: the frames
    // after the aged one depend on it. The never-started one begins at a key frame too.
    const Parsed ps = Parse(slow.Drain(&buf));
    EXPECT_FALSE(ps.torn);
    EXPECT_EQ(ps.frames, (std::vector<unsigned int>{0, 12, 13}));
    EXPECT_EQ(Parse(late.Drain()).frames, (std::vector<unsigned int>{12, 13}));
    const Parsed pf = Parse(fast.Drain());
    EXPECT_EQ(pf.frames.size(), 14u);
    EXPECT_FALSE(pf.torn);
    EXPECT_EQ(buf.GetBufferSize(), 0u);
}

TEST_F(MediaBufferTest, ChannelsAndOtherDataBetweenFrames)
{
    Receiver two, all;
    ASSERT_TRUE(two.Make(owner.Id(), 4096));
    ASSERT_TRUE(all.Make(owner.Id()));
    two.sender->SetSendChannel(2);
    PutFrame(buf, 99, 1000, 1, 2);  // before anyone watches: sets channel 2's key level
    two.Join(buf);
    all.Join(buf);
    PutFrame(buf, 0, 3000, 1, 0);
    PutFrame(buf, 1, 3000, 5, 2);  // not a key frame: channel 2 waits for one, on both
    PutFrame(buf, 2, 200000, 1, 2, 8);
    // The channel-2 sender is inside frame 2 now: other data waits for its end.
    const std::string ctrl = "<ctrl>";
    two.sender->SendOtherData(ctrl.data(), static_cast<int>(ctrl.size()));
    PutFrame(buf, 3, 3000, 10, 0);
    PutFrame(buf, 4, 3000, 10, 2);
    const Parsed p2 = Parse(two.Drain(&buf), ctrl);
    EXPECT_FALSE(p2.torn);
    EXPECT_EQ(p2.frames, (std::vector<unsigned int>{2, 4}));
    EXPECT_EQ(p2.rest, ctrl);
    EXPECT_EQ(two.got.find(ctrl), 200000u) << "other data inside a frame";
    // The first frame of every channel is a key frame, for a sender of all channels too.
    EXPECT_EQ(Parse(all.Drain()).frames, (std::vector<unsigned int>{0, 2, 3, 4}));

    // Bad input is refused with its line and changes nothing.
    LogCapture log;
    const std::string big(4000, 'x');
    all.sender->SendOtherData(big.data(), 4000);
    all.sender->SendOtherData(big.data(), 97);  // 4097 is one too many: dropped
    all.sender->SendOtherData(nullptr, 5);
    EXPECT_TRUE(log.Contains("SendOtherData failed! Invalid parameter, data:"));
    all.sender->WaitException(5);
    EXPECT_TRUE(log.Contains("Invalid receiver id: receiver_id:5"));
    PutFrame(buf, 5, 3000, 10, 0);
    all.got.clear();
    const Parsed pa = Parse(all.Drain(), big);
    EXPECT_EQ(pa.rest, big);
    EXPECT_EQ(pa.frames, (std::vector<unsigned int>{5}));
}

TEST_F(MediaBufferTest, ADatagramReceiverGetsAFrameADatagram)
{
    CSockDgram rx, tx;
    CSockAddrIPv4 local("127.0.0.1", 0), bound;
    ASSERT_EQ(rx.Open(&local), 0);
    ASSERT_EQ(rx.GetLocalAddr(&bound), 0);
    ASSERT_EQ(tx.Open(&local), 0);
    ASSERT_EQ(tx.SetRemote(&bound), 0);
    CMediaStreamSender* sender = CMediaStreamSender::Create();
    ASSERT_EQ(sender->Attach(&tx), 0);
    buf.AddSender(sender);
    PutFrame(buf, 0, 1200, 1);
    PutFrame(buf, 1, 900, 10, 0, 2);
    std::string got;
    char dgram[65536];
    int count = 0;
    for (int n; (n = rx.Recv_n(dgram, sizeof dgram, 500000)) > 0; ++count) got.append(dgram, static_cast<std::size_t>(n));
    EXPECT_EQ(count, 2);
    const Parsed p = Parse(got);
    EXPECT_FALSE(p.torn);
    EXPECT_EQ(p.frames, (std::vector<unsigned int>{0, 1}));
    buf.DelSender(sender);
    sender->Close();
}

TEST_F(MediaBufferTest, AReceiverThatResetsLeavesOnceAndTheOthersGetEveryByte)
{
    Receiver gone, stays;
    ASSERT_TRUE(gone.Make(owner.Id(), 4096));
    ASSERT_TRUE(stays.Make(owner.Id()));
    gone.Join(buf);
    stays.Join(buf);
    PutFrame(buf, 0, 300000, 1, 0, 10);  // the first receiver is inside this frame
    const linger reset{1, 0};
    ASSERT_EQ(Qelvar::Platform::sock_setopt(gone.rx.GetHandle(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset), 0);
    gone.rx.Close();
    std::this_thread::sleep_for(50ms);
    for (unsigned int n = 1; n < 20; ++n) PutFrame(buf, n, 20000, n % 5 == 0 ? 1 : 10);
    ASSERT_TRUE(owner.WaitCount(MEDIA_SENDER_EXCEPTION, 1));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(owner.Count(MEDIA_SENDER_EXCEPTION), 1);
    EXPECT_EQ(owner.Notes(MEDIA_SENDER_EXCEPTION)[0].from, gone.sender->GetID());
    EXPECT_EQ(buf.GetStats().senders, 1);
    const Parsed p = Parse(stays.Drain());
    EXPECT_FALSE(p.torn);
    EXPECT_EQ(p.frames.size(), 20u);
}

namespace {

class Recorder : public CLevel2Buffer_IF {
public:
    int Put(CMediaPacket*, int len, int, int level) override
    {
        levels.push_back(level);
        bytes += len;
        return levels.size() >= limit ? -1 : 0;
    }
    std::vector<int> levels;
    long bytes = 0;
    std::size_t limit = 1000;
};

}  // namespace

TEST_F(MediaBufferTest, BadInputIsRefusedAndNothingLeaks)
{
    LogCapture log;
    AssertCapture asserts;
    Packet* info = new Packet("info");
    EXPECT_EQ(buf.PutFrameInfo(nullptr, 4), -1);
    EXPECT_EQ(buf.PutFrameInfo(info, 0), -1);
    EXPECT_TRUE(log.Contains("PutFrameInfo failed! Invalid parameter, frameinfo:"));
    g_packets.emplace_back(info);
    EXPECT_EQ(buf.PutFrameInfo(info, 4), 0);
    buf.AddSender(nullptr);
    buf.DelSender(nullptr);
    buf.AddLevel2Buffer(nullptr);
    buf.DelLevel2Buffer(nullptr);
    for (const char* line : {"AddSender failed!", "DelSender failed!", "AddLevel2Buffer failed!", "DelLevel2Buffer failed!"}) {
        EXPECT_TRUE(log.Contains(line)) << line;
    }

    // Second-level buffers see the level as given; one that answers negative leaves.
    // The frame itself is stored at level 10, the lowest its channel has seen: a key
    // frame, which a receiver of that channel starts at.
    Recorder keeps, leaves;
    leaves.limit = 2;
    buf.AddLevel2Buffer(&keeps);
    buf.AddLevel2Buffer(&leaves);
    Receiver three;
    ASSERT_TRUE(three.Make(owner.Id()));
    three.sender->SetSendChannel(3);
    three.Join(buf);
    PutFrame(buf, 0, 900, 12, 3);
    EXPECT_EQ(keeps.levels, std::vector<int>(3, MediaLevel(12, 3)));
    EXPECT_EQ(leaves.levels.size(), 2u);
    EXPECT_EQ(keeps.bytes, 900);
    EXPECT_EQ(Parse(three.Drain()).frames, std::vector<unsigned int>{0});

    // Channel 9 fails the assertion; the packet is still the buffer's to release.
    PutFrame(buf, 1, 300, 1, 9, 1);
    EXPECT_EQ(asserts.Count("channel <= 7 && channel >= 0"), 1);

    // A producer that never sets the mark grows one frame; the buffer holds it whole.
    Receiver r;
    ASSERT_TRUE(r.Make(owner.Id()));
    r.Join(buf);
    for (int i = 0; i < 100; ++i) {
        g_packets.push_back(std::make_unique<Packet>(std::string(100, 'y')));
        buf.Put(g_packets.back().get(), 100, 0, MediaLevel(1, 0));
    }
    EXPECT_EQ(buf.GetBufferSize(), 10000u);
    // Clear with a sender and a second-level buffer attached forgets them, with a line.
    log.Clear();
    buf.Clear();
    EXPECT_TRUE(log.Contains("m_sender_header:"));
    EXPECT_TRUE(log.Contains("m_buffer_header:"));
    EXPECT_TRUE(log.Contains("CMediaBuffer::Clear,m_frame_header:"));
    EXPECT_EQ(g_live.load(), 0);
    EXPECT_EQ(buf.GetBufferSize(), 0u);
}

TEST_F(MediaBufferTest, ProducerTimerAndSendersRunTogether)
{
    buf.EnableAutoSend(5);
    buf.EnableAutoSend(50);  // already on: nothing changes
    constexpr int kReceivers = 4;
    Receiver rx[kReceivers];
    for (Receiver& r : rx) ASSERT_TRUE(r.Make(owner.Id(), 8192));
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (Receiver& r : rx) {
        readers.emplace_back([&r, &done] {
            char chunk[2048];
            while (!done.load()) {
                const int n = r.rx.Recv_n(chunk, sizeof chunk, 20000);
                if (n < 0) return;
                r.got.append(chunk, static_cast<std::size_t>(n));
                std::this_thread::sleep_for(1ms);
            }
        });
    }
    std::thread producer([&] {
        for (unsigned int n = 0; n < 300; ++n) {
            PutFrame(buf, n, 3000 + (n % 7) * 500, n % 10 == 0 ? 1 : (n % 2 ? 10 : 5));
            if (n == 30) rx[3].Join(buf);
            if (n == 200) buf.DelSender(rx[3].sender);
            std::this_thread::sleep_for(500us);
        }
    });
    for (int i = 0; i < 3; ++i) rx[i].Join(buf);
    producer.join();
    // The timer carries the senders on after the producer stops, until all caught up.
    EXPECT_TRUE(eventually([&] { return buf.GetStats().max_lag == 0; }, 10s));
    std::this_thread::sleep_for(100ms);
    done = true;
    for (std::thread& t : readers) t.join();
    buf.DisableAutoSend();
    for (Receiver& r : rx) {
        const Parsed p = Parse(r.got);
        // The one removed while the stream went on may end inside a frame.
        if (&r != &rx[3]) {
            EXPECT_FALSE(p.torn) << "after " << p.frames.size() << " frames";
        }
        ASSERT_FALSE(p.frames.empty());
        EXPECT_EQ(p.levels.front(), 1);
        // Every gap ends at a key frame.
        for (std::size_t i = 1; i < p.frames.size(); ++i) {
            if (p.frames[i] != p.frames[i - 1] + 1) {
                EXPECT_EQ(p.levels[i], 1) << "resumed at frame " << p.frames[i] << " after " << p.frames[i - 1];
            }
        }
    }
}
