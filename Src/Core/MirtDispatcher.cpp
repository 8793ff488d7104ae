#include "Core/MirtDispatcher.h"

#include "Fundel/LogDefs.h"
#include "Mirt/Mirt.h"

namespace Qelvar::Corvane {

bool CMirtDispatcher::owns(long long fd)
{
    return fd >= Mirt::getsockidbase();
}

int CMirtDispatcher::Add(SEvent* ev)
{
    CVN_LOG(Fundel::LOG_WARN, "CMirtDispatcher: no reliable-UDP transport in this build, socket:%lld\n",
            static_cast<long long>(ev->m_key));
    return -1;
}

int CMirtDispatcher::Modify(SEvent* ev)
{
    return Add(ev);
}

void CMirtDispatcher::Remove(SEvent*)
{
}

}  // namespace Qelvar::Corvane
