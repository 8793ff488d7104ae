// The stream sender on the TLS streams (types 3 and 8): a queue drained into a TLS
// connection whose reader is slow arrives byte-exact.
#include "TlsSupport.h"

#include <atomic>

#include "../tool/SenderSupport.h"

namespace TlsTest {
namespace {

using namespace std::chrono_literals;
using Qelvar::Test::Pattern;
using Qelvar::Test::SenderRig;
using Qelvar::Test::Signal;

using StreamSenderTlsTest = TlsFixture;

// A server that reads `expect` bytes slowly into `got`, through a small receive buffer.
ServerThread::Serve SlowRead(std::string& got, std::size_t expect)
{
    return [&got, expect](CSslStream& stream) {
        stream.SetSockRecvBuf(32768);
        Qelvar::Test::ReadSlowly(stream, 2000, expect, got);
    };
}

// Puts `data` through the rig's sender in odd-sized pieces, waits for the end and
// checks what the server read.
void PushAndCheck(SenderRig& rig, ServerThread& server, const std::string& data, const std::string& got)
{
    ASSERT_TRUE(rig.PushAll(data, [](int i) { return 1000u + static_cast<unsigned int>(i * 4099) % 30000u; }));
    ASSERT_EQ(rig.sender->WaitSendFinish(rig.receiver.GetID()), 0);
    ASSERT_TRUE(rig.WaitCount(STREAM_SENDER_FINISHED, 1));
    EXPECT_EQ(server.Join(), 1);
    EXPECT_EQ(got.size(), data.size());
    EXPECT_TRUE(got == data);
    // The reader held the queue back: it filled up and the producer waited for room.
    EXPECT_GT(rig.Count(STREAM_SENDER_BUFFER_FREE), 0);
    EXPECT_EQ(rig.Count(STREAM_SENDER_EXCEPTION), 0);
}

TEST_F(StreamSenderTlsTest, BlockingTlsStreamDrainsIntoASlowReader)
{
    const std::string data = Pattern(1 << 20, 21);
    std::string got;
    ServerThread server(UseServerCert, SlowRead(got, data.size()));
    CSslStream client;
    ASSERT_EQ(client.Connect(server.Address(), nullptr), 0);
    client.SetSockSendBuf(16384);
    SenderRig rig;
    ASSERT_TRUE(rig.Attach(client));
    PushAndCheck(rig, server, data, got);
}

TEST_F(StreamSenderTlsTest, ReactorDrivenTlsStreamDrainsIntoASlowReader)
{
    const std::string data = Pattern(1 << 20, 22);
    std::string got;
    ServerThread server(UseServerCert, SlowRead(got, data.size()));
    CSslAsyncStream client;
    std::atomic<bool> handed_over{false};
    std::atomic<int> status{-3};
    Signal handed;
    SenderRig rig;  // after what its owner's callback uses
    // The first writable event is the hand-over after the handshake; the sender gets
    // the ones after it.
    rig.owner.on_output = [&](int fd) {
        if (handed_over.load()) return rig.sender->handle_output(fd);
        status = client.GetConnectStatus();
        rig.owner.UnregisterSock(client, MASK_WRITE);
        handed_over = true;
        handed.Add();
        return 0;
    };
    ASSERT_EQ(client.Connect(server.Address(), nullptr), 0);
    ASSERT_EQ(rig.owner.RegisterSock(client, MASK_WRITE, 5000000), 0);
    ASSERT_TRUE(handed.WaitFor(1, 5s));
    ASSERT_EQ(status.load(), 0);
    client.SetSockSendBuf(16384);
    ASSERT_TRUE(rig.Attach(client));
    PushAndCheck(rig, server, data, got);
}

}  // namespace
}  // namespace TlsTest
