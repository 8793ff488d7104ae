#include "Socket/NetCheckManager.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include <Corvane/SockAddrStorage.h>

#include "Core/Message.h"
#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"
#include "Socket/NetCheck.h"

namespace Qelvar::Corvane {

CNetCheckManager& CNetCheckManager::Instance()
{
    static CNetCheckManager* instance = new CNetCheckManager;
    return *instance;
}

bool CNetCheckManager::FilterIP(const ADDR_RECORD_ALL& candidates, ADDR_RECORD& out, unsigned short port, int socktype,
                                unsigned long long timeout_ms)
{
    out = ADDR_RECORD{};
    if (candidates.count < 1) {
        CVN_LOG(Fundel::LOG_WARN, "%s : FilterIP failed! Invalid parameter, numRecords:%d\n",
                "CNetCheckManager::FilterIP", static_cast<int>(candidates.count));
        return false;
    }
    if (candidates.count == 1 || socktype != ADDR_SOCK_STREAM) {
        out = candidates.records[0];
        return true;
    }
    if (!CThreadPool::exists(0)) {
        // The connections run on the reactor; without it the caller's rule chooses.
        CVN_LOG(Fundel::LOG_WARN, "CNetCheckManager::FilterIP, no thread pool to race the connections\n");
        return false;
    }
    const int slot = addRequest(candidates, port, timeout_ms);
    if (slot < 0) return false;

    const auto start = Fundel::CTime::getCurrentMilliSecond();
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            const std::vector<int>& results = m_slots[slot].results;
            if (!results.empty()) {
                out = candidates.records[*std::min_element(results.begin(), results.end())];
                break;
            }
        }
        if (timeout_ms != 0 &&
            static_cast<unsigned long long>(Fundel::CTime::getCurrentMilliSecond() - start) >= timeout_ms) {
            release(slot);
            CVN_LOG(Fundel::LOG_WARN, "FilterIP failed, request timeout!\n");
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    release(slot);
    return true;
}

int CNetCheckManager::addRequest(const ADDR_RECORD_ALL& candidates, unsigned short port,
                                 unsigned long long timeout_ms)
{
    int index = -1;
    unsigned int generation = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (int i = 0; i < kSlots && index < 0; ++i) {
            if (!m_slots[i].busy) index = i;
        }
        if (index < 0) {
            CVN_LOG(Fundel::LOG_WARN, "FilterIP failed, there is no more resouce to deal the request!\n");
            return -1;
        }
        SSlot& s = m_slots[index];
        s.results.clear();
        s.sessions.clear();
        s.busy = true;
        s.started = false;
        s.port = port;
        s.timeout_ms = timeout_ms;
        s.candidates = candidates;
        generation = ++s.generation;
    }
    SSlot& s = m_slots[index];
    s.timer.Start("NetCheckManager", 0, false, [this, index, generation] { onTimer(index, generation); });
    return index;
}

void CNetCheckManager::onTimer(int slot, unsigned int generation)
{
    ADDR_RECORD_ALL candidates;
    unsigned short port;
    unsigned long long timeout_ms;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const SSlot& s = m_slots[slot];
        if (!s.busy || s.generation != generation) return;  // the request is over already
        candidates = s.candidates;
        port = s.port;
        timeout_ms = s.timeout_ms;
    }
    for (int i = 0; i < candidates.count && i < ADDR_RECORD_MAX; ++i) {
        auto* session = new CNetCheck(slot, generation, i);
        const long id = session->GetID();
        const CSockAddrStorage address(candidates.records[i].addr, port);
        // Held across the start: a session that fails closes itself, and must not be
        // released while StartSession still runs.
        session->AddRef();
        const int started = session->StartSession(&address, timeout_ms);
        session->DecRef();
        if (started != 0) {
            CVN_LOG(Fundel::LOG_WARN, "CNetCheckManager::FilterIP StartSession failed, ip:%s!\n",
                    candidates.records[i].addr);
            continue;
        }
        bool current;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            current = m_slots[slot].generation == generation;
            if (current) m_slots[slot].sessions.push_back(id);
        }
        // The request ended while its sessions were being started.
        if (!current) CMessage::Notify(0, id, CNetCheck::kStop, 0, false);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_slots[slot].generation == generation) m_slots[slot].started = true;
}

void CNetCheckManager::report(int slot, unsigned int generation, int candidate)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    SSlot& s = m_slots[slot];
    if (s.busy && s.generation == generation) s.results.push_back(candidate);
}

// Ends a request: the slot is free at once, and the sessions still connecting are told
// to stop (a late one reports into a later generation and is ignored).
void CNetCheckManager::release(int slot)
{
    std::vector<long> sessions;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        SSlot& s = m_slots[slot];
        sessions.swap(s.sessions);
        ++s.generation;
    }
    // Joined before the slot is free: its next request restarts the timer.
    m_slots[slot].timer.Stop();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_slots[slot].busy = false;
    }
    for (long id : sessions) CMessage::Notify(0, id, CNetCheck::kStop, 0, false);
}

}  // namespace Qelvar::Corvane
