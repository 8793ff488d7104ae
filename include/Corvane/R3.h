// The remote runner: a telnet console that runs registered functions by name.
#pragma once

#include <Corvane/Export.h>

/// The signature of a console command: ten integer arguments (missing ones are 0, a
/// word that is not a number is 0xBCBCBCBC, that is -1128481604). The result is ignored.
typedef int (*R3Function)(int, int, int, int, int, int, int, int, int, int);

extern "C" {

/// Starts the console on `port` (or the first free one of the next 100 ports) with the
/// prompt `name` (at most 64 characters; null or empty: "R3"). The console is off by
/// default: until CNetThread::SetR3Enabled(true) this logs "R3 has been disable." at
/// level 4 and returns -1. Needs the public thread pool. The last argument is ignored.
/// One console per process: while one runs, a second start is refused at level 3 (call
/// R3ServerExit first). 0, or -1 (logged).
CORVANE_API int R3ServerStart(unsigned short port, const char* name, bool reserved);

/// The port the console listens on (the search may have moved past the one asked
/// for), or 0 when it does not run.
CORVANE_API unsigned short R3ServerPort(void);

/// Stops the console if it runs and empties the command table. Returns 0.
CORVANE_API int R3ServerExit(void);

/// printf to the connected console, if any: at most 4095 characters; line ends become
/// CR LF. Dropped when no console runs or no one is connected. Any thread.
CORVANE_API void R3Printf(const char* fmt, ...)
#if defined(__clang__)
    __attribute__((format(printf, 1, 2)))
#elif defined(__GNUC__)
    __attribute__((format(gnu_printf, 1, 2)))
#endif
    ;

/// Registers the command `name` running `func` (an R3Function), with a help text. The
/// strings are not copied: they must live as long as the registration (literals).
/// -1 for a null func or name, a full table (1024 entries) or a name already present.
CORVANE_API int R3Register(void* func, const char* name, const char* help);
}
