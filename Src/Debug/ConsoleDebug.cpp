#include "Debug/ConsoleDebug.h"

#include <Corvane/R3.h>
#include <Fundel/Log.h>

#include "Core/ConsoleHooks.h"
#include "Core/SockTrace.h"
#include "Core/ThreadPool.h"
#include "R3/R3FuncBox.h"
#include "Tool/MediaTrace.h"

namespace Qelvar::Corvane {

namespace {

// Arguments the console could not read as numbers arrive as this mark.
constexpr int kNotANumber = static_cast<int>(0xBCBCBCBCu);

const char* const kCvnHelp =
    "debug: cvn 1 dump, 2 FD socket, 3 [LEVEL] log level, 4 FD ON socket trace, 5 ON delivery trace, "
    "6 ON media trace";

struct SCommand {
    R3Function func;
    const char* name;
    const char* help;
};

const SCommand kCommands[] = {
    {&CConsoleDebug::cvn, "cvn", kCvnHelp},
    {&CConsoleDebug::help, "help", "lists the commands"},
    {&CConsoleDebug::media_buffer_prt, "MediaBufferPrt", "media trace: MediaBufferPrt 1 on, 0 off"},
};

void usage()
{
    R3Printf("cvn            this text\n"
             "cvn 1          pools, handlers and registered sockets\n"
             "cvn 2 FD       the registration of socket FD\n"
             "cvn 3 [LEVEL]  the log level (1 fatal .. 6 debug); with LEVEL, sets it\n"
             "cvn 4 FD ON    socket trace of FD: 1 on, 0 off (lines go to the log)\n"
             "cvn 5 ON       message and timer trace on this console: 1 on, 0 off\n"
             "cvn 6 ON       media trace on this console: 1 on, 0 off\n");
}

bool is_switch(int value)
{
    return value == 0 || value == 1;
}

}  // namespace

int CConsoleDebug::Install()
{
    int result = 1;
    for (const SCommand& command : kCommands) {
        if (CR3FuncBox::Find(command.name)) continue;
        if (R3Register(reinterpret_cast<void*>(command.func), command.name, command.help) != 0) return -1;
        result = 0;
    }
    return result;
}

int CConsoleDebug::cvn(int what, int a1, int a2, int, int, int, int, int, int, int)
{
    switch (what) {
    case 1:
        CThreadPool::dump_pools(&R3Printf);
        CThreadPool::traversal_all(&R3Printf);
        return 0;
    case 2:
        CThreadPool::dump_sock_event_all(a1, &R3Printf);
        return 0;
    case 3:
        if (a1 == 0) {
            R3Printf("log level %d\n", Fundel::GetLogLevel());
        } else if (a1 >= Fundel::LOG_FATAL && a1 <= Fundel::LOG_DEBUG) {
            Fundel::SetLogLevel(a1);
            R3Printf("log level set to %d\n", a1);
        } else {
            R3Printf("cvn 3: the level is 1 to 6\n");
        }
        return 0;
    case 4:
        if (a1 == kNotANumber || a1 < 0 || !is_switch(a2)) break;
        if (a2 == 1) {
            // The lines are written at the level the log shows now, so they appear
            // without raising it.
            CSockTrace::SetLevel(Fundel::GetLogLevel());
            CSockTrace::Add(a1);
            CSockTrace::SetEnabled(true);
        } else {
            CSockTrace::Remove(a1);
        }
        R3Printf("socket trace of %d %s\n", a1, a2 == 1 ? "on" : "off");
        return 0;
    case 5:
        if (!is_switch(a1)) break;
        CConsoleHooks::SetTracing(a1 == 1);
        R3Printf("delivery trace %s\n", a1 == 1 ? "on" : "off");
        return 0;
    case 6:
        if (!is_switch(a1)) break;
        CMediaTrace::Set(a1);
        R3Printf("media trace %s\n", a1 == 1 ? "on" : "off");
        return 0;
    default:
        break;
    }
    usage();
    return 0;
}

int CConsoleDebug::help(int, int, int, int, int, int, int, int, int, int)
{
    CR3FuncBox::ForEach([](const char* name, const char* text) { R3Printf("%-16s %s\n", name, text ? text : ""); });
    return 0;
}

int CConsoleDebug::media_buffer_prt(int on, int, int, int, int, int, int, int, int, int)
{
    if (!is_switch(on)) {
        R3Printf("MediaBufferPrt: 1 on, 0 off\n");
        return 0;
    }
    CMediaTrace::Set(on);
    R3Printf("media trace %s\n", on == 1 ? "on" : "off");
    return 0;
}

}  // namespace Qelvar::Corvane
