#include "R3/R3TelnetInput.h"

#include <cstdlib>
#include <cstring>

namespace Qelvar::Corvane {

namespace {

constexpr unsigned char kIac = 255;
constexpr unsigned char kSb = 250;
constexpr unsigned char kSe = 240;
constexpr unsigned char kWill = 251;
constexpr unsigned char kDont = 254;
constexpr unsigned char kEsc = 27;
constexpr unsigned char kBs = 8;
constexpr unsigned char kDel = 127;
constexpr unsigned char kCr = 13;
constexpr unsigned int kMaxSubnegotiation = 100;

enum class EFilter { kData, kCommand, kOption, kSub, kSubIac };

// One filter for the process, not one per connection. That is enough because the
// console serves one connection at a time and its session feeds bytes under its input
// lock, so one thread at a time is here. The session resets it when a connection
// starts, so a sequence a dropped peer left open cannot eat the next peer's input.
EFilter g_filter = EFilter::kData;
unsigned int g_sub_bytes = 0;

bool is_separator(unsigned char c)
{
    return c < 32 || c == 127 || c == ' ';
}

// An optional "-" and at least one decimal digit, nothing else.
bool is_number(const char* word, std::size_t len)
{
    std::size_t i = word[0] == '-' ? 1 : 0;
    if (i == len) return false;
    for (; i < len; ++i) {
        if (word[i] < '0' || word[i] > '9') return false;
    }
    return true;
}

int to_int(const char* word, std::size_t len)
{
    if (!is_number(word, len)) return CR3TelnetInput::kNotANumber;
    const std::string text(word, len);
    return static_cast<int>(std::strtoll(text.c_str(), nullptr, 10));
}

}  // namespace

void CR3TelnetInput::ResetFilter()
{
    g_filter = EFilter::kData;
    g_sub_bytes = 0;
}

bool CR3TelnetInput::filter(unsigned char c)
{
    switch (g_filter) {
    case EFilter::kData:
        if (c != kIac) return true;
        g_filter = EFilter::kCommand;
        return false;
    case EFilter::kCommand:
        if (c >= kWill && c <= kDont) {
            g_filter = EFilter::kOption;
        } else if (c == kSb) {
            g_filter = EFilter::kSub;
            g_sub_bytes = 0;
        } else {
            g_filter = EFilter::kData;
        }
        return false;
    case EFilter::kOption:
        g_filter = EFilter::kData;
        return false;
    case EFilter::kSub:
    case EFilter::kSubIac:
        ++g_sub_bytes;
        if (g_filter == EFilter::kSubIac && c == kSe) g_filter = EFilter::kData;
        else if (g_sub_bytes >= kMaxSubnegotiation) g_filter = EFilter::kData;
        else g_filter = c == kIac ? EFilter::kSubIac : EFilter::kSub;
        return false;
    }
    return false;
}

bool CR3TelnetInput::edit(unsigned char c, std::string& echo)
{
    if (m_escape) {
        // The byte after ESC, then digits; the first other byte ends it. All dropped.
        if (!m_escape_lead) m_escape_lead = true;
        else if (c < '0' || c > '9') m_escape = false;
        return false;
    }
    if (c == kEsc) {
        m_escape = true;
        m_escape_lead = false;
        return false;
    }
    if (c == kCr) {
        echo += "\r\n";
        return true;
    }
    if (c == kBs || c == kDel) {
        if (m_length > 0) {
            echo += "\b \b";
            m_line[--m_length] = '\0';
        }
        return false;
    }
    if (c >= 32 && c <= 126 && m_length < kMaxLine) {
        echo += static_cast<char>(c);
        m_line[m_length++] = static_cast<char>(c);
        m_line[m_length] = '\0';
    }
    return false;
}

std::size_t CR3TelnetInput::Feed(const unsigned char* data, std::size_t len, std::string& echo, ER3Input& event)
{
    event = ER3Input::kMore;
    if (m_ended) {
        m_ended = false;
        m_length = 0;
        m_line[0] = '\0';
    }
    for (std::size_t i = 0; i < len; ++i) {
        if (!filter(data[i]) || !edit(data[i], echo)) continue;
        m_ended = true;
        event = std::strcmp(m_line, "bye") == 0 ? ER3Input::kBye : ER3Input::kLine;
        return i + 1;
    }
    return len;
}

void CR3TelnetInput::Reset()
{
    m_length = 0;
    m_line[0] = '\0';
    m_ended = false;
    m_escape = false;
    m_escape_lead = false;
}

SR3Command CR3TelnetInput::Split(const char* line, std::size_t len)
{
    SR3Command command;
    bool first = true;
    std::size_t i = 0;
    while (i < len && command.count < SR3Command::kMaxArgs) {
        while (i < len && is_separator(static_cast<unsigned char>(line[i]))) ++i;
        const std::size_t begin = i;
        while (i < len && !is_separator(static_cast<unsigned char>(line[i]))) ++i;
        if (i == begin) break;
        if (first) command.name.assign(line + begin, i - begin);
        else command.args[command.count++] = to_int(line + begin, i - begin);
        first = false;
    }
    return command;
}

}  // namespace Qelvar::Corvane
