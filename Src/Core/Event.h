// The record that travels through every worker queue: a socket registration, a
// message, a handler timer, a file request or one of the pool's tokens. All kinds share
// one layout so that any of them can be queued and recycled through one reclaim pool,
// and a worker tells them apart by the first field.
#pragma once

#include <cstdint>

#include <Corvane/EventMask.h>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

/// Kinds held in SEvent::m_key. A socket record holds its handle there (0 or above), a
/// handler timer its timer id (below EVENT_TIMER_LIMIT).
enum EventKind : std::int64_t {
    EVENT_FREE = -1,             ///< in the reclaim pool
    EVENT_MESSAGE = -50,         ///< Notify / NotifyIO / close
    EVENT_SERIAL_MESSAGE = -51,  ///< NotifySerial; lives in the serial queue only
    EVENT_FILE_REQUEST = -52,    ///< work for a file on the file threads (see FileRequest.h)
    EVENT_POLL_TOKEN = -75,      ///< the holder runs one poller wait
    EVENT_SERIAL_TOKEN = -76,    ///< the holder drains the serial queue
    EVENT_HEARTBEAT = -80,       ///< the daemon's proof that workers make progress
    EVENT_TIMER_LIMIT = -101,    ///< every timer id is below this
};

/// Result bits of a socket event (SEvent::socket.m_revents).
enum EventResult : std::uint16_t {
    QV_NOPOLL = 0,
    QV_POLLIN = 1,
    QV_POLLPRI = 2,
    QV_POLLOUT = 4,
    QV_POLLERR = 8,
    QV_POLLHUP = 16,
    QV_POLLIN_TIMEOUT = 0x100,
    QV_POLLOUT_TIMEOUT = 0x200,
    QV_POLLDEL = 0x400,
};

struct SEvent {
    std::int64_t m_key = EVENT_FREE;  ///< kind, socket handle or timer id
    Fundel::CMutex m_mutex;           ///< made once with the record; guards a socket record
    std::int64_t obj_id = 0;          ///< owner of a socket or timer; sender of a message
    std::int64_t m_receiver = 0;      ///< message receiver
    std::int64_t m_attach = 0;        ///< message argument
    std::uint32_t m_type = 0;         ///< message type
    std::uint32_t m_evready = 0;      ///< 1 while queued or being handled
    std::uint32_t m_armed = 0;        ///< interest the system poller holds now (poller bits)

    struct {
        std::uint32_t m_event_mask;
        std::uint16_t m_revents;
    } socket{};

    /// Socket time-out, kept by the socket timer on its 500 ms tick.
    struct {
        std::int32_t m_set_time;  ///< registered time-out, milliseconds; 0 for none
        std::int64_t m_time_out;  ///< absolute expiry on the tick clock; 0 when suspended
        SEvent* m_self;
        SEvent* m_prev;
        SEvent* m_next;
    } timer{};

    std::uint64_t m_due = 0;       ///< handler timer: absolute due time, microseconds
    std::uint64_t m_interval = 0;  ///< handler timer: interval, microseconds

    SEvent* m_dispatch_self = nullptr;  ///< reliable-UDP dispatcher bucket chain
    SEvent* m_dispatch_next = nullptr;

    SEvent* next = nullptr;  ///< worker queue link

    /// Clears every field but the mutex; the record becomes EVENT_FREE.
    void Reset()
    {
        m_key = EVENT_FREE;
        obj_id = 0;
        m_receiver = 0;
        m_attach = 0;
        m_type = 0;
        m_evready = 0;
        m_armed = 0;
        socket = {};
        timer = {};
        m_due = 0;
        m_interval = 0;
        m_dispatch_self = nullptr;
        m_dispatch_next = nullptr;
        next = nullptr;
    }
};

}  // namespace Qelvar::Corvane
