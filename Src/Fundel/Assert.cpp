#include <Fundel/Assert.h>
#include <Fundel/Log.h>

#include <cstdlib>
#include <memory>
#include <mutex>

namespace Qelvar::Fundel {

namespace {

std::mutex g_handler_mutex;
std::shared_ptr<const AssertHandler> g_handler;

}  // namespace

void SetAssertHandler(AssertHandler handler)
{
    std::shared_ptr<const AssertHandler> next;
    if (handler) next = std::make_shared<const AssertHandler>(std::move(handler));
    std::lock_guard<std::mutex> lock(g_handler_mutex);
    g_handler.swap(next);
}

void assertFailed(const char* expr, const char* file, int line, const char* function)
{
    std::shared_ptr<const AssertHandler> handler;
    {
        std::lock_guard<std::mutex> lock(g_handler_mutex);
        handler = g_handler;
    }
    if (handler) {
        (*handler)(expr, file, line, function);
        return;
    }
    logFilter(LOG_FATAL, "Fundel", file, function, line, "Assertion failed: %s\n", expr);
    std::abort();
}

}  // namespace Qelvar::Fundel
