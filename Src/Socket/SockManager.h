// The process-wide registry that ties socket objects to the descriptors they hold, so
// that a descriptor number is closed once only, whatever number of objects hold it.
//
// Rules: every socket object enters itself with an empty status at construction;
// whoever creates a descriptor gives it a new valid status and binds its object to it;
// an object looks its status up before acting and refuses when it was invalidated;
// real_Close invalidates it, so every other holder refuses from then on.
#pragma once

#include <map>
#include <mutex>
#include <shared_mutex>

#include <Fundel/Function.h>

#include "Socket/ListenSocketStatus.h"
#include "Socket/SocketStatus.h"

namespace Qelvar::Corvane {

class CSock;

using SocketStatusPtr = Fundel::TSharedPtr<CSocketStatus>;
using ListenSocketStatusPtr = Fundel::TSharedPtr<CListenSocketStatus>;

class CSockManager {
public:
    /// The process-wide instance (never destroyed).
    static CSockManager& Instance();

    /// Enters or overwrites the status of descriptor `fd` (logging when present).
    void insertValueByFD(int fd, const SocketStatusPtr& status);
    /// Enters or overwrites the status of a socket object (logging when present).
    void insertValueBySock(const CSock* sock, const SocketStatusPtr& status);
    /// Enters or overwrites the status of a listening descriptor (logging when present).
    void insertValueByListenFD(int fd, const ListenSocketStatusPtr& status);

    /// 0 and the status when present and not empty; -1 otherwise (an empty entry logs).
    int findValueByFD(int fd, SocketStatusPtr& out);
    int findValueBySock(const CSock* sock, SocketStatusPtr& out);
    int findValueByListenFD(int fd, ListenSocketStatusPtr& out);

    /// Binds a socket object to `status` (empty: unbinds), silently.
    void bindSock(const CSock* sock, const SocketStatusPtr& status);
    void removeSock(const CSock* sock);
    void removeFD(int fd);
    void removeListenFD(int fd);

    /// Accept-latency report of a listening descriptor: when B >= A and C >= B, logs
    /// that it may not accept in time and asks the reactor for a dump of its socket
    /// events; clears the report once C falls below B.
    void dealTheInfo(const ListenSocketStatusPtr& status);

private:
    CSockManager() = default;

    std::mutex m_fd_mutex;
    std::map<int, SocketStatusPtr> m_fd_status;               // MapFdStatus
    std::shared_mutex m_sock_lock;
    std::map<const CSock*, SocketStatusPtr> m_sock_status;    // MapSockStatus
    std::shared_mutex m_listen_lock;
    std::map<int, ListenSocketStatusPtr> m_listen_status;     // MapListenFdStatus
};

}  // namespace Qelvar::Corvane
