// CQuicStream: the interface of a QUIC stream, not supported in this build.
#pragma once

#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

/// Reserves the QUIC stream interface (type 9): every operation logs that QUIC is not
/// supported and fails.
class CORVANE_API CQuicStream : public CSock {
public:
    CQuicStream();
    ~CQuicStream() override = default;

    /// -1. `tls_config` is an opaque client configuration, never read.
    int Connect(const CSockAddr& remote, CSockAddr* local, const void* tls_config);
    int SetSockRecvBuf(unsigned int bytes);
    int GetSockRecvBuf();
    int SetSockSendBuf(unsigned int bytes);
    int GetSockSendBuf();
    int Send(const char* buf, unsigned int len, int flags);
    int Recv(char* buf, unsigned int len, int flags);
};

}  // namespace Qelvar::Corvane
