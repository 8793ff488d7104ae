#include <Corvane/QuicStream.h>

#include "Fundel/LogDefs.h"

// This build carries no QUIC transport: the class only holds the interface's place.

namespace Qelvar::Corvane {

CQuicStream::CQuicStream() : CSock(-1, SOCK_TYPE_QUIC)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
}

int CQuicStream::Connect(const CSockAddr&, CSockAddr*, const void*)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return -1;
}

int CQuicStream::SetSockRecvBuf(unsigned int)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return -1;
}

int CQuicStream::GetSockRecvBuf()
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return -1;
}

int CQuicStream::SetSockSendBuf(unsigned int)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return -1;
}

int CQuicStream::GetSockSendBuf()
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return -1;
}

int CQuicStream::Send(const char*, unsigned int, int)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return -1;
}

int CQuicStream::Recv(char*, unsigned int, int)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p The Corvane version is not support Quic!\n", static_cast<void*>(this));
    return -1;
}

}  // namespace Qelvar::Corvane
