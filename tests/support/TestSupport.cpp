#include "TestSupport.h"

#include <Fundel/Assert.h>
#include <Fundel/Log.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#ifdef _WIN32
#include <windows.h>

#include "LoopbackPair.h"
#include "Platform/Socket.h"
#else
#include <dirent.h>
#include <sys/wait.h>
#endif

namespace Qelvar::Test {

LogCapture::LogCapture(int level) : m_saved_level(Fundel::GetLogLevel())
{
    Fundel::SetLogSink([state = m_state](const Fundel::LogRecord& r) {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->records.push_back({r.level, r.module, r.path, r.function, r.line, r.message});
        state->cv.notify_all();
    });
    Fundel::SetLogLevel(level);
}

LogCapture::~LogCapture()
{
    Fundel::SetLogSink({});
    Fundel::SetLogLevel(m_saved_level);
}

std::vector<CapturedLog> LogCapture::Records() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->records;
}

int LogCapture::Count(std::string_view text) const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    int n = 0;
    for (const CapturedLog& r : m_state->records) {
        if (r.message.find(text) != std::string::npos) ++n;
    }
    return n;
}

bool LogCapture::Find(std::string_view text, CapturedLog* out) const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    for (const CapturedLog& r : m_state->records) {
        if (r.message.find(text) != std::string::npos) {
            if (out) *out = r;
            return true;
        }
    }
    return false;
}

bool LogCapture::WaitFor(std::string_view text, std::chrono::milliseconds timeout, int count) const
{
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->cv.wait_for(lock, timeout, [&] {
        int n = 0;
        for (const CapturedLog& r : m_state->records) {
            if (r.message.find(text) != std::string::npos) ++n;
        }
        return n >= count;
    });
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->records.clear();
}

AssertCapture::AssertCapture()
{
    Fundel::SetAssertHandler([this](const char* expr, const char*, int, const char*) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_exprs.emplace_back(expr);
    });
}

AssertCapture::~AssertCapture()
{
    Fundel::SetAssertHandler({});
}

std::vector<std::string> AssertCapture::Expressions() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_exprs;
}

int AssertCapture::Count(std::string_view expr) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const std::string& e : m_exprs) {
        if (e == expr) ++n;
    }
    return n;
}

int OpenFds()
{
#ifdef _WIN32
    return -1;
#else
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir)) ++count;
        closedir(dir);
    }
    return count;
#endif
}

namespace {

// `text` in single quotes for /bin/sh.
std::string sh_quote(const std::string& text)
{
    std::string quoted = "'";
    for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// The command run by a shell of its own that is ended after `seconds`: timeout signals
// the process group it leads, so the command's children go too.
std::string bounded(const std::string& command, int seconds)
{
    return "timeout -k 2 " + std::to_string(seconds) + " /bin/sh -c " + sh_quote(command) + " </dev/null";
}

}  // namespace

// The shell that starts it has gone by the time it ends, and nobody may reap what is
// left: a zombie counts as gone.
int StartCommand(const std::string& command, int seconds)
{
    int status = -1;
    const std::string out = RunCommand(bounded(command, seconds) + " >/dev/null 2>&1 & echo $!", &status, 10);
    const int pid = std::atoi(out.c_str());
    return status == 0 && pid > 0 ? pid : -1;
}

bool StopCommand(int pid)
{
    if (pid <= 0) return false;
    const std::string p = std::to_string(pid);
    // timeout leads the group (once it has set it up), so one signal reaches the
    // command's children too.
    const std::string stop = "kill -TERM -" + p + " 2>/dev/null || kill -TERM " + p + " 2>/dev/null; " +
                             "i=0; while [ $i -lt 50 ]; do case $(cat /proc/" + p + "/stat 2>/dev/null) in " +
                             "''|*') Z '*) exit 0;; esac; sleep 0.1; i=$((i+1)); done; " +
                             "kill -KILL -" + p + " 2>/dev/null; exit 1";
    int status = -1;
    RunCommand(stop, &status, 10);
    return status == 0;
}

std::string MakeTempDir(const std::string& prefix)
{
    std::error_code ec;
    const std::filesystem::path base = std::filesystem::temp_directory_path(ec);
    if (ec) return {};
    std::random_device random;
    for (int i = 0; i < 100; ++i) {
        char suffix[16];
        std::snprintf(suffix, sizeof suffix, "%08x", static_cast<unsigned int>(random()));
        const std::filesystem::path dir = base / (prefix + suffix);
        if (std::filesystem::create_directory(dir, ec)) {
            std::filesystem::permissions(dir, std::filesystem::perms::owner_all, ec);
            return dir.string();
        }
    }
    return {};
}

#ifdef _WIN32

namespace {

// One argument of a Windows command line, quoted so that it is parsed back unchanged.
std::string win_quote(const std::string& arg)
{
    std::string quoted = "\"";
    std::size_t backslashes = 0;
    for (const char c : arg) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(2 * backslashes, '\\');
    return quoted + "\"";
}

}  // namespace

std::string HostPath(const std::string& path)
{
    using UnixName = char*(__cdecl*)(const wchar_t*);
    const FARPROC proc = GetProcAddress(GetModuleHandleA("kernel32.dll"), "wine_get_unix_file_name");
    if (!proc) return {};
    const auto to_unix = reinterpret_cast<UnixName>(reinterpret_cast<void (*)()>(proc));
    const int size = MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(size > 0 ? size : 1), L'\0');
    MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, wide.data(), size);
    char* name = to_unix(wide.c_str());
    if (!name) return {};
    std::string unix_name = name;
    HeapFree(GetProcessHeap(), 0, name);
    return unix_name;
}

// Wine starts a host program with no process handle and passes it only standard input
// and output, and only handles with a host descriptor (a socket, not a pipe). So the
// output goes to a file, and the outer shell writes the exit status to a socket whose
// end shows when it is over.
std::string RunCommand(const std::string& command, int* status, int seconds)
{
    if (status) *status = -1;
    const std::string dir = MakeTempDir("corvane-run-");
    if (dir.empty()) return {};
    const std::string out_file = dir + "\\out";
    std::ofstream(out_file).close();  // made here: Wine names files that exist
    const std::string host_out = HostPath(out_file);
    std::string reply;
    if (!host_out.empty() && Platform::sock_startup() == 0) {
        {
            LoopbackPair pair;
            if (pair.Make()) {
                const std::string line = "/bin/sh -c " + win_quote(bounded(command, seconds) + " >" +
                                                                  sh_quote(host_out) + " 2>&1; echo $?");
                const HANDLE end = reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(pair.server.GetHandle()));
                STARTUPINFOA start{};
                start.cb = sizeof start;
                start.dwFlags = STARTF_USESTDHANDLES;
                start.hStdInput = start.hStdOutput = start.hStdError = end;
                PROCESS_INFORMATION process{};
                std::string writable = line;
                const bool started = CreateProcessA(nullptr, writable.data(), nullptr, nullptr, FALSE, 0, nullptr,
                                                    nullptr, &start, &process) != 0;
                if (process.hProcess) CloseHandle(process.hProcess);
                if (process.hThread) CloseHandle(process.hThread);
                pair.server.Close();
                // The shell is bounded by timeout; this wait only guards against a lost shell.
                const auto end_time = std::chrono::steady_clock::now() + std::chrono::seconds(seconds + 5);
                char buf[64];
                while (started && std::chrono::steady_clock::now() < end_time) {
                    const int n = pair.client.Recv_n(buf, sizeof buf, 1000000);
                    if (n < 0) break;
                    reply.append(buf, static_cast<std::size_t>(n));
                }
            }
        }
        Platform::sock_cleanup();
    }
    if (status && !reply.empty()) *status = std::atoi(reply.c_str());
    std::ifstream in(out_file, std::ios::binary);
    std::stringstream out;
    out << in.rdbuf();
    in.close();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return out.str();
}

#else

std::string HostPath(const std::string& path)
{
    return path;
}

std::string RunCommand(const std::string& command, int* status, int seconds)
{
    if (status) *status = -1;
    std::string out;
    FILE* pipe = ::popen((bounded(command, seconds) + " 2>&1").c_str(), "r");
    if (!pipe) return out;
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
    const int rc = ::pclose(pipe);
    if (status && rc != -1 && WIFEXITED(rc)) *status = WEXITSTATUS(rc);
    return out;
}

#endif

}  // namespace Qelvar::Test
