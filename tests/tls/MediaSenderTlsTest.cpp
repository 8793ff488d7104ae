// The media stream sender on a TLS stream (type 3): whole frames from a key frame on,
// byte-exact at the other end.
#include "TlsSupport.h"

#include <Corvane/MediaStreamSender.h>

#include "../tool/MediaSupport.h"

namespace TlsTest {
namespace {

using Qelvar::Test::Parse;
using Qelvar::Test::Parsed;
using Qelvar::Test::PutFrame;

using MediaSenderTlsTest = TlsFixture;

TEST_F(MediaSenderTlsTest, TlsReceiverGetsWholeFramesFromAKeyFrame)
{
    constexpr std::size_t kExpect = 40000 + 3 * 20000;
    std::string got;
    ServerThread server(UseServerCert, [&got](CSslStream& stream) {
        Qelvar::Test::ReadSlowly(stream, 2000, kExpect, got);
    });
    CSslStream client;
    ASSERT_EQ(client.Connect(server.Address(), nullptr), 0);
    auto buffer = std::make_unique<CMediaBuffer>();
    CMediaBuffer& buf = *buffer;
    CMediaStreamSender* sender = CMediaStreamSender::Create();
    ASSERT_EQ(sender->Attach(&client), 0);
    PutFrame(buf, 0, 20000, 1);  // nobody watching yet
    buf.AddSender(sender);
    PutFrame(buf, 1, 20000, 5);  // not a key frame: not sent
    PutFrame(buf, 2, 40000, 1, 0, 7);
    for (unsigned int n = 3; n < 6; ++n) PutFrame(buf, n, 20000, 10);
    EXPECT_EQ(server.Join(), 1);
    const Parsed p = Parse(got);
    EXPECT_FALSE(p.torn);
    EXPECT_EQ(p.frames, (std::vector<unsigned int>{2, 3, 4, 5}));
    buf.DelSender(sender);
    sender->Close();
    buffer.reset();
    EXPECT_EQ(Qelvar::Test::g_live.load(), 0);
    Qelvar::Test::g_packets.clear();
}

}  // namespace
}  // namespace TlsTest
