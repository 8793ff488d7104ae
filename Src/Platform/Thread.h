// Threads of the system: creation with a stack size, joining, naming, priority,
// affinity and the processor count.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Qelvar::Platform {

/// Opaque handle of a created thread.
using thread_handle = std::uintptr_t;

/// Entry point of a thread.
using thread_entry = void (*)(void* arg);

/// Starts a thread running entry(arg). A stack_size of 0 takes the system default.
/// Returns 0, or the system's error number.
int thread_create(thread_handle* out, thread_entry entry, void* arg, std::size_t stack_size);

/// Waits for the thread to end and releases its handle; 0 or the error number.
int thread_join(thread_handle handle);

/// The system's id of the calling thread (gettid; GetCurrentThreadId).
std::uint64_t thread_current_id();

/// Names the calling thread for debuggers and tools. The system may truncate the name
/// (15 characters on Linux). 0 or the error number.
int thread_set_name(const char* name);

/// Priority of the calling thread: 1 low, 64 normal, 127 high. Policy 0 is the normal
/// time-sharing policy, 1 the round-robin real-time one (which the system may refuse
/// to an unprivileged process). 0 or the error number.
int thread_set_priority(int priority, int policy);

/// Pins the calling thread to processor `cpu` (0-based); a negative cpu allows every
/// processor again. 0 or the error number.
int thread_set_affinity(int cpu);

/// Number of processors the process may run on, at least 1.
int processor_count();

/// Suspends the calling thread for `ms` milliseconds.
void sleep_ms(unsigned int ms);

}  // namespace Qelvar::Platform
