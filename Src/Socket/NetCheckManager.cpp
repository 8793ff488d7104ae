#include <Corvane/NetCheckManager.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include <Corvane/SockAddrStorage.h>

#include "Core/Message.h"
#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"
#include "Fundel/Timer.h"
#include "Socket/NetCheck.h"

namespace Qelvar::Corvane {

struct CNetCheckManager::SState {
    struct SSlot {
        bool busy = false;
        bool started = false;
        // Counts requests: a session of an earlier request reports into nothing.
        unsigned int generation = 0;
        unsigned short port = 0;
        unsigned long long timeout_ms = 0;
        ADDR_RECORD_ALL candidates{};
        std::vector<int> results;    ///< candidates whose connections completed
        std::vector<long> sessions;  ///< ids of the sessions started
        Fundel::CTimer timer;        ///< "NetCheckManager": starts the sessions
    };
    std::mutex mutex;
    SSlot slots[kSlots];
};

CNetCheckManager::CNetCheckManager() : m_state(new SState)
{
}

CNetCheckManager::~CNetCheckManager()
{
    delete m_state;
}

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
            std::lock_guard<std::mutex> lock(m_state->mutex);
            const std::vector<int>& results = m_state->slots[slot].results;
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
        std::lock_guard<std::mutex> lock(m_state->mutex);
        for (int i = 0; i < kSlots && index < 0; ++i) {
            if (!m_state->slots[i].busy) index = i;
        }
        if (index < 0) {
            CVN_LOG(Fundel::LOG_WARN, "FilterIP failed, there is no more resouce to deal the request!\n");
            return -1;
        }
        SState::SSlot& s = m_state->slots[index];
        s.results.clear();
        s.sessions.clear();
        s.busy = true;
        s.started = false;
        s.port = port;
        s.timeout_ms = timeout_ms;
        s.candidates = candidates;
        generation = ++s.generation;
    }
    SState::SSlot& s = m_state->slots[index];
    s.timer.Start("NetCheckManager", 0, false, [this, index, generation] { onTimer(index, generation); });
    return index;
}

void CNetCheckManager::onTimer(int slot, unsigned int generation)
{
    ADDR_RECORD_ALL candidates;
    unsigned short port;
    unsigned long long timeout_ms;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        const SState::SSlot& s = m_state->slots[slot];
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
            std::lock_guard<std::mutex> lock(m_state->mutex);
            current = m_state->slots[slot].generation == generation;
            if (current) m_state->slots[slot].sessions.push_back(id);
        }
        // The request ended while its sessions were being started.
        if (!current) CMessage::Notify(0, id, CNetCheck::kStop, 0, false);
    }
    std::lock_guard<std::mutex> lock(m_state->mutex);
    if (m_state->slots[slot].generation == generation) m_state->slots[slot].started = true;
}

void CNetCheckManager::report(int slot, unsigned int generation, int candidate)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    SState::SSlot& s = m_state->slots[slot];
    if (s.busy && s.generation == generation) s.results.push_back(candidate);
}

// Ends a request: the slot is free at once, and the sessions still connecting are told
// to stop (a late one reports into a later generation and is ignored).
void CNetCheckManager::release(int slot)
{
    std::vector<long> sessions;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        SState::SSlot& s = m_state->slots[slot];
        sessions.swap(s.sessions);
        ++s.generation;
    }
    // Joined before the slot is free: its next request restarts the timer.
    m_state->slots[slot].timer.Stop();
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->slots[slot].busy = false;
    }
    for (long id : sessions) CMessage::Notify(0, id, CNetCheck::kStop, 0, false);
}

}  // namespace Qelvar::Corvane
