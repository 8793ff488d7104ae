// The debug console's commands on the telnet console: "cvn" (dumps, log level, socket
// trace, delivery and media trace switches), "help" (every command with its help
// text) and "MediaBufferPrt" (the media trace switch). The pool daemons install them.
#pragma once

namespace Qelvar::Corvane {

class CConsoleDebug {
public:
    /// Registers the commands that are missing: 0 when it registered any now, 1 when
    /// all were there, -1 when one could not be registered.
    static int Install();

    /// The commands, as registered.
    static int cvn(int what, int a1, int a2, int, int, int, int, int, int, int);
    static int help(int, int, int, int, int, int, int, int, int, int);
    static int media_buffer_prt(int on, int, int, int, int, int, int, int, int, int);
};

}  // namespace Qelvar::Corvane
