// CNTimerEvent: one user callback driven by a CNTimer.
#pragma once

#include <Corvane/NetHandler.h>

namespace Qelvar::Corvane {

class CNTimer;
struct SNTimerEventData;

/// Derive from it and override handle_timer_event: it is called on every tick of the
/// CNTimer the event was pushed to, while the event runs.
///
/// States: new → (CNTimer::PushTimerEvent) ready → Start → running ⇄ Stop/Start stopped.
/// Close may come from any thread, also from inside handle_timer_event: the event is
/// marked closed and its timer unlinks and closes it (CNetHandler::Close, then your
/// handle_close) at its next tick or within a second. An event never pushed is closed at
/// once. An event belongs to one timer and leaves it only by closing.
class CORVANE_API CNTimerEvent : public CNetHandler {
public:
    CNTimerEvent();
    ~CNTimerEvent() override;

    /// From ready or stopped to running. On a new event: logged at level 3, nothing
    /// changes; on a running or closed one: logged at level 1 and an assertion fails.
    void Start();
    /// From running to stopped; any other state is logged at level 3 and left.
    void Stop();
    /// Marks the event closed for its timer to reap (at once when it was never pushed).
    void Close() override;

    /// Called on each tick while running, on a reactor thread, with the timer's list
    /// locked: do not push events to the same timer from here.
    virtual int handle_timer_event();

    /// Used by CNTimer::PushTimerEvent: new to ready. Any other state is logged at level 1
    /// and fails an assertion; -1 then, and the event is not pushed again.
    int set_event_ready();
    /// Calls handle_timer_event.
    long long do_timer_event();

private:
    friend class CNTimer;
    SNTimerEventData* m_event;
};

}  // namespace Qelvar::Corvane
