// The socket event registry: one record per registered socket in the socket table of
// the owner's pool. It turns RegisterSock / UnregisterSock / RemoveSock into interest in
// the pool's poller and time-outs in the socket timer, and calls the owner back when a
// worker takes the record (handle_netevent). A record handed to a worker is out of the
// poller until its callback has returned, so one socket's events are handled by one
// thread at a time. Lock order: socket table, then record.
#pragma once

#include <cstdint>
#include <mutex>

#include "Core/Event.h"
#include "Fundel/ReadWriteMutex.h"

namespace Qelvar::Corvane {

class CNetHandler;
class CSock;
class CThreadPool;

class CNetSock {
public:
    /// Registers or extends interest in `mask` on `sock` with a time-out in microseconds
    /// (kept in milliseconds). A socket of type 8 goes through its proxy first. 0 or -1.
    static int RegisterSock(CNetHandler* owner, CSock& sock, unsigned int mask, int time_out);
    /// RegisterSock without the socket-type check.
    static int generalRegisterSock(CNetHandler* owner, CSock& sock, unsigned int mask, int time_out);
    /// Withdraws interest in the bits of `mask`. 0, or -1 for another owner's protected socket.
    static int UnregisterSock(CNetHandler* owner, CSock& sock, unsigned int mask);
    static int generalUnregisterSock(CNetHandler* owner, CSock& sock, unsigned int mask);
    /// Drops the registration; while a callback of it runs, after that callback. 0 or -1.
    static int RemoveSock(CNetHandler* owner, CSock& sock);
    static int generalRemoveSock(CNetHandler* owner, CSock& sock);
    /// Withdraws Write when the socket is registered for Read, else removes it. 0.
    static int CheckSock(CNetHandler* owner, CSock& sock);

    /// Handles a socket record taken from the worker queue of `pool`.
    static void handle_netevent(CThreadPool& pool, SEvent* ev);

    /// Starts the system's socket library. 0 or -1 (logged).
    static int InitEnvironment();
    /// Undoes InitEnvironment.
    static void CleanupEnvironment();

private:
    static int general_register(CNetHandler* owner, int fd, unsigned int mask, int time_out);
    static int general_unregister(CNetHandler* owner, int fd, unsigned int mask);
    static int general_remove(CNetHandler* owner, int fd);
    static int modify_exist_event(CThreadPool& pool, CNetHandler* owner, SEvent* ev, unsigned int mask, int ms);
    static int register_new_event(CThreadPool& pool, CNetHandler* owner, int fd, unsigned int mask, int ms,
                                  std::unique_lock<Fundel::CReadWriteMutex>& table);
    static long long handle_net(std::int64_t obj_id, int fd, std::uint16_t revents);
    static long long handle_timeout(std::int64_t obj_id, int fd, std::uint16_t revents);
    static void finish(CThreadPool& pool, SEvent* ev, long long result);
};

}  // namespace Qelvar::Corvane
