// SMediaStreamReceiverData: a stream receiver's pacing, link and state, shared with its
// stream receiver thread.
#pragma once

#include <atomic>
#include <cstdint>

#include <Corvane/MediaStreamReceiver.h>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

enum : int {
    RECEIVER_CLOSED = 0,
    RECEIVER_NEW = 1,
    RECEIVER_RUNNING = 2,
    RECEIVER_STOPPED = 3,
    RECEIVER_CLOSING = 4,
};

struct SMediaStreamReceiverData {
    std::atomic<long> m_receiver_id{0};  ///< owner to notify; 0 none
    std::atomic<int> m_mode{RECEIVER_STREAM_INPUT};
    // Pacing of the passive mode, under m_mutex.
    std::int64_t m_first_ts = -1;      ///< scaled media time of the first read after a start
    std::int64_t m_start_time = 0;     ///< µs when the first timestamp was taken
    std::int64_t m_pace_time = 0;      ///< µs since the start, at the last read
    std::int64_t m_fast_start = 0;     ///< µs of media read without waiting
    std::int32_t m_countdown = 1;      ///< ticks to skip before the next read
    float m_rate = 1.0f;
    std::int64_t m_period = 0;         ///< tick of the thread it was given to, µs
    Fundel::CMutex m_mutex;
    CMediaStreamReceiver* m_next = nullptr;  ///< guarded by its thread record's lock
    /// Atomic: Close writes the final 0 without the lock, and the thread reads it under
    /// its record's lock only.
    std::atomic<int> m_state{RECEIVER_NEW};
};

}  // namespace Qelvar::Corvane
