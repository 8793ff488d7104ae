// Stream receivers on the real library: argument checks, the least loaded thread, pacing
// by media time (fast start, rate), the write group's tick, failure and close
// notifications, and the library's stop with receivers still running.
#include <gtest/gtest.h>

#include <Corvane/MediaStreamReceiver.h>
#include <Corvane/NetThread.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "../core/Inbox.h"
#include "TestSupport.h"
#include "Tool/StreamReceiverThread.h"

using namespace std::chrono_literals;
using namespace Qelvar::Corvane;
using namespace Qelvar::Test;

namespace {

// Counts its hook calls; the passive hook returns a media time 40 ms further on each
// call. Its release reports to a signal that outlives it.
class TestReceiver : public CMediaStreamReceiver {
public:
    explicit TestReceiver(std::shared_ptr<Signal> released) : m_released(std::move(released)) {}
    int handle_stream_input() override { return tick(); }
    int handle_stream_write() override { return tick(); }
    long long handle_passive_input() override { return tick() < 0 ? -1 : (m_media += 40000); }
    int handle_close(CNetHandler*) override
    {
        auto released = m_released;
        delete this;
        released->Add();
        return 0;
    }

    std::atomic<int> calls{0};
    std::atomic<int> result{0};
    std::function<void(TestReceiver&, int)> on_call;

private:
    int tick()
    {
        const int n = ++calls;
        if (on_call) on_call(*this, n);
        return result.load();
    }
    std::shared_ptr<Signal> m_released;
    long long m_media = 0;
};

class StreamReceiverTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(threads_set && pool.ok()); }

    TestReceiver* New(receiver_mode mode = RECEIVER_STREAM_INPUT)
    {
        auto* r = new TestReceiver(released);
        r->SetReceiveMode(mode);
        r->WaitException(owner.Id());
        return r;
    }

    bool threads_set = CNetThread::SetRecvThreadNum(2) == 0;
    PoolScope pool;
    std::shared_ptr<Signal> released = std::make_shared<Signal>();
    Inbox owner;
};

}  // namespace

TEST_F(StreamReceiverTest, ArgumentsAreCheckedAndANewReceiverJoinsTheLeastLoadedThread)
{
    LogCapture log;
    TestReceiver* idle = New();
    EXPECT_EQ(idle->StartReceive(0, 0.00005f), -1);
    EXPECT_TRUE(log.Contains("StartReceive failed! Invalid parameter, fast_start_ts:0, rate:0.000050"));
    EXPECT_EQ(idle->StartReceive(-1, 1.0f), -1);
    EXPECT_TRUE(log.Contains("fast_start_ts:-1, rate:1.000000"));
    idle->SetReceiveMode(static_cast<receiver_mode>(3));
    EXPECT_TRUE(log.Contains("SetReceiveMode failed! Invalid parameter!"));
    idle->WaitException(7);
    CapturedLog line;
    ASSERT_TRUE(log.Find("CMediaStreamReceiver::WaitException, invalid receiver id: 7", &line));
    EXPECT_EQ(line.level, 2);
    EXPECT_EQ(idle->StopReceive(), -1);
    EXPECT_TRUE(log.Contains("Can't stop a receiver not in running state!"));
    EXPECT_EQ(CNetThread::SetRecvTickPeriod(0), -1);
    EXPECT_EQ(CNetThread::SetRecvThreadPriority(5, 0, 0), -1);
    // Never started: released at once, with its notification.
    idle->Close();
    ASSERT_TRUE(released->WaitFor(1, 3s));
    ASSERT_TRUE(eventually([&] { return owner.Count(MEDIA_RECEIVER_CLOSED) == 1; }));

    std::vector<TestReceiver*> r;
    for (int i = 0; i < 5; ++i) {
        r.push_back(New());
        ASSERT_EQ(r.back()->StartReceive(), 0);
        if (i == 3) {
            EXPECT_EQ(CStreamReceiverThread::counts(RECEIVE_GROUP), (std::vector<int>{2, 2}));
        }
    }
    EXPECT_EQ(CStreamReceiverThread::counts(RECEIVE_GROUP), (std::vector<int>{3, 2})) << "2 + 2: the first";
    EXPECT_EQ(CStreamReceiverThread::counts(WRITE_GROUP), (std::vector<int>{0, 0}));
    EXPECT_EQ(r[0]->StartReceive(), -1);
    EXPECT_TRUE(log.Contains("this receiver already started!"));
    r[1]->Close();  // the second thread's (they alternate)
    ASSERT_TRUE(eventually([] { return CStreamReceiverThread::counts(RECEIVE_GROUP) == std::vector<int>{3, 1}; }));
    r[1] = New();
    ASSERT_EQ(r[1]->StartReceive(), 0);
    EXPECT_EQ(CStreamReceiverThread::counts(RECEIVE_GROUP), (std::vector<int>{3, 2})) << "3 + 1: the second";

    // The threads end with their last receiver and start again with the next one.
    for (TestReceiver* x : r) x->Close();
    ASSERT_TRUE(eventually([] { return CStreamReceiverThread::counts(RECEIVE_GROUP) == std::vector<int>{0, 0}; }));
    ASSERT_TRUE(released->WaitFor(7, 3s));
    TestReceiver* again = New();
    ASSERT_EQ(again->StartReceive(), 0);
    ASSERT_TRUE(eventually([&] { return again->calls.load() >= 3; }));
    again->Close();
    ASSERT_TRUE(released->WaitFor(8, 3s));
    EXPECT_TRUE(eventually([&] { return owner.Count(MEDIA_RECEIVER_CLOSED) == 8; }));
}

TEST_F(StreamReceiverTest, PassiveReceiversFollowMediaTimeAndWritersTheWriteTick)
{
    TestReceiver* paced = New(RECEIVER_PASSIVE_INPUT);    // 40 ms of media a read, 20 ms ticks
    TestReceiver* fast = New(RECEIVER_PASSIVE_INPUT);     // its first second of media at once
    TestReceiver* doubled = New(RECEIVER_PASSIVE_INPUT);  // rate 2 drops its fast start
    TestReceiver* writer = New(RECEIVER_STREAM_WRITE);
    TestReceiver* input = New();
    ASSERT_EQ(paced->StartReceive(), 0);
    ASSERT_EQ(fast->StartReceive(1000000), 0);
    ASSERT_EQ(doubled->StartReceive(5000000, 2.0f), 0);
    ASSERT_EQ(writer->StartReceive(), 0);
    ASSERT_EQ(input->StartReceive(), 0);
    EXPECT_EQ(CStreamReceiverThread::counts(WRITE_GROUP), (std::vector<int>{1, 0}));
    std::this_thread::sleep_for(200ms);
    EXPECT_GE(fast->calls.load(), 20) << "up to 8 reads a tick";
    EXPECT_LE(paced->calls.load(), 10);
    std::this_thread::sleep_for(800ms);
    // One second: a read every second tick, twice that at rate 2 or after a fast start.
    EXPECT_NEAR(paced->calls.load(), 26, 7);
    EXPECT_NEAR(fast->calls.load(), 51, 10);
    EXPECT_NEAR(doubled->calls.load(), 51, 11);
    EXPECT_NEAR(writer->calls.load(), 26, 7);
    EXPECT_NEAR(input->calls.load(), 51, 11);
    for (TestReceiver* x : {paced, fast, doubled, writer, input}) x->Close();
    ASSERT_TRUE(released->WaitFor(5, 3s));
}

TEST_F(StreamReceiverTest, FailuresNotifyAndAReceiverStopsResumesAndClosesItself)
{
    LogCapture log;
    CNetThread::SetRecvTrace(1);  // its lines go nowhere without a console, but are made
    TestReceiver* failing = New();
    TestReceiver* passive = New(RECEIVER_PASSIVE_INPUT);
    TestReceiver* quitter = New();
    failing->result = -1;
    passive->result = -1;
    const long failing_id = failing->GetID(), passive_id = passive->GetID(), quitter_id = quitter->GetID();
    std::atomic<int> after_close{0};
    quitter->on_call = [&after_close](TestReceiver& self, int n) {
        if (n == 3) self.Close();
        if (n > 3) ++after_close;
    };
    for (TestReceiver* x : {failing, passive, quitter}) ASSERT_EQ(x->StartReceive(), 0);
    // The id is kept: every failed tick notifies.
    ASSERT_TRUE(eventually([&] { return owner.Count(MEDIA_RECEIVER_EXCEPTION, failing_id) >= 3; }));
    ASSERT_TRUE(eventually([&] { return owner.Count(MEDIA_RECEIVER_EXCEPTION, passive_id) >= 3; }));
    EXPECT_TRUE(log.Contains("MediaStreamReceiver do_receive socket exception, error:"));
    ASSERT_TRUE(released->WaitFor(1, 3s));
    ASSERT_TRUE(eventually([&] { return owner.Count(MEDIA_RECEIVER_CLOSED, quitter_id) == 1; }));
    EXPECT_EQ(after_close.load(), 0);
    CNetThread::SetRecvTrace(0);

    ASSERT_EQ(failing->StopReceive(), 0);
    std::this_thread::sleep_for(30ms);  // a call under way when it stopped
    const int stopped_at = failing->calls.load();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(failing->calls.load(), stopped_at);
    ASSERT_EQ(failing->StartReceive(), 0);
    EXPECT_TRUE(eventually([&] { return failing->calls.load() >= stopped_at + 3; }));
    failing->Close();
    passive->Close();
    ASSERT_TRUE(released->WaitFor(3, 3s));
}

TEST(StreamReceiverStopTest, TheLibraryReleasesTheReceiversItsThreadsStillHold)
{
    AssertCapture asserts;
    LogCapture log;
    ASSERT_EQ(CNetThread::SetRecvThreadNum(2), 0);
    ASSERT_EQ(CNetThread::CreateThreadPool(2), 0);
    auto released = std::make_shared<Signal>();
    Inbox owner;
    auto start = [&](receiver_mode mode) {
        auto* r = new TestReceiver(released);
        r->SetReceiveMode(mode);
        r->WaitException(owner.Id());
        EXPECT_EQ(r->StartReceive(), 0);
        return r;
    };
    start(RECEIVER_STREAM_INPUT);
    start(RECEIVER_STREAM_WRITE);
    EXPECT_EQ(start(RECEIVER_PASSIVE_INPUT)->StopReceive(), 0);
    // The threads' stop, the library's last step for them, releases what they hold...
    CStreamReceiverThread::StopGroups();
    ASSERT_TRUE(released->WaitFor(3, 3s));
    EXPECT_TRUE(owner.WaitCount(MEDIA_RECEIVER_CLOSED, 3));
    // ...after which a start fails and leaves the receiver new.
    auto* late = new TestReceiver(released);
    EXPECT_EQ(late->StartReceive(), -1);
    EXPECT_TRUE(log.Contains("Thread start failed. error:-1, stream receiver threads not started"));
    late->Close();
    ASSERT_TRUE(released->WaitFor(4, 3s));

    // The whole library stops with receivers running: all released by its end.
    ASSERT_EQ(CStreamReceiverThread::StartGroups(2), 0);
    TestReceiver* running = start(RECEIVER_PASSIVE_INPUT);
    start(RECEIVER_STREAM_WRITE);
    ASSERT_TRUE(eventually([&] { return running->calls.load() > 0; }));
    owner.probe.Close();
    ASSERT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_EQ(released->Count(), 6);
    EXPECT_EQ(asserts.Count("m_number == 0"), 0);
}
