// The process-wide media trace switch: while it is non-zero the media classes write
// their trace lines to the telnet console. The console command "MediaBufferPrt" sets it.
#pragma once

#include <atomic>

namespace Qelvar::Corvane {

class CMediaTrace {
public:
    static void Set(int on) { sm_switch.store(on, std::memory_order_relaxed); }
    static int Get() { return sm_switch.load(std::memory_order_relaxed); }

private:
    static std::atomic<int> sm_switch;
};

}  // namespace Qelvar::Corvane
