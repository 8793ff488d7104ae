// The socket event registry: one record per registered socket in the socket table of
// the owner's pool, turning RegisterSock / UnregisterSock / RemoveSock into interest in
// the poller and time-outs, and calling the owner back when a worker takes the record.
#pragma once

#include "Core/Event.h"

namespace Qelvar::Corvane {

class CNetHandler;
class CSock;

class CNetSock {
public:
    static int RegisterSock(CNetHandler* owner, CSock& sock, unsigned int mask, int time_out);
    static int generalRegisterSock(CNetHandler* owner, CSock& sock, unsigned int mask, int time_out);
    static int UnregisterSock(CNetHandler* owner, CSock& sock, unsigned int mask);
    static int generalUnregisterSock(CNetHandler* owner, CSock& sock, unsigned int mask);
    static int RemoveSock(CNetHandler* owner, CSock& sock);
    static int generalRemoveSock(CNetHandler* owner, CSock& sock);
    static int CheckSock(CNetHandler* owner, CSock& sock);

    /// Handles a socket record taken from a worker queue.
    static void handle_netevent(SEvent* event);

    /// Starts the system's socket library. 0 or -1 (logged).
    static int InitEnvironment();
    /// Undoes InitEnvironment.
    static void CleanupEnvironment();
};

}  // namespace Qelvar::Corvane
