// CNTimer: a drift-corrected periodic tick for any number of CNTimerEvents.
#pragma once

#include <Corvane/NetHandler.h>

namespace Qelvar::Corvane {

class CNTimerEvent;
struct SNTimerData;

/// One reactor timer of a fixed period driving the CNTimerEvents pushed to it, and a
/// one-second housekeeping timer that reaps closed events.
///
/// Ticks are counted from a time base, and each delay aims at the next ideal tick, so the
/// mean period stays exact even when single ticks come late; no delay is shorter than
/// 2000 µs, so a shorter period ticks every 2 ms at most. After a stall of more than 20
/// periods (or a clock jump) the count starts again from now instead of catching up.
/// Close() the timer when done: the events still in its list are closed with it.
class CORVANE_API CNTimer : public CNetHandler {
public:
    /// A timer ticking every `period_us` microseconds on pool 0; null when it could not
    /// be made.
    static CNTimer* Create(long long period_us);

    /// Appends a new event (it becomes ready; Start it to run). An event that is not new
    /// is logged at level 1 and fails an assertion, and is not appended again. 0 or -1.
    int PushTimerEvent(CNTimerEvent* ev);

    long long handle_timeout(long timer_id) override;
    /// Closes the events left in the list and deletes the timer.
    int handle_close(CNetHandler* handler) override;

    /// Ticks since the time base (it restarts after a stall).
    unsigned long long GetTickCount();

protected:
    explicit CNTimer(long long period_us);
    ~CNTimer() override;

private:
    /// Unlinks and closes the closed events; calls the running ones when `tick`.
    void reap(bool tick);

    SNTimerData* m_data;
};

}  // namespace Qelvar::Corvane
