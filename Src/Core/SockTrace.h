// The socket trace: "<Corvane Debug>" lines of the reactor, written only while the
// trace is on and only for the traced socket handles. Off costs one relaxed load.
#pragma once

#include <atomic>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

class CSockTrace {
public:
    static void SetEnabled(bool on);
    static void Add(int fd);
    static void Remove(int fd);
    static void SetLevel(int level);

    /// True when lines of socket `fd` are written.
    static bool Traced(long long fd)
    {
        return sm_enabled.load(std::memory_order_relaxed) && contains(fd);
    }
    static int Level() { return sm_level.load(std::memory_order_relaxed); }

private:
    static bool contains(long long fd);

    static std::atomic<bool> sm_enabled;
    static std::atomic<int> sm_level;
};

}  // namespace Qelvar::Corvane

/// A "<Corvane Debug>" line about socket `fd` of object `obj_id`: at the trace level
/// when the socket is traced; always, at Error, for an id of 1 or more (never a valid one).
#define CVN_SOCK_TRACE(fd, obj_id, ...)                                                              \
    do {                                                                                             \
        const bool cvn_bad_id_ = (obj_id) >= 1;                                                      \
        if (cvn_bad_id_ || ::Qelvar::Corvane::CSockTrace::Traced(fd)) {                              \
            CVN_LOG(cvn_bad_id_ ? ::Qelvar::Fundel::LOG_ERROR : ::Qelvar::Corvane::CSockTrace::Level(), \
                    __VA_ARGS__);                                                                    \
        }                                                                                            \
    } while (0)
