// What the console does with the bytes a telnet client sends: the telnet filter, the
// line editor and the splitting of a finished line into a command and its arguments.
// No sockets here: the session feeds it what it read and sends what it answers.
#pragma once

#include <cstddef>
#include <string>

namespace Qelvar::Corvane {

/// Why Feed stopped.
enum class ER3Input {
    kMore,  ///< every byte is used; the line goes on
    kLine,  ///< CR ended a line (possibly empty): run it, then send the prompt
    kBye,   ///< the line was "bye": close the connection
};

/// A command line split into words: the command and up to ten integer arguments.
struct SR3Command {
    static constexpr int kMaxArgs = 10;
    std::string name;           ///< the first word; empty for a blank line
    int args[kMaxArgs] = {};    ///< missing arguments are 0
    int count = 0;              ///< arguments present (at most kMaxArgs)
};

/// The telnet filter and line editor of one console connection.
///
/// Filter: IAC (255) starts a command. WILL/WONT/DO/DONT (251..254) take one option byte,
/// SB (250) opens a subnegotiation that lasts until IAC SE (240) or 100 bytes; any other
/// byte after IAC ends the command. None of it reaches the editor.
///
/// Editor: ESC (27) drops the next byte, then digits, then the first other byte. Printable
/// bytes (32..126) are echoed and appended while the line holds fewer than 255. BS (8) and
/// DEL (127) erase the last character, echoing 8 32 8. CR (13) echoes CR LF and ends the
/// line. Everything else is ignored.
class CR3TelnetInput {
public:
    static constexpr std::size_t kMaxLine = 255;
    /// The value of a word that is not a number: 0xBCBCBCBC.
    static constexpr int kNotANumber = -1128481604;

    /// Takes bytes until they are used up or a CR ended a line, appending what is to be
    /// echoed to `echo`. Returns the bytes used (at most `len`); after kLine or kBye the
    /// rest is for the next call, which starts a new line.
    std::size_t Feed(const unsigned char* data, std::size_t len, std::string& echo, ER3Input& event);

    /// The line being edited, or the one just ended; NUL-terminated, at most 255 bytes.
    const char* Line() const { return m_line; }
    std::size_t LineLength() const { return m_length; }

    /// Forgets the line and any escape sequence under way (a new connection).
    void Reset();

    /// Puts the telnet filter back to plain data. Its state is shared by the process: see
    /// the source for why that is enough.
    static void ResetFilter();

    /// Splits `line` at bytes below 32, 127 and spaces. Words after the first become the
    /// arguments: an optional "-" and decimal digits convert as strtoll does, kept to
    /// the low 32 bits (the same on every platform); any other word is kNotANumber.
    /// Words past the tenth are ignored.
    static SR3Command Split(const char* line, std::size_t len);

private:
    // The filter: true when the byte is data for the editor.
    static bool filter(unsigned char c);
    // The editor: one data byte. True when it ended the line.
    bool edit(unsigned char c, std::string& echo);

    char m_line[kMaxLine + 1] = {};
    std::size_t m_length = 0;
    bool m_ended = false;       // the line was ended by CR and not yet replaced
    bool m_escape = false;       // inside an escape sequence
    bool m_escape_lead = false;  // the byte after ESC was dropped: digits follow
};

}  // namespace Qelvar::Corvane
