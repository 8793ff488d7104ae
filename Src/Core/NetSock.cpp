#include "Core/NetSock.h"

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"

namespace Qelvar::Corvane {

// Socket registration needs the socket classes, which this build does not contain yet:
// until they arrive every registration is refused, so no socket record can exist.
namespace {

int refuse(const char* operation)
{
    CVN_LOG(Fundel::LOG_ERROR, "CNetSock::%s: socket registration is not available in this build\n", operation);
    return -1;
}

}  // namespace

int CNetSock::RegisterSock(CNetHandler*, CSock&, unsigned int, int)
{
    return refuse("RegisterSock");
}

int CNetSock::generalRegisterSock(CNetHandler*, CSock&, unsigned int, int)
{
    return refuse("generalRegisterSock");
}

int CNetSock::UnregisterSock(CNetHandler*, CSock&, unsigned int)
{
    return refuse("UnregisterSock");
}

int CNetSock::generalUnregisterSock(CNetHandler*, CSock&, unsigned int)
{
    return refuse("generalUnregisterSock");
}

int CNetSock::RemoveSock(CNetHandler*, CSock&)
{
    return refuse("RemoveSock");
}

int CNetSock::generalRemoveSock(CNetHandler*, CSock&)
{
    return refuse("generalRemoveSock");
}

int CNetSock::CheckSock(CNetHandler*, CSock&)
{
    return 0;
}

void CNetSock::handle_netevent(SEvent* event)
{
    CVN_LOG(Fundel::LOG_FATAL, "CNetSock::handle_netevent: no socket record can be queued in this build, key:%lld\n",
            static_cast<long long>(event->m_key));
}

int CNetSock::InitEnvironment()
{
    const int err = Platform::sock_startup();
    if (err == 0) return 0;
    char text[256];
    Platform::error_text(err, text, sizeof text);
    if (Platform::is_unsupported_version(err)) {
        CVN_LOG(Fundel::LOG_ERROR, "check Berkeley Sockets version failed! ERR:[%d],%s\n", err, text);
    } else {
        CVN_LOG(Fundel::LOG_ERROR, "WSAStartup failed! ERR:[%d],%s\n", err, text);
    }
    return -1;
}

void CNetSock::CleanupEnvironment()
{
    Platform::sock_cleanup();
}

}  // namespace Qelvar::Corvane
