#include <Corvane/QuicAcceptor.h>

#include <Corvane/QuicStream.h>

#include "Fundel/LogDefs.h"

// This build carries no QUIC transport: the class only holds the interface's place.

namespace Qelvar::Corvane {

CQuicAcceptor::CQuicAcceptor() : CSock(-1, SOCK_TYPE_ACCEPTOR)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
}

int CQuicAcceptor::Open(const CSockAddr&, const void*)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return -1;
}

CQuicStream* CQuicAcceptor::Accept(CSockAddr*)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return nullptr;
}

int CQuicAcceptor::Accept(CQuicStream&, CSockAddr*)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return -1;
}

}  // namespace Qelvar::Corvane
