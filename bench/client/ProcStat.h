// CPU accounting the benchmark clients share: a server's CPU time from /proc/PID/stat,
// the whole machine's busy time from /proc/stat, and the client's own.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include <fstream>
#include <sstream>
#include <string>

namespace EchoBench {

/// CPU time of a process in clock ticks, from /proc/PID/stat; -1 each when unreadable.
struct Ticks {
    long long user = -1;
    long long sys = -1;
    bool Valid() const { return user >= 0 && sys >= 0; }
};

inline Ticks ProcessTicks(int pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) {
        return {};
    }
    // The command name is in parentheses and may hold spaces: count fields after it.
    std::size_t close_paren = line.rfind(')');
    if (close_paren == std::string::npos) {
        return {};
    }
    std::istringstream fields(line.substr(close_paren + 2));
    std::string field;
    Ticks ticks;
    for (int index = 3; fields >> field; ++index) {  // field 3 is the state
        if (index == 14) {
            ticks.user = std::atoll(field.c_str());
        } else if (index == 15) {
            ticks.sys = std::atoll(field.c_str());
            break;
        }
    }
    return ticks;
}

/// Busy ticks of the whole machine (user, nice, system, irq, softirq, steal).
inline long long MachineBusyTicks()
{
    std::ifstream in("/proc/stat");
    std::string cpu;
    long long user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0, steal = 0;
    in >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal;
    return user + nice + system + irq + softirq + steal;
}

/// This process's own CPU seconds.
inline double OwnCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

/// The CPU counters at one moment of a measured window; `at` is the caller's clock (ns).
struct CpuSample {
    std::int64_t at = 0;
    Ticks server;
    long long machine = 0;
    double own = 0;
};

inline CpuSample TakeCpuSample(int server_pid, std::int64_t at_ns)
{
    CpuSample s;
    if (server_pid > 0) {
        s.server = ProcessTicks(server_pid);
    }
    s.machine = MachineBusyTicks();
    s.own = OwnCpuSeconds();
    s.at = at_ns;
    return s;
}

/// Cores kept busy between two samples: the server (0 when unknown, with a note naming
/// `who`), this client, and every other process.
struct CpuShares {
    double window_s = 0;
    double server = 0;
    double client = 0;
    double other = 0;
};

inline CpuShares CpuBetween(const CpuSample& first, const CpuSample& last, int server_pid, const char* who)
{
    CpuShares c;
    c.window_s = static_cast<double>(last.at - first.at) / 1e9;
    const double tick = 1.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
    if (server_pid > 0) {
        if (!first.server.Valid() || !last.server.Valid()) {
            std::fprintf(stderr, "%s: note: cannot read /proc/%d/stat\n", who, server_pid);
        } else {
            c.server = static_cast<double>(last.server.user - first.server.user + last.server.sys - first.server.sys) *
                       tick / c.window_s;
        }
    }
    c.client = (last.own - first.own) / c.window_s;
    const double machine = static_cast<double>(last.machine - first.machine) * tick / c.window_s;
    c.other = std::max(0.0, machine - c.client - c.server);
    return c;
}

}  // namespace EchoBench
