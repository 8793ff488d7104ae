#include "Socket/NetCheck.h"

#include <Corvane/NetCheckManager.h>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

CNetCheck::CNetCheck(int slot, unsigned int generation, int candidate)
    : CNetHandler(0), m_slot(slot), m_generation(generation), m_candidate(candidate)
{
}

int CNetCheck::StartSession(const CSockAddr* address, unsigned long long timeout_ms)
{
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (!address) {
        CVN_LOG(Fundel::LOG_WARN, "CNetCheck::StartSession failed, request :%p!\n", static_cast<const void*>(address));
        end();
        return -1;
    }
    if (m_stream.Connect(*address, nullptr) != 0) {
        CVN_LOG(Fundel::LOG_WARN, "CNetCheck::Connect failed!\n");
        end();
        return -1;
    }
    const unsigned long long us = timeout_ms * 1000;
    const int time_out = us > 0x7fffffffULL ? 0x7fffffff : static_cast<int>(us);
    if (RegisterSock(m_stream, MASK_WRITE, time_out) != 0) {
        end();
        return -1;
    }
    return 0;
}

int CNetCheck::handle_output(int fd)
{
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (fd != m_stream.GetHandle() || m_ended) return -1;
    if (m_stream.GetConnectStatus() == 0) {
        CNetCheckManager::Instance().report(m_slot, m_generation, m_candidate);
    } else {
        CVN_LOG(Fundel::LOG_WARN, "CNetCheck:: handle_output Connect failed!\n");
    }
    return end();
}

int CNetCheck::handle_output_timeout(int)
{
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (!m_ended) CVN_LOG(Fundel::LOG_WARN, "CNetCheck::Connection is timeout!\n");
    return end();
}

int CNetCheck::handle_exception(int)
{
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (!m_ended) CVN_LOG(Fundel::LOG_WARN, "CNetCheck::Connection is exception!\n");
    return end();
}

int CNetCheck::handle_message(long, unsigned int type, long)
{
    if (type == kStop) end();
    return 0;
}

int CNetCheck::end()
{
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (!m_ended) {
        m_ended = true;
        RemoveSock(m_stream);
        m_stream.Close();
        Close();
    }
    return -1;
}

int CNetCheck::handle_close(CNetHandler*)
{
    delete this;
    return 0;
}

}  // namespace Qelvar::Corvane
