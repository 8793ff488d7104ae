// The console's input path on arbitrary bytes: split into reads where the input says,
// through the telnet filter, the line editor and the command splitter, as the session
// does with its 1024-byte buffer. Checks that the echo mirrors the line exactly.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "R3/R3TelnetInput.h"

using Qelvar::Corvane::CR3TelnetInput;
using Qelvar::Corvane::ER3Input;
using Qelvar::Corvane::SR3Command;

namespace {

void check(bool ok)
{
    if (!ok) std::abort();
}

bool is_separator(unsigned char c)
{
    return c < 32 || c == 127 || c == ' ';
}

void check_command(const SR3Command& command)
{
    check(command.count >= 0 && command.count <= SR3Command::kMaxArgs);
    for (char c : command.name) check(!is_separator(static_cast<unsigned char>(c)));
    for (int i = command.count; i < SR3Command::kMaxArgs; ++i) check(command.args[i] == 0);
}

// Replays `echo` on `line` as a terminal would: printable bytes append, "\b \b" erases,
// "\r\n" ends the line (only as the last thing echoed). Aborts on any other byte.
void replay(const std::string& echo, std::string& line, bool ended)
{
    std::size_t i = 0;
    while (i < echo.size()) {
        const unsigned char c = static_cast<unsigned char>(echo[i]);
        if (c >= 32 && c <= 126) {
            line += static_cast<char>(c);
            ++i;
        } else if (echo.compare(i, 3, "\b \b") == 0) {
            check(!line.empty());
            line.pop_back();
            i += 3;
        } else {
            check(ended && echo.compare(i, 2, "\r\n") == 0 && i + 2 == echo.size());
            i += 2;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Every input starts as a new connection does.
    CR3TelnetInput::ResetFilter();
    CR3TelnetInput input;
    unsigned char buf[1024];
    std::size_t fill = 0;
    std::string model;  // the line as the echo showed it
    std::size_t pos = 0;
    while (pos < size) {
        // One read: its length is the next byte (plus one), within the free space.
        std::size_t n = static_cast<std::size_t>(data[pos++]) + 1;
        n = std::min({n, sizeof buf - fill, size - pos});
        std::memcpy(buf + fill, data + pos, n);
        fill += n;
        pos += n;

        std::size_t used = 0;
        while (used < fill) {
            std::string echo;
            ER3Input event;
            const std::size_t k = input.Feed(buf + used, fill - used, echo, event);
            check(k >= 1 && k <= fill - used);
            used += k;
            const bool ended = event != ER3Input::kMore;
            replay(echo, model, ended);
            check(input.LineLength() <= CR3TelnetInput::kMaxLine);
            check(std::strlen(input.Line()) == input.LineLength());
            check(model == input.Line());
            if (!ended) continue;
            model.clear();
            if (event == ER3Input::kBye) {
                check(std::strcmp(input.Line(), "bye") == 0);
                // The session drops the connection: the rest of the buffer goes with it.
                input.Reset();
                CR3TelnetInput::ResetFilter();
                used = fill;
                break;
            }
            check_command(CR3TelnetInput::Split(input.Line(), input.LineLength()));
        }
        fill -= used;
        check(fill == 0);
    }
    // The splitter on the raw bytes too: any length, any byte.
    check_command(CR3TelnetInput::Split(reinterpret_cast<const char*>(data), size));
    return 0;
}
