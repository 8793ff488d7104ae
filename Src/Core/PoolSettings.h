// Process-wide settings of CNetThread that a thread pool reads when it is created.
#pragma once

namespace Qelvar::Corvane {

struct SPoolSettings {
    int priority = 64;          ///< 1, 64 or 127
    int policy = 0;             ///< 0 time-sharing, 1 round-robin
    int stack = 0;              ///< worker stack size in bytes, 0 default
    int mux_timeout_ms = 500;   ///< the poller's wait; 0 without limit
    int thread_timeout_ms = 0;  ///< watch on each callback; 0 off
};

}  // namespace Qelvar::Corvane
