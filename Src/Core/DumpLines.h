// CDumpLines: the lines of a diagnostic dump.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

namespace Qelvar::Corvane {

// Lines of a dump, gathered under the tables' locks and printed after they are
// released: the console's printer may register a socket itself, which takes them
// and the pool table's guards.
class CDumpLines {
public:
    void Add(const char* fmt, ...)
#if defined(__clang__)
        __attribute__((format(printf, 2, 3)))
#elif defined(__GNUC__)
        __attribute__((format(gnu_printf, 2, 3)))
#endif
    {
        char line[512];
        va_list args;
        va_start(args, fmt);
        std::vsnprintf(line, sizeof line, fmt, args);
        va_end(args);
        m_lines.emplace_back(line);
    }
    void PrintTo(void (*out)(const char* fmt, ...)) const
    {
        for (const std::string& line : m_lines) out("%s", line.c_str());
    }
    template <class F>
    void ForEach(F&& f) const
    {
        for (const std::string& line : m_lines) f(line.c_str());
    }

private:
    std::vector<std::string> m_lines;
};

}  // namespace Qelvar::Corvane
