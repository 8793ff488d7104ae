// Helpers shared by the test suites: capture of log lines and failed assertions, and
// commands of the host system run as peers.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace Qelvar::Test {

/// One captured log line.
struct CapturedLog {
    int level;
    std::string module;
    std::string path;
    std::string function;
    int line;
    std::string message;
};

/// Captures every log record up to `level` while alive, then restores the default sink
/// and level.
class LogCapture {
public:
    explicit LogCapture(int level = 6);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedLog> Records() const;
    /// Number of captured messages that contain `text`.
    int Count(std::string_view text) const;
    bool Contains(std::string_view text) const { return Count(text) > 0; }
    /// The first captured record whose message contains `text`, if any.
    bool Find(std::string_view text, CapturedLog* out) const;
    /// Waits until `count` messages containing `text` have been captured; false on time-out.
    bool WaitFor(std::string_view text, std::chrono::milliseconds timeout, int count = 1) const;
    void Clear();

private:
    // Shared with the sink: a record being written on another thread while the capture
    // ends keeps what it writes into alive.
    struct SState {
        std::mutex mutex;
        std::condition_variable cv;
        std::vector<CapturedLog> records;
    };
    std::shared_ptr<SState> m_state = std::make_shared<SState>();
    int m_saved_level;
};

/// Records failed assertions instead of aborting while alive.
class AssertCapture {
public:
    AssertCapture();
    ~AssertCapture();
    AssertCapture(const AssertCapture&) = delete;
    AssertCapture& operator=(const AssertCapture&) = delete;

    std::vector<std::string> Expressions() const;
    int Count(std::string_view expr) const;

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_exprs;
};

/// Open descriptors of this process; -1 where the system does not tell (Windows).
int OpenFds();

/// Runs `command` with /bin/sh, its standard input empty, for at most `seconds` (then it
/// and its children are killed); its standard output and error, and in `*status` its
/// exit status: 124 when it ran out of time, -1 when it could not be run. On Windows the
/// shell is the host's, started through Wine, so paths in `command` go through HostPath.
std::string RunCommand(const std::string& command, int* status = nullptr, int seconds = 60);

/// Starts `command` with /bin/sh in the background, its standard input and output
/// /dev/null, for at most `seconds`, and returns at once: the host's process id of the
/// group that runs it (for StopCommand), or -1 when it could not be started.
int StartCommand(const std::string& command, int seconds);

/// Ends the group of a StartCommand and waits up to 5 s until it is gone; false when it
/// is still there.
bool StopCommand(int pid);

/// `path` as RunCommand's shell names it: the same on Linux, the Unix name under Wine;
/// empty when there is none.
std::string HostPath(const std::string& path);

/// A new directory in the system's temporary directory, named `prefix` and a random
/// suffix; empty on failure.
std::string MakeTempDir(const std::string& prefix);

/// Waits until `done()` holds, checking every millisecond; false after `timeout`.
template <class F>
bool eventually(F done, std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace Qelvar::Test
