#include "Core/SockTrace.h"

#include <mutex>
#include <set>

namespace Qelvar::Corvane {

std::atomic<bool> CSockTrace::sm_enabled{false};
std::atomic<int> CSockTrace::sm_level{Fundel::LOG_INFO};

namespace {

std::mutex g_mutex;
std::set<long long>* const g_traced = new std::set<long long>;  // outlives static destruction

}  // namespace

void CSockTrace::SetEnabled(bool on)
{
    sm_enabled.store(on, std::memory_order_relaxed);
}

void CSockTrace::Add(int fd)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_traced->insert(fd);
}

void CSockTrace::Remove(int fd)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_traced->erase(fd);
}

void CSockTrace::SetLevel(int level)
{
    sm_level.store(level, std::memory_order_relaxed);
}

bool CSockTrace::contains(long long fd)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_traced->count(fd) != 0;
}

}  // namespace Qelvar::Corvane
