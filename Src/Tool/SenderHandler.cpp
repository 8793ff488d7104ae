#include "Tool/SenderHandler.h"

#include <Corvane/MediaBuffer.h>

#include <mutex>
#include <vector>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

namespace {

// The registered buffers and the handler, under one lock that a tick holds while it
// calls the buffers: whoever unregisters waits for the tick to end.
std::mutex g_mutex;
std::vector<CMediaBuffer*> g_sender_list;
CSenderHandler* g_handler = nullptr;

}  // namespace

int CSenderHandler::Register(CMediaBuffer* buffer, std::uint64_t period_ms)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_handler) {
        FUNDEL_ASSERT_TEXT(g_sender_list.empty(), "m_sender_list.empty()");
        auto* handler = new CSenderHandler();
        if (handler->GetID() == 0 || handler->SetTimer(static_cast<long long>(period_ms) * 1000) == -1) {
            handler->Close();
            return -1;
        }
        g_handler = handler;
    }
    g_sender_list.push_back(buffer);
    return 0;
}

void CSenderHandler::Unregister(CMediaBuffer* buffer)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    std::erase(g_sender_list, buffer);
    if (g_sender_list.empty() && g_handler) {
        g_handler->Close();
        g_handler = nullptr;
    }
}

long long CSenderHandler::handle_timeout(long)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    // A handler closed while this tick waited for the lock has no buffers of its own.
    if (g_handler != this) return -1;
    for (CMediaBuffer* buffer : g_sender_list) buffer->do_send();
    return 0;
}

int CSenderHandler::handle_close(CNetHandler*)
{
    delete this;
    return 0;
}

}  // namespace Qelvar::Corvane
