#include "Socket/SslSessionCache.h"

#include <ctime>

#include "Socket/SslOptions.h"

namespace Qelvar::Corvane {

CSslSessionCache& CSslSessionCache::ForFlags(int session_flags)
{
    static CSslSessionCache first;
    static CSslSessionCache second;
    return (session_flags & SSL_SESSION_FIRST_CACHE) ? first : second;
}

CSslSessionCache::~CSslSessionCache()
{
    for (auto& entry : m_sessions) SSL_SESSION_free(entry.second);
}

SSL_SESSION* CSslSessionCache::Lookup(const std::string& key)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_sessions.find(key);
    if (it == m_sessions.end()) return nullptr;
    SSL_SESSION_up_ref(it->second);
    return it->second;
}

void CSslSessionCache::Store(const std::string& key, SSL_SESSION* session)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    sweep(static_cast<long>(std::time(nullptr)));
    auto [it, added] = m_sessions.emplace(key, session);
    if (!added) {
        SSL_SESSION_free(it->second);
        it->second = session;
    }
}

unsigned int CSslSessionCache::NewId()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (++m_next_id == 0) ++m_next_id;
    return m_next_id;
}

// A session is dropped once its lifetime (issue time plus the time-out the server
// granted) has passed: a server would no longer resume it.
void CSslSessionCache::sweep(long now)
{
    for (auto it = m_sessions.begin(); it != m_sessions.end();) {
        SSL_SESSION* s = it->second;
        if (SSL_SESSION_get_time(s) + SSL_SESSION_get_timeout(s) < now) {
            SSL_SESSION_free(s);
            it = m_sessions.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace Qelvar::Corvane
