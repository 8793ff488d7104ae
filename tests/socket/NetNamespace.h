// Two network namespaces joined by a veth pair, for the multicast and broadcast traffic
// that loopback cannot carry. Linux test code only: it needs root and iproute2's `ip`.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Qelvar::Test {

/// A thread that enters a network namespace and runs jobs there: the sockets a job
/// creates belong to that namespace, whichever thread uses them afterwards.
class NetnsThread {
public:
    explicit NetnsThread(const std::string& ns) : m_thread([this, ns] { loop(ns); }) {}
    ~NetnsThread()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_cv.notify_all();
        m_thread.join();
    }
    NetnsThread(const NetnsThread&) = delete;
    NetnsThread& operator=(const NetnsThread&) = delete;

    /// Runs `job` inside the namespace and waits for it (jobs are short and bounded);
    /// false when the thread could not enter the namespace within 5 s.
    bool Run(const std::function<void()>& job)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cv.wait_for(lock, std::chrono::seconds(5), [this] { return m_state != 0; }) || m_state < 0) {
            return false;
        }
        m_job = &job;
        m_cv.notify_all();
        m_cv.wait(lock, [this] { return m_job == nullptr; });
        return true;
    }

private:
    void loop(const std::string& ns)
    {
        const int fd = ::open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
        const bool entered = fd >= 0 && ::setns(fd, CLONE_NEWNET) == 0;
        if (fd >= 0) ::close(fd);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_state = entered ? 1 : -1;
        m_cv.notify_all();
        while (entered) {
            m_cv.wait(lock, [this] { return m_stop || m_job; });
            if (!m_job) return;
            (*m_job)();
            m_job = nullptr;
            m_cv.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_cv;
    int m_state = 0;  // 1 entered, -1 failed
    bool m_stop = false;
    const std::function<void()>* m_job = nullptr;
    std::thread m_thread;
};

/// Namespaces "cvn<pid>a" and "cvn<pid>b" joined by the veth ends "cva<pid>"
/// (10.77.0.1/24, fd77::1/64) and "cvb<pid>" (10.77.0.2/24, fd77::2/64). b routes
/// 224.0.0.0/4 over the link; a routes it to a second veth pair of its own ("cvx<pid>",
/// "cvy<pid>"), where nobody listens: from a, only a multicast interface set on the
/// socket reaches b.
class VethPair {
public:
    /// Why the pair cannot be made on this machine, or empty.
    static std::string Unavailable()
    {
        if (::geteuid() != 0) return "network namespaces need root";
        if (!sh("ip -V")) return "iproute2's ip is missing";
        return {};
    }

    VethPair()
    {
        const std::string pid = std::to_string(::getpid());
        a = "cvn" + pid + "a";
        b = "cvn" + pid + "b";
        if_a = "cva" + pid;
        if_b = "cvb" + pid;
        if_x = "cvx" + pid;
        if_y = "cvy" + pid;
    }
    ~VethPair()
    {
        // Deleting a namespace takes its veth end, and so the pair, along.
        sh("ip netns del " + a);
        sh("ip netns del " + b);
    }
    VethPair(const VethPair&) = delete;
    VethPair& operator=(const VethPair&) = delete;

    /// Makes the namespaces and the link; false at the first command that fails.
    bool Create()
    {
        // nodad: the IPv6 addresses are usable at once instead of after duplicate detection.
        // a's own pair comes up first, so its routes come first too: a socket that names no
        // interface lands there, not on the link.
        return sh("ip netns add " + a) && sh("ip netns add " + b) &&
               sh("ip link add " + if_x + " netns " + a + " type veth peer name " + if_y + " netns " + a) &&
               sh("ip -n " + a + " link set " + if_x + " up") && sh("ip -n " + a + " link set " + if_y + " up") &&
               sh("ip -n " + a + " route add 224.0.0.0/4 dev " + if_x) &&
               sh("ip link add " + if_a + " netns " + a + " type veth peer name " + if_b + " netns " + b) &&
               sh("ip -n " + a + " addr add 10.77.0.1/24 brd + dev " + if_a) &&
               sh("ip -n " + b + " addr add 10.77.0.2/24 brd + dev " + if_b) &&
               sh("ip -n " + a + " -6 addr add fd77::1/64 dev " + if_a + " nodad") &&
               sh("ip -n " + b + " -6 addr add fd77::2/64 dev " + if_b + " nodad") &&
               sh("ip -n " + a + " link set " + if_a + " up") && sh("ip -n " + b + " link set " + if_b + " up") &&
               sh("ip -n " + b + " route add 224.0.0.0/4 dev " + if_b);
    }

    std::string a, b, if_a, if_b, if_x, if_y;

    /// Runs a shell command quietly; true when it succeeded.
    static bool sh(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }
};

}  // namespace Qelvar::Test
