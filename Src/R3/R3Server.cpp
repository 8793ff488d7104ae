// The console's exported functions and CNetThread's switches for it.
#include <Corvane/R3.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <new>

#include <Corvane/NetThread.h>

#include "Core/ThreadPool.h"
#include "Fundel/LogDefs.h"
#include "R3/R3Daemon.h"
#include "R3/R3FuncBox.h"
#include "R3/R3Server.h"
#include "R3/R3TelnetSession.h"

namespace Qelvar::Corvane {

namespace {

// The daemon and the count of EnableR3 calls. Never held while a daemon stops: a command
// running on the console holds the session's locks and may call R3Printf, which needs
// this lock.
Fundel::CMutex g_mutex;
CR3Daemon* g_daemon = nullptr;
int g_enable_count = 0;
std::atomic<bool> g_enabled{false};
// Mirrors g_daemon != null, so R3Printf costs one load while no console runs.
std::atomic<bool> g_running{false};

// The session with a reference the caller drops; null without a daemon.
CR3TelnetSession* acquire_session()
{
    std::lock_guard<Fundel::CMutex> lock(g_mutex);
    return g_daemon ? g_daemon->AcquireSession() : nullptr;
}

}  // namespace

bool r3_output_state(unsigned int* queued, unsigned int* peak, unsigned int* capacity)
{
    CR3TelnetSession* session = acquire_session();
    if (!session) return false;
    const bool connected = session->GetOutputState(queued, peak, capacity);
    session->DecRef();
    return connected;
}

void CNetThread::SetR3Enabled(bool on)
{
    g_enabled.store(on);
}

int CNetThread::EnableR3(unsigned short port, const char* name)
{
    if (CreateThreadPool(0) != 0) {
        CVN_LOG(Fundel::LOG_ERROR, "R3ServerStart failed!!\n\n");
        return -1;
    }
    if (R3ServerStart(port, name, false) != 0) {
        CVN_LOG(Fundel::LOG_ERROR, "R3ServerStart failed!!\n\n");
        DestroyThreadPool();
        return -1;
    }
    std::lock_guard<Fundel::CMutex> lock(g_mutex);
    ++g_enable_count;
    return 0;
}

int CNetThread::DisableR3()
{
    {
        std::lock_guard<Fundel::CMutex> lock(g_mutex);
        if (g_enable_count == 0) {
            CVN_LOG(Fundel::LOG_WARN, "DisableR3 without EnableR3, nothing to stop!\n");
            return -1;
        }
        --g_enable_count;
    }
    R3ServerExit();
    DestroyThreadPool();
    return 0;
}

}  // namespace Qelvar::Corvane

using Qelvar::Corvane::CR3Daemon;
using Qelvar::Corvane::CR3FuncBox;
using Qelvar::Corvane::CR3TelnetSession;

int R3ServerStart(unsigned short port, const char* name, bool)
{
    using namespace Qelvar::Corvane;
    if (!g_enabled.load()) {
        CVN_LOG(Qelvar::Fundel::LOG_INFO, "R3 has been disable.\n");
        return -1;
    }
    std::lock_guard<Qelvar::Fundel::CMutex> lock(g_mutex);
    if (g_daemon) {
        CVN_LOG(Qelvar::Fundel::LOG_WARN, "R3Server is running @port[%d], call R3ServerExit first!\n",
                static_cast<int>(g_daemon->GetPort()));
        return -1;
    }
    if (!CThreadPool::exists(0)) {
        CVN_LOG(Qelvar::Fundel::LOG_WARN, "R3Server needs the public thread pool, create it first!\n");
        return -1;
    }
    auto* daemon = new (std::nothrow) CR3Daemon;
    if (!daemon) return -1;
    if (daemon->Start(port, name) != 0) {
        daemon->Stop();
        return -1;
    }
    g_daemon = daemon;
    g_running.store(true);
    return 0;
}

int R3ServerExit(void)
{
    using namespace Qelvar::Corvane;
    CR3Daemon* daemon;
    {
        std::lock_guard<Qelvar::Fundel::CMutex> lock(g_mutex);
        daemon = g_daemon;
        g_daemon = nullptr;
        g_running.store(false);
    }
    if (daemon) daemon->Stop();
    CR3FuncBox::Free();
    return 0;
}

unsigned short R3ServerPort(void)
{
    using namespace Qelvar::Corvane;
    std::lock_guard<Qelvar::Fundel::CMutex> lock(g_mutex);
    return g_daemon ? g_daemon->GetPort() : 0;
}

void R3Printf(const char* fmt, ...)
{
    using namespace Qelvar::Corvane;
    if (!fmt || !g_running.load(std::memory_order_relaxed)) return;
    CR3TelnetSession* session = acquire_session();
    if (!session) return;
    if (session->IsConnected()) {
        char text[4096];
        va_list args;
        va_start(args, fmt);
        const int n = std::vsnprintf(text, sizeof text, fmt, args);
        va_end(args);
        if (n >= 1 && n <= 4095) session->Write(text, static_cast<std::size_t>(n));
    }
    session->DecRef();
}

int R3Register(void* func, const char* name, const char* help)
{
    return CR3FuncBox::Register(reinterpret_cast<R3Function>(func), name, help);
}
