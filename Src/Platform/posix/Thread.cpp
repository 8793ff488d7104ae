// Threads on Linux: pthreads, with the kernel's thread id, name and scheduling calls.
#include "Platform/Thread.h"

#include <cerrno>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

namespace Qelvar::Platform {

namespace {

struct StartBlock {
    thread_entry entry;
    void* arg;
};

void* trampoline(void* p)
{
    StartBlock block = *static_cast<StartBlock*>(p);
    delete static_cast<StartBlock*>(p);
    block.entry(block.arg);
    return nullptr;
}

}  // namespace

int thread_create(thread_handle* out, thread_entry entry, void* arg, std::size_t stack_size)
{
    pthread_attr_t attr;
    int err = pthread_attr_init(&attr);
    if (err != 0) return err;
    if (stack_size > 0) {
        if (stack_size < static_cast<std::size_t>(PTHREAD_STACK_MIN)) stack_size = PTHREAD_STACK_MIN;
        err = pthread_attr_setstacksize(&attr, stack_size);
    }
    pthread_t tid{};
    auto* block = new StartBlock{entry, arg};
    if (err == 0) err = pthread_create(&tid, &attr, &trampoline, block);
    pthread_attr_destroy(&attr);
    if (err != 0) {
        delete block;
        return err;
    }
    *out = static_cast<thread_handle>(tid);
    return 0;
}

int thread_join(thread_handle handle)
{
    return pthread_join(static_cast<pthread_t>(handle), nullptr);
}

std::uint64_t thread_current_id()
{
    static thread_local const std::uint64_t tid = static_cast<std::uint64_t>(::syscall(SYS_gettid));
    return tid;
}

int thread_set_name(const char* name)
{
    char shortened[16];
    std::strncpy(shortened, name, sizeof shortened - 1);
    shortened[sizeof shortened - 1] = '\0';
    return pthread_setname_np(pthread_self(), shortened);
}

int thread_set_priority(int priority, int policy)
{
    if (policy == 1) {
        // Round-robin real time: low, middle or high of the system's range.
        const int lo = sched_get_priority_min(SCHED_RR);
        const int hi = sched_get_priority_max(SCHED_RR);
        sched_param param{};
        param.sched_priority = priority <= 1 ? lo : priority >= 127 ? hi : (lo + hi) / 2;
        return pthread_setschedparam(pthread_self(), SCHED_RR, &param);
    }
    // Back to time-sharing, in case the thread ran real time before.
    sched_param param{};
    const int err = pthread_setschedparam(pthread_self(), SCHED_OTHER, &param);
    if (err != 0) return err;
    // Time-sharing threads have no priority of their own on Linux: use the thread's nice value.
    const int nice_value = priority <= 1 ? 10 : priority >= 127 ? -10 : 0;
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(thread_current_id()), nice_value) != 0) return errno;
    return 0;
}

namespace {

// The processors the process may use: the mask of its main thread, whose id is the
// process id. The calling thread's own mask may have been narrowed by pinning.
bool process_mask(cpu_set_t& set)
{
    CPU_ZERO(&set);
    return sched_getaffinity(getpid(), sizeof set, &set) == 0;
}

}  // namespace

int thread_set_affinity(int cpu)
{
    cpu_set_t set;
    if (cpu >= 0) {
        CPU_ZERO(&set);
        CPU_SET(cpu % CPU_SETSIZE, &set);
    } else if (!process_mask(set)) {
        return errno;
    }
    return pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

int processor_count()
{
    cpu_set_t set;
    if (process_mask(set)) {
        const int n = CPU_COUNT(&set);
        if (n > 0) return n;
    }
    const long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? static_cast<int>(n) : 1;
}

void sleep_ms(unsigned int ms)
{
    timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

}  // namespace Qelvar::Platform
