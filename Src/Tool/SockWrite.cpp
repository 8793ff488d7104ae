#include "Tool/SockWrite.h"

#include <Corvane/Config.h>
#include <Corvane/MirtStream.h>
#include <Corvane/SimulatorStream.h>
#include <Corvane/SockDgram.h>
#include <Corvane/SockStream.h>
#if CORVANE_HAVE_TLS
#include <Corvane/SslAsyncStream.h>
#include <Corvane/SslStream.h>
#endif

namespace Qelvar::Corvane {

namespace {

// Calls `op` with the socket as its own class; `dgram` for type 2.
template <class F, class G>
int with_sock(CSock* sock, unsigned int type, bool datagrams, F&& op, G&& dgram)
{
    switch (type) {
    case SOCK_TYPE_STREAM:
        return op(*static_cast<CSockStream*>(sock));
    case SOCK_TYPE_SIMULATOR:
        return op(*static_cast<CSimulatorStream*>(sock));
    case SOCK_TYPE_MIRT:
        return op(*static_cast<CMirtStream*>(sock));
    case SOCK_TYPE_DGRAM:
        if (datagrams) return dgram(*static_cast<CSockDgram*>(sock));
        break;
#if CORVANE_HAVE_TLS
    case SOCK_TYPE_SSL:
        return op(*static_cast<CSslStream*>(sock));
    case SOCK_TYPE_SSL_ASYNC:
        // Type 8 is an acceptor's type too: only the stream carries data.
        if (auto* stream = dynamic_cast<CSslAsyncStream*>(sock)) return op(*stream);
        break;
#endif
    default:
        break;
    }
    return kNotWritable;
}

}  // namespace

int sock_send(CSock* sock, unsigned int type, const char* buf, unsigned int len, bool datagrams)
{
    // A reliable-UDP Send takes one message; the senders want all the socket takes now.
    if (type == SOCK_TYPE_MIRT) {
        iovec one{};
        one.iov_base = const_cast<char*>(buf);
        one.iov_len = len;
        return sock_writev(sock, type, &one, 1, datagrams);
    }
    return with_sock(
        sock, type, datagrams, [&](auto& s) { return s.Send(buf, len); },
        [&](CSockDgram& s) { return s.Send(buf, len, nullptr); });
}

int sock_writev(CSock* sock, unsigned int type, const iovec* vec, int count, bool datagrams)
{
    return with_sock(
        sock, type, datagrams, [&](auto& s) { return s.WriteV(vec, count); },
        [&](CSockDgram& s) { return s.WriteV(vec, count); });
}

}  // namespace Qelvar::Corvane
