// The library's log and assertion macros. The source path (".\Src\Core\NetThread") and
// the function name ("CNetThread::CreateThreadPool") of each call site are computed at
// compile time, so a log call costs one level check until its level is enabled.
#pragma once

#include <cstddef>

#include <Fundel/Assert.h>
#include <Fundel/Log.h>

namespace Qelvar::Fundel::detail {

template <std::size_t N>
struct FixedText {
    char text[N]{};
    constexpr const char* c_str() const { return text; }
};

constexpr bool starts_with(const char* s, std::size_t len, const char* prefix)
{
    std::size_t i = 0;
    for (; prefix[i] != '\0'; ++i) {
        if (i >= len || s[i] != prefix[i]) return false;
    }
    return true;
}

constexpr std::size_t text_length(const char* s)
{
    std::size_t n = 0;
    while (s[n] != '\0') ++n;
    return n;
}

/// "int Qelvar::Corvane::CNetThread::CreateThreadPool(unsigned int, bool)" ->
/// "CNetThread::CreateThreadPool"; lambdas report the function they are written in.
template <std::size_t N>
constexpr FixedText<N> function_name(const char (&pretty)[N])
{
    const std::size_t len = N - 1;
    // The parameter list opens at the first '(' outside template brackets.
    std::size_t open = len;
    int depth = 0;
    for (std::size_t i = 0; i < len; ++i) {
        const char c = pretty[i];
        if (c == '<') ++depth;
        else if (c == '>') --depth;
        else if (c == '(' && depth == 0) {
            if (i >= 8 && starts_with(pretty + i - 8, 8, "operator")) {
                ++i;  // "operator()": the first pair belongs to the name
                continue;
            }
            open = i;
            break;
        }
    }
    // The name starts after the last space outside template brackets (the return type).
    std::size_t begin = 0;
    depth = 0;
    for (std::size_t i = open; i > 0; --i) {
        const char c = pretty[i - 1];
        if (c == '>') ++depth;
        else if (c == '<') --depth;
        else if (c == ' ' && depth == 0) {
            begin = i;
            break;
        }
    }
    constexpr const char* prefixes[] = {"Qelvar::Corvane::", "Qelvar::Fundel::",
                                        "Qelvar::Platform::", "Qelvar::", "{anonymous}::"};
    bool stripped = true;
    while (stripped) {
        stripped = false;
        for (const char* p : prefixes) {
            const std::size_t plen = text_length(p);
            if (starts_with(pretty + begin, open - begin, p)) {
                begin += plen;
                stripped = true;
            }
        }
    }
    FixedText<N> out;
    for (std::size_t i = begin, o = 0; i < open; ++i, ++o) out.text[o] = pretty[i];
    return out;
}

/// "/home/x/corvane/Src/Core/NetThread.cpp" -> ".\Src\Core\NetThread".
template <std::size_t N>
constexpr FixedText<N + 2> source_path(const char (&file)[N])
{
    const std::size_t len = N - 1;
    // The path starts at the project's top folder: Src, else tests, examples, bench, fuzz.
    constexpr const char* roots[] = {"Src/", "tests/", "examples/", "bench/", "fuzz/"};
    std::size_t begin = 0;
    for (const char* root : roots) {
        for (std::size_t i = 0; i < len; ++i) {
            if (starts_with(file + i, len - i, root) && (i == 0 || file[i - 1] == '/')) begin = i;
        }
        if (begin != 0) break;
    }
    std::size_t end = len;
    for (std::size_t i = len; i > begin; --i) {
        if (file[i - 1] == '.') {
            end = i - 1;
            break;
        }
        if (file[i - 1] == '/') break;
    }
    FixedText<N + 2> out;
    out.text[0] = '.';
    out.text[1] = '\\';
    for (std::size_t i = begin, o = 2; i < end; ++i, ++o) out.text[o] = file[i] == '/' ? '\\' : file[i];
    return out;
}

}  // namespace Qelvar::Fundel::detail

/// Writes a printf-style log line for `module` when `level` is enabled.
#define FUNDEL_LOG_MODULE(module, level, ...)                                                          \
    do {                                                                                           \
        const int fundel_level_ = (level);                                                         \
        if (fundel_level_ <= ::Qelvar::Fundel::GetLogLevel()) {                                    \
            static constexpr auto fundel_fn_ =                                                     \
                ::Qelvar::Fundel::detail::function_name(__PRETTY_FUNCTION__);                      \
            static constexpr auto fundel_path_ = ::Qelvar::Fundel::detail::source_path(__FILE__);  \
            ::Qelvar::Fundel::logFilter(fundel_level_, module, fundel_path_.c_str(),               \
                                        fundel_fn_.c_str(), __LINE__, __VA_ARGS__);                \
        }                                                                                          \
    } while (0)

/// A log line under an explicit source path: for classes whose lines carry the path of
/// the file they once shared with another class.
#define FUNDEL_LOG_AT(module, path, level, ...)                                                    \
    do {                                                                                           \
        const int fundel_level_ = (level);                                                         \
        if (fundel_level_ <= ::Qelvar::Fundel::GetLogLevel()) {                                    \
            static constexpr auto fundel_fn_ =                                                     \
                ::Qelvar::Fundel::detail::function_name(__PRETTY_FUNCTION__);                      \
            ::Qelvar::Fundel::logFilter(fundel_level_, module, path, fundel_fn_.c_str(), __LINE__, \
                                        __VA_ARGS__);                                              \
        }                                                                                          \
    } while (0)

/// Log lines of the framework and of the base library.
#define CVN_LOG(level, ...) FUNDEL_LOG_MODULE("Corvane", level, __VA_ARGS__)
#define FDL_LOG(level, ...) FUNDEL_LOG_MODULE("Fundel", level, __VA_ARGS__)

/// Asserts `cond`, reporting `text` as the failed expression.
#define FUNDEL_ASSERT_TEXT(cond, text)                                                             \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            static constexpr auto fundel_fn_ =                                                     \
                ::Qelvar::Fundel::detail::function_name(__PRETTY_FUNCTION__);                      \
            static constexpr auto fundel_path_ = ::Qelvar::Fundel::detail::source_path(__FILE__);  \
            ::Qelvar::Fundel::assertFailed(text, fundel_path_.c_str(), __LINE__,                   \
                                           fundel_fn_.c_str());                                    \
        }                                                                                          \
    } while (0)

#define FUNDEL_ASSERT(cond) FUNDEL_ASSERT_TEXT(cond, #cond)
