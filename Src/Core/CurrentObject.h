// The process-wide map of thread id -> the object whose callback the thread is running,
// for diagnostics (the pool daemon's deadlock report, the debug console). Setting and
// clearing cost two relaxed stores on the thread's own slot; only registering a thread
// takes the map's lock.
#pragma once

#include <cstdint>
#include <typeinfo>

namespace Qelvar::Corvane {

class CNetHandler;

class CCurrentObject {
public:
    /// What a thread is doing.
    struct SEntry {
        CNetHandler* object;
        std::int64_t id;
        const std::type_info* type;
    };

    /// Gives the calling thread a slot; threads without one ignore Set and Clear.
    static void Register();
    /// Removes the calling thread's slot.
    static void Unregister();
    /// Records the object whose callback the calling thread runs now.
    static void Set(CNetHandler* object, std::int64_t id);
    static void Clear();
    /// What thread `tid` runs now; false when it has no slot. `object` is null when idle.
    static bool Get(std::uint64_t tid, SEntry& out);
};

}  // namespace Qelvar::Corvane
