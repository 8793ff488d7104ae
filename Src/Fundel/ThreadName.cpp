#include "Fundel/ThreadName.h"

#include <map>
#include <mutex>

#include "Platform/Thread.h"

namespace Qelvar::Fundel {

namespace {

std::mutex& names_mutex()
{
    static std::mutex m;
    return m;
}

std::map<std::uint64_t, std::string>& names()
{
    static auto* m = new std::map<std::uint64_t, std::string>;  // outlives late-ending threads
    return *m;
}

}  // namespace

void CThreadName::Set(const char* name)
{
    const std::uint64_t tid = Platform::thread_current_id();
    {
        std::lock_guard<std::mutex> lock(names_mutex());
        names()[tid] = name ? name : "";
    }
    Platform::thread_set_name(name ? name : "");
}

void CThreadName::Remove()
{
    const std::uint64_t tid = Platform::thread_current_id();
    std::lock_guard<std::mutex> lock(names_mutex());
    names().erase(tid);
}

std::string CThreadName::Get(std::uint64_t tid)
{
    std::lock_guard<std::mutex> lock(names_mutex());
    auto it = names().find(tid);
    return it == names().end() ? std::string() : it->second;
}

std::string CThreadName::Current()
{
    return Get(Platform::thread_current_id());
}

}  // namespace Qelvar::Fundel
