#include "Socket/NetCheckManager.h"

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

CNetCheckManager& CNetCheckManager::Instance()
{
    static CNetCheckManager* instance = new CNetCheckManager;
    return *instance;
}

bool CNetCheckManager::FilterIP(const ADDR_RECORD_ALL& candidates, ADDR_RECORD& out, unsigned short, int socktype,
                                unsigned long long)
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
    // Several stream candidates are to be raced with non-blocking connects, the first to
    // complete winning; until that race exists the caller's priority rule chooses.
    return false;
}

}  // namespace Qelvar::Corvane
