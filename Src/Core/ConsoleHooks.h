// What the reactor core takes from the diagnostics layers above it, without knowing
// them: the printer of the telnet console, the trace switch that frames each message
// and timer delivery with lines on that console, and the step that installs the debug
// console's commands, which each pool daemon runs until it succeeds. The library's
// start installs both functions; until then the core prints nothing and the daemons
// skip their step.
#pragma once

#include <atomic>
#include <cstdint>

namespace Qelvar::Corvane {

class CNetHandler;

class CConsoleHooks {
public:
    /// printf to the console.
    using Printer = void (*)(const char* fmt, ...);
    /// Installs the console's commands: 0 when it installed them now, 1 when they were
    /// there already, -1 on failure.
    using Installer = int (*)();

    static void Install(Printer printer, Installer installer);
    static Installer GetInstaller() { return sm_installer.load(std::memory_order_acquire); }

    /// The delivery trace switch. Off costs one relaxed load per delivery.
    static void SetTracing(bool on) { sm_tracing.store(on, std::memory_order_relaxed); }
    static bool Tracing() { return sm_tracing.load(std::memory_order_relaxed); }

    /// The begin or end line of a delivery to `owner`: a message when `type` is not
    /// null, else a timer.
    static void TraceDelivery(const CNetHandler* owner, bool begin, const std::uint32_t* type, std::int64_t attach);

private:
    static std::atomic<bool> sm_tracing;
    static std::atomic<Printer> sm_printer;
    static std::atomic<Installer> sm_installer;
};

}  // namespace Qelvar::Corvane
