// The console's command table: names registered by R3Register and what they run.
#pragma once

#include <functional>

#include <Corvane/R3.h>

#include "Fundel/Mutex.h"

namespace Qelvar::Corvane {

/// The process-wide table of console commands: up to 1024 entries {function, name,
/// help}. Names and help texts are not copied (the caller keeps them alive); names are
/// unique by exact comparison. The table is made by the first Register and freed by
/// Free. Every operation locks: registrations come from several threads (each pool's
/// start-up), and a lookup hands the pointer out so that the call runs outside the lock.
class CR3FuncBox {
public:
    static constexpr int kMaxEntries = 1024;

    /// Adds `name`. -1 for a null func or name (level 2), a full table ("this:%p
    /// CR3Daemon::Register func box full!", level 2) or a name present already ("this:%p
    /// TFuncBox::Register already exist!", level 2); else 0.
    static int Register(R3Function func, const char* name, const char* help);
    /// The function registered as `name`; null when there is none.
    static R3Function Find(const char* name);
    /// Calls `callback(name, help)` for every entry in registration order, outside the
    /// lock, over a snapshot (the callback may register). `help` may be null.
    static void ForEach(const std::function<void(const char* name, const char* help)>& callback);
    /// Frees the table; the next Register makes a new, empty one.
    static void Free();

private:
    struct SEntry {
        R3Function func;
        const char* name;
        const char* help;
    };

    int find_index(const char* name) const;

    int m_count = 0;
    SEntry m_entries[kMaxEntries] = {};

    static CR3FuncBox* sm_box;
    static Fundel::CMutex sm_mutex;
};

}  // namespace Qelvar::Corvane
