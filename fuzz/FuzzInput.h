// What every address fuzz target does first: read its parameters off the front of the
// input, and answer the resolver's lookups from a small table that the input chooses,
// so no run asks the system and every run is quick and repeatable.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <Fundel/Log.h>

#include "Platform/SockTypes.h"
#include "Platform/Socket.h"
#include "Socket/GetHostByName.h"

namespace Qelvar::Fuzz {

/// The parameters in front of the text, and the text itself, NUL-terminated.
struct SInput {
    unsigned int answer = 0;    // which table row the resolver answers with
    bool ignore_family = false;  // answer every family, whatever the hint asked
    unsigned short port = 0;
    int socktype = 0;  // -2 .. 3: the taken ones and a refused one either side
    int priority = 0;  // -1 .. 3
    unsigned int length = 0;  // a buffer length for GetIpStr, 0 .. 63
    std::vector<unsigned char> raw;  // the rest of the input as it came (for structures)
    std::string text;                // the rest up to its first NUL
};

inline constexpr std::size_t HEADER_BYTES = 6;

inline SInput parse(const std::uint8_t* data, std::size_t size)
{
    std::uint8_t header[HEADER_BYTES] = {};
    std::memcpy(header, data, size < HEADER_BYTES ? size : HEADER_BYTES);
    SInput in;
    in.answer = header[0] & 0x07;
    in.ignore_family = (header[0] & 0x08) != 0;
    in.port = static_cast<unsigned short>(header[1] << 8 | header[2]);
    in.socktype = header[3] % 6 - 2;
    in.priority = header[4] % 5 - 1;
    in.length = header[5] % 64;
    if (size > HEADER_BYTES) in.raw.assign(data + HEADER_BYTES, data + size);
    const std::size_t end = std::find(in.raw.begin(), in.raw.end(), 0) - in.raw.begin();
    in.text.assign(in.raw.begin(), in.raw.begin() + static_cast<std::ptrdiff_t>(end));
    return in;
}

// The table row the next lookups answer with; set before each input runs.
inline std::atomic<unsigned int> g_answer{0};
inline std::atomic<bool> g_ignore_family{false};

inline int table_lookup(const char*, int family, int, Platform::SResolvedAddr* out, int max, int* count, int* found)
{
    static const std::vector<std::vector<const char*>> rows = {
        {},  // the name is unknown
        {"10.0.0.1"},
        {"2001:db8::1"},
        {"2001:db8::1", "10.0.0.1", "10.0.0.2"},
        {"10.0.0.7", "10.0.0.8"},
        {"fe80::1", "fe80::2"},
        {"10.0.0.1", "2001:db8::1", "10.0.0.2", "2001:db8::2", "10.0.0.3", "2001:db8::3", "10.0.0.4",
         "2001:db8::4", "10.0.0.5", "2001:db8::5", "10.0.0.6", "2001:db8::6"},
        {"::ffff:10.1.2.3", "::"},
    };
    const std::vector<const char*>& row = rows[g_answer.load() % rows.size()];
    *count = 0;
    *found = 0;
    for (const char* text : row) {
        Platform::SResolvedAddr a{};
        a.family = std::strchr(text, ':') ? AF_INET6 : AF_INET;
        if (!g_ignore_family.load() && family != AF_UNSPEC && a.family != family) continue;
        Platform::addr_from_text(a.family, text, a.address);
        ++*found;
        if (*count < max) out[(*count)++] = a;
    }
    return *found > 0 ? 0 : EAI_NONAME;
}

/// Per input: its parameters and text, and the table row the resolver answers with.
inline SInput start(const std::uint8_t* data, std::size_t size)
{
    SInput in = parse(data, size);
    g_answer.store(in.answer);
    g_ignore_family.store(in.ignore_family);
    return in;
}

/// How long SetDomainName may wait: the table answers at once.
inline constexpr unsigned long long TIMEOUT_MS = 2000;

}  // namespace Qelvar::Fuzz

// Once per process, before the first input: the table resolver, and every log line
// formatted but dropped. Each target is one file that includes this header.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Qelvar::Corvane::CGetHostByName::SetResolverForTest(Qelvar::Fuzz::table_lookup);
    Qelvar::Fundel::SetLogSink([](const Qelvar::Fundel::LogRecord&) {});
    Qelvar::Fundel::SetLogLevel(Qelvar::Fundel::LOG_DEBUG);
    return 0;
}
