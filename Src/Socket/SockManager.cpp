#include "Socket/SockManager.h"

#include <Corvane/NetThread.h>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

CSockManager& CSockManager::Instance()
{
    // Never destroyed: sockets of static objects may still leave it during exit.
    static CSockManager* instance = new CSockManager;
    return *instance;
}

void CSockManager::insertValueByFD(int fd, const SocketStatusPtr& status)
{
    std::lock_guard<std::mutex> lock(m_fd_mutex);
    auto [it, added] = m_fd_status.emplace(fd, status);
    if (!added) {
        CVN_LOG(Fundel::LOG_WARN, "%s : The key value already exists in the MapFdStatus! sockfd :%d\n",
                "CSockManager::insertValueByFD", fd);
        it->second = status;
    }
}

void CSockManager::insertValueBySock(const CSock* sock, const SocketStatusPtr& status)
{
    std::unique_lock<std::shared_mutex> lock(m_sock_lock);
    auto [it, added] = m_sock_status.emplace(sock, status);
    if (!added) {
        CVN_LOG(Fundel::LOG_WARN, "%s : The key value already exists in the MapSockStatus! Socket: %p, sockfd :%d\n",
                "CSockManager::insertValueBySock", static_cast<const void*>(sock),
                it->second ? it->second->GetFd() : -1);
        it->second = status;
    }
}

void CSockManager::insertValueByListenFD(int fd, const ListenSocketStatusPtr& status)
{
    std::unique_lock<std::shared_mutex> lock(m_listen_lock);
    auto [it, added] = m_listen_status.emplace(fd, status);
    if (!added) {
        CVN_LOG(Fundel::LOG_WARN, "%s : The key value already exists in the MapListenFdStatus! sockfd :%d\n",
                "CSockManager::insertValueByListenFD", fd);
        it->second = status;
    }
}

int CSockManager::findValueByFD(int fd, SocketStatusPtr& out)
{
    std::lock_guard<std::mutex> lock(m_fd_mutex);
    auto it = m_fd_status.find(fd);
    if (it == m_fd_status.end()) return -1;
    if (!it->second) {
        CVN_LOG(Fundel::LOG_WARN, "%s : fdStatus is NULL! sockfd :%d\n", "CSockManager::findValueByFD", fd);
        return -1;
    }
    out = it->second;
    return 0;
}

int CSockManager::findValueBySock(const CSock* sock, SocketStatusPtr& out)
{
    std::shared_lock<std::shared_mutex> lock(m_sock_lock);
    auto it = m_sock_status.find(sock);
    if (it == m_sock_status.end()) return -1;
    if (!it->second) {
        CVN_LOG(Fundel::LOG_TRACE, "%s : sockStatus is NULL! Socket: %p, sockfd :%d\n", "CSockManager::findValueBySock",
                static_cast<const void*>(sock), -1);
        return -1;
    }
    out = it->second;
    return 0;
}

int CSockManager::findValueByListenFD(int fd, ListenSocketStatusPtr& out)
{
    std::shared_lock<std::shared_mutex> lock(m_listen_lock);
    auto it = m_listen_status.find(fd);
    if (it == m_listen_status.end()) return -1;
    if (!it->second) {
        CVN_LOG(Fundel::LOG_WARN, "%s : ListenSocketStatus is NULL! sockfd :%d\n", "CSockManager::findValueByListenFD",
                fd);
        return -1;
    }
    out = it->second;
    return 0;
}

void CSockManager::bindSock(const CSock* sock, const SocketStatusPtr& status)
{
    std::unique_lock<std::shared_mutex> lock(m_sock_lock);
    m_sock_status[sock] = status;
}

void CSockManager::removeSock(const CSock* sock)
{
    std::unique_lock<std::shared_mutex> lock(m_sock_lock);
    m_sock_status.erase(sock);
}

void CSockManager::removeFD(int fd)
{
    std::lock_guard<std::mutex> lock(m_fd_mutex);
    m_fd_status.erase(fd);
}

void CSockManager::removeListenFD(int fd)
{
    std::unique_lock<std::shared_mutex> lock(m_listen_lock);
    m_listen_status.erase(fd);
}

void CSockManager::dealTheInfo(const ListenSocketStatusPtr& status)
{
    if (!status) return;
    CListenSocketStatus& s = *status;
    if (s.m_b >= s.m_a && s.m_c >= s.m_b) {
        CVN_LOG(Fundel::LOG_WARN, "The listen fd: %d maybe not accept in time, the rxq is :%d\n", s.GetFd(),
                s.m_c.load());
        s.m_reported = true;
        CNetThread::DumpSockEvent(s.GetFd());
    }
    if (s.m_reported && s.m_c < s.m_b) {
        s.m_a = -1;
        s.m_b = -1;
        s.m_reported = false;
    }
}

}  // namespace Qelvar::Corvane
