#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "Platform/Thread.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <pthread.h>
#include <sched.h>
#endif

namespace Qelvar::Platform {

namespace {

constexpr std::size_t kStackSize = 6u << 20;
constexpr std::size_t kStackUse = 3u << 20;  // beyond the 2 MB a Windows thread gets by default

int current_cpu()
{
#ifdef _WIN32
    return static_cast<int>(GetCurrentProcessorNumber());
#else
    return sched_getcpu();
#endif
}

[[gnu::noinline]] int touch_stack()
{
    volatile char block[kStackUse];
    for (std::size_t i = 0; i < kStackUse; i += 4096) block[i] = static_cast<char>(i);
    return block[kStackUse - 4096];
}

struct Probe {
    std::uint64_t id = 0;
    std::string name;
    int cpu_pinned = -1;
    int results[5] = {-1, -1, -1, -1, -1};  // name, pin, unpin, lower priority, real time
    bool finished = false;
};

void probe_entry(void* arg)
{
    auto* p = static_cast<Probe*>(arg);
    p->id = thread_current_id();
    p->results[0] = thread_set_name("a_thread_name_longer_than_fifteen");
#ifndef _WIN32
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    p->name = name;
#endif
    p->results[1] = thread_set_affinity(0);
    p->cpu_pinned = current_cpu();
    p->results[2] = thread_set_affinity(-1);
    touch_stack();
    p->results[3] = thread_set_priority(1, 0);    // lowering is always allowed
    p->results[4] = thread_set_priority(127, 1);  // may be refused, must not crash
    sleep_ms(20);
    p->finished = true;  // read after join: join is what makes it visible
}

}  // namespace

TEST(Thread, CreatedThreadRunsWithItsStackNameAndAffinityAndJoins)
{
    Probe probe;
    thread_handle handle = 0;
    ASSERT_EQ(thread_create(&handle, &probe_entry, &probe, kStackSize), 0);
    ASSERT_EQ(thread_join(handle), 0);
    EXPECT_TRUE(probe.finished);
    EXPECT_NE(probe.id, 0u);
    EXPECT_NE(probe.id, thread_current_id());
#ifndef _WIN32
    EXPECT_EQ(probe.name, "a_thread_name_l");
#endif
    EXPECT_EQ(probe.cpu_pinned, 0);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(probe.results[i], 0) << i;
    EXPECT_GE(probe.results[4], 0);
    EXPECT_GE(processor_count(), 1);
}

}  // namespace Qelvar::Platform
