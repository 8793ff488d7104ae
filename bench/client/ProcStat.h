// CPU accounting the benchmark clients share: a server's CPU time from /proc/PID/stat,
// the whole machine's busy time from /proc/stat, and the client's own.
#pragma once

#include <sys/resource.h>

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

}  // namespace EchoBench
