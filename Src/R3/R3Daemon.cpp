#include "R3/R3Daemon.h"

#include <cstdio>
#include <mutex>
#include <new>

#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockStream.h>

#include "Fundel/LogDefs.h"
#include "R3/R3TelnetSession.h"

namespace Qelvar::Corvane {

namespace {

// Connections taken per readiness; more wait for the next one (the socket stays readable).
constexpr int kAcceptsPerCall = 16;

}  // namespace

CR3Daemon::CR3Daemon() = default;

int CR3Daemon::Start(unsigned short port, const char* name)
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    std::snprintf(m_name, sizeof m_name, "%.64s", name && name[0] != '\0' ? name : "R3");
    m_session = new (std::nothrow) CR3TelnetSession(m_name);
    if (!m_session || m_session->GetID() == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p CR3Daemon::Create new CR3TelnetSession fail!\n", static_cast<void*>(this));
        return -1;
    }
    if (open_port(port) != 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p CR3Daemon::Create new open_port fail!\n", static_cast<void*>(this));
        return -1;
    }
    if (RegisterSock(m_acceptor, MASK_READ, 0) != 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p CR3Daemon::Create register port[%d] fail!\n", static_cast<void*>(this),
                static_cast<int>(m_port));
        return -1;
    }
    return 0;
}

int CR3Daemon::open_port(unsigned short port)
{
    for (unsigned int i = 0; i < kPortTries && port + i <= 65535; ++i) {
        CSockAddrIPv4 local(0u, static_cast<unsigned short>(port + i));
        if (m_acceptor.Open(local) != 0) {
            m_acceptor.Close();
            continue;
        }
        // Port 0 lets the system choose: ask which.
        CSockAddrIPv4 bound;
        m_port = m_acceptor.GetLocalAddr(&bound) == 0 ? bound.GetPort() : local.GetPort();
        CVN_LOG(Fundel::LOG_INFO, "R3Server Start @port[%d]\n", static_cast<int>(m_port));
        return 0;
    }
    return -1;
}

void CR3Daemon::Stop()
{
    CR3TelnetSession* session;
    {
        std::lock_guard<Fundel::CMutex> lock(m_mutex);
        if (m_stopped) return;
        m_stopped = true;
        if (m_acceptor.IsValid()) {
            RemoveSock(m_acceptor);
            m_acceptor.Close();
        }
        session = m_session;
        m_session = nullptr;
    }
    // Outside the daemon's lock: the session's locks may be held by a command that is
    // waiting for this lock (R3Printf).
    if (session) {
        session->Shutdown();
        session->Close();
    }
    Close();
}

unsigned short CR3Daemon::GetPort()
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    return m_port;
}

CR3TelnetSession* CR3Daemon::AcquireSession()
{
    std::lock_guard<Fundel::CMutex> lock(m_mutex);
    // Still held here, so not closed yet: the table's reference keeps it alive.
    if (m_session) m_session->AddRef();
    return m_session;
}

int CR3Daemon::handle_input(int)
{
    for (int i = 0; i < kAcceptsPerCall; ++i) {
        CSockStream accepted;
        {
            std::lock_guard<Fundel::CMutex> lock(m_mutex);
            if (m_stopped) return 0;
            if (m_acceptor.Accept(accepted, nullptr) != 0) return 0;
        }
        CVN_LOG(Fundel::LOG_DEBUG, "R3Server come new connect.\n");
        CR3TelnetSession* session = AcquireSession();
        if (!session) return 0;
        session->Attach(accepted);
        session->DecRef();
    }
    return 0;
}

int CR3Daemon::handle_close(CNetHandler*)
{
    delete this;
    return 0;
}

}  // namespace Qelvar::Corvane
