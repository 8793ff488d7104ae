// The console's listening handler.
#pragma once

#include <Corvane/NetHandler.h>
#include <Corvane/SockAcceptor.h>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

class CR3TelnetSession;

/// Listens for console connections on the IPv4 any-address and hands each accepted
/// socket to its one session, which drops the connection it had. One per process (the
/// R3 functions keep it).
class CR3Daemon : public CNetHandler {
public:
    /// Ports tried: the one asked for and the next 100, never past 65535.
    static constexpr unsigned int kPortTries = 101;

    /// A daemon on the public pool; it does nothing until Start.
    CR3Daemon();

    /// Makes the session, opens the first free port from `port` on and registers for
    /// connections; the prompt is `name` (at most 64 characters; null or empty: "R3").
    /// 0, or -1 (logged): then call Stop.
    int Start(unsigned short port, const char* name);
    /// Stops accepting, closes the listening socket, drops the connection and closes the
    /// session and the daemon. Once; a second call does nothing.
    void Stop();

    /// The port in use; 0 before Start succeeded.
    unsigned short GetPort();
    /// The session with a reference taken for the caller, who DecRefs it; null once
    /// stopped.
    CR3TelnetSession* AcquireSession();

    /// Accepts the waiting connections.
    int handle_input(int handle) override;
    int handle_close(CNetHandler* handler) override;

private:
    ~CR3Daemon() override = default;

    int open_port(unsigned short port);

    Fundel::CMutex m_mutex;
    CSockAcceptor m_acceptor;
    unsigned short m_port = 0;
    CR3TelnetSession* m_session = nullptr;
    char m_name[128] = {};
    bool m_stopped = false;
};

}  // namespace Qelvar::Corvane
