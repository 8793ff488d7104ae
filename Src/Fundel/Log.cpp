#include <Fundel/Log.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

namespace Qelvar::Fundel {

namespace {

using Sink = std::function<void(const LogRecord&)>;

std::atomic<int> g_level{LOG_WARN};

// The sink is swapped under a mutex and called through a shared copy, so a sink may
// log itself and SetLogSink never waits for a running sink.
std::mutex g_sink_mutex;
std::shared_ptr<const Sink> g_sink;

const char* level_name(int level)
{
    static const char* const names[] = {"?", "FATAL", "ERROR", "WARN", "INFO", "TRACE", "DEBUG"};
    return level >= 1 && level <= 6 ? names[level] : names[0];
}

void default_sink(const LogRecord& r)
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t secs = std::chrono::system_clock::to_time_t(now);
    const long ms = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    std::tm tm{};
#if defined(_WIN32)
    localtime_s(&tm, &secs);
#else
    localtime_r(&secs, &tm);
#endif
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
    // One line per record: the message's own line ends are dropped.
    std::string msg(r.message);
    while (!msg.empty() && (msg.back() == '\n' || msg.back() == '\r')) msg.pop_back();
    std::fprintf(stderr, "%s.%03ld %-5s %s %s %s:%d %s\n", stamp, ms, level_name(r.level), r.module,
                 r.path, r.function, r.line, msg.c_str());
}

}  // namespace

void SetLogSink(std::function<void(const LogRecord&)> sink)
{
    std::shared_ptr<const Sink> next;
    if (sink) next = std::make_shared<const Sink>(std::move(sink));
    std::lock_guard<std::mutex> lock(g_sink_mutex);
    g_sink.swap(next);
}

void SetLogLevel(int max_level)
{
    g_level.store(max_level, std::memory_order_relaxed);
}

int GetLogLevel()
{
    return g_level.load(std::memory_order_relaxed);
}

void logFilter(int level, const char* module, const char* path, const char* function, int line,
               const char* fmt, ...)
{
    if (level > GetLogLevel()) return;

    char small[1024];
    std::string large;
    const char* text = small;
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(small, sizeof small, fmt, args);
    va_end(args);
    if (n >= static_cast<int>(sizeof small)) {
        large.resize(static_cast<std::size_t>(n) + 1);
        std::vsnprintf(large.data(), large.size(), fmt, again);
        text = large.c_str();
    } else if (n < 0) {
        text = fmt;
    }
    va_end(again);

    const LogRecord record{level, module ? module : "", path ? path : "", function ? function : "", line,
                           text};
    std::shared_ptr<const Sink> sink;
    {
        std::lock_guard<std::mutex> lock(g_sink_mutex);
        sink = g_sink;
    }
    if (sink) (*sink)(record);
    else default_sink(record);
}

}  // namespace Qelvar::Fundel
