#include "TestSupport.h"

#include <Fundel/Assert.h>
#include <Fundel/Log.h>

#ifndef _WIN32
#include <dirent.h>
#endif

namespace Qelvar::Test {

LogCapture::LogCapture(int level) : m_saved_level(Fundel::GetLogLevel())
{
    Fundel::SetLogSink([state = m_state](const Fundel::LogRecord& r) {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->records.push_back({r.level, r.module, r.path, r.function, r.line, r.message});
        state->cv.notify_all();
    });
    Fundel::SetLogLevel(level);
}

LogCapture::~LogCapture()
{
    Fundel::SetLogSink({});
    Fundel::SetLogLevel(m_saved_level);
}

std::vector<CapturedLog> LogCapture::Records() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->records;
}

int LogCapture::Count(std::string_view text) const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    int n = 0;
    for (const CapturedLog& r : m_state->records) {
        if (r.message.find(text) != std::string::npos) ++n;
    }
    return n;
}

bool LogCapture::Find(std::string_view text, CapturedLog* out) const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    for (const CapturedLog& r : m_state->records) {
        if (r.message.find(text) != std::string::npos) {
            if (out) *out = r;
            return true;
        }
    }
    return false;
}

bool LogCapture::WaitFor(std::string_view text, std::chrono::milliseconds timeout, int count) const
{
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->cv.wait_for(lock, timeout, [&] {
        int n = 0;
        for (const CapturedLog& r : m_state->records) {
            if (r.message.find(text) != std::string::npos) ++n;
        }
        return n >= count;
    });
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->records.clear();
}

AssertCapture::AssertCapture()
{
    Fundel::SetAssertHandler([this](const char* expr, const char*, int, const char*) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_exprs.emplace_back(expr);
    });
}

AssertCapture::~AssertCapture()
{
    Fundel::SetAssertHandler({});
}

std::vector<std::string> AssertCapture::Expressions() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_exprs;
}

int AssertCapture::Count(std::string_view expr) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const std::string& e : m_exprs) {
        if (e == expr) ++n;
    }
    return n;
}

int OpenFds()
{
#ifdef _WIN32
    return -1;
#else
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir)) ++count;
        closedir(dir);
    }
    return count;
#endif
}

}  // namespace Qelvar::Test
