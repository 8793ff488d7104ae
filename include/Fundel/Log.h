// Logging of the base library: every diagnostic of Corvane goes through logFilter.
#pragma once

#include <functional>

#include <Fundel/Export.h>

namespace Qelvar::Fundel {

/// Log levels: lower is more severe.
enum LogLevel : int {
    LOG_FATAL = 1,
    LOG_ERROR = 2,
    LOG_WARN = 3,
    LOG_INFO = 4,
    LOG_TRACE = 5,
    LOG_DEBUG = 6,
};

/// One log entry as handed to the sink. The pointers are valid only during the call.
struct LogRecord {
    int level;
    const char* module;    ///< "Corvane", "Fundel", ...
    const char* path;      ///< source path of the writer, such as ".\Src\Core\NetThread"
    const char* function;  ///< "Class::Method"
    int line;
    const char* message;   ///< the formatted text, as written (usually ends with '\n')
};

/// Replaces the sink that receives every record at or below the log level.
/// An empty function restores the default sink, which writes one line per record to
/// stderr. The sink may be called from any thread, concurrently.
FUNDEL_API void SetLogSink(std::function<void(const LogRecord&)> sink);

/// Records with a level above max_level are dropped. The default is 3 (Warn).
FUNDEL_API void SetLogLevel(int max_level);

/// The current maximum level.
FUNDEL_API int GetLogLevel();

/// Formats a printf-style message and hands it to the sink when level <= GetLogLevel().
FUNDEL_API void logFilter(int level, const char* module, const char* path, const char* function,
                          int line, const char* fmt, ...)
#if defined(__clang__)
    __attribute__((format(printf, 6, 7)))
#elif defined(__GNUC__)
    __attribute__((format(gnu_printf, 6, 7)))
#endif
    ;

}  // namespace Qelvar::Fundel
