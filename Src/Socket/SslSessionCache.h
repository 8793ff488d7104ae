// CSslSessionCache: the process-wide stores of TLS client sessions.
#pragma once

#include <openssl/ssl.h>

#include <map>
#include <mutex>
#include <string>

namespace Qelvar::Corvane {

/// Client sessions by key ("address:port" or "#id"), so that a later connection to the
/// same peer, or with the same id, resumes the session. Two caches exist per process;
/// a client's session flags choose one. Every operation holds the cache's mutex.
class CSslSessionCache {
public:
    /// The cache chosen by bit 0 of the session flags (set: the first).
    static CSslSessionCache& ForFlags(int session_flags);

    CSslSessionCache() = default;
    ~CSslSessionCache();
    CSslSessionCache(const CSslSessionCache&) = delete;
    CSslSessionCache& operator=(const CSslSessionCache&) = delete;

    /// The session under `key` with one more reference (the caller releases it), or null.
    SSL_SESSION* Lookup(const std::string& key);
    /// Keeps `session` (taking over the caller's reference) under `key`, releasing an
    /// older entry there; first drops every expired session.
    void Store(const std::string& key, SSL_SESSION* session);
    /// A new session id: 1, 2, ... and never 0.
    unsigned int NewId();

private:
    void sweep(long now);

    std::mutex m_mutex;
    std::map<std::string, SSL_SESSION*> m_sessions;
    unsigned int m_next_id = 0;
};

}  // namespace Qelvar::Corvane
