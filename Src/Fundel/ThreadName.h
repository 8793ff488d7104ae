// Process-wide registry of thread names, so diagnostics can name any thread by its id
// without the system's length limit on thread names.
#pragma once

#include <cstdint>
#include <string>

namespace Qelvar::Fundel {

class CThreadName {
public:
    /// Names the calling thread, in the registry and for the system's tools.
    static void Set(const char* name);
    /// Forgets the calling thread's name.
    static void Remove();
    /// The registered name of thread `tid`, or "" when it has none.
    static std::string Get(std::uint64_t tid);
    /// The registered name of the calling thread, or "".
    static std::string Current();
};

}  // namespace Qelvar::Fundel
