// CQuicAcceptor: the interface of a QUIC acceptor, not supported in this build.
#pragma once

#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

class CQuicStream;

/// Reserves the QUIC acceptor interface (type 6): every operation logs that QUIC is
/// not supported and fails.
class CORVANE_API CQuicAcceptor : public CSock {
public:
    CQuicAcceptor();
    ~CQuicAcceptor() override = default;

    /// -1. `tls_config` is an opaque server configuration, never read.
    int Open(const CSockAddr& local, const void* tls_config);
    /// null.
    CQuicStream* Accept(CSockAddr* remote);
    /// -1.
    int Accept(CQuicStream& stream, CSockAddr* remote);
};

}  // namespace Qelvar::Corvane
