// What the console tests share: a console started on a free port for each test, a
// blocking loopback client, and commands that record how they were called.
#pragma once

#include <array>
#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Corvane/NetThread.h>
#include <Corvane/R3.h>
#include <Corvane/SockAddrIPv4.h>
#include <Corvane/SockStream.h>

#include "../core/Probe.h"
#include "R3/R3Server.h"
#include "TestSupport.h"

namespace Qelvar::Test {

/// The bytes a console sends first: the telnet options, the banner and the prompt.
inline std::string greeting(const std::string& name)
{
    const unsigned char options[] = {255, 253, 1, 255, 253, 34, 255, 253, 33, 255, 251, 1, 255, 251, 3};
    const std::string rule(64, '=');
    return std::string(reinterpret_cast<const char*>(options), sizeof options) + rule + "\r\n" +
           "                   Realtime Remote Runner                       \r\n" + rule + "\r\n" + name + ">";
}

/// A blocking telnet-less client on loopback that collects what the console sends.
class ConsoleClient {
public:
    bool Connect(unsigned short port)
    {
        m_stream.SetBlockOpt(true);
        return m_stream.Connect(Corvane::CSockAddrIPv4("127.0.0.1", port), nullptr) == 0;
    }
    bool Send(const std::string& bytes)
    {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const int n = m_stream.Send(bytes.data() + sent, static_cast<unsigned int>(bytes.size() - sent));
            if (n < 0) return false;
            sent += static_cast<std::size_t>(n);
        }
        return true;
    }
    /// Reads until what arrived since the last Take contains `text`; false on time-out
    /// or when the console closed first.
    bool ReadUntil(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (m_received.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > end || read_some(50 * 1000) < 0) return false;
        }
        return true;
    }
    /// True when the console closes the connection within `timeout`.
    bool WaitClosed(std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < end) {
            if (read_some(50 * 1000) < 0) return true;
        }
        return false;
    }
    /// Sends `bytes`, waits for `until` and returns what arrived meanwhile (on time-out,
    /// what arrived so far, for the test's comparison to show).
    std::string Exchange(const std::string& bytes, const std::string& until = "test>")
    {
        if (Send(bytes)) ReadUntil(until);
        return Take();
    }
    /// What arrived so far, and forgets it.
    std::string Take() { return std::exchange(m_received, std::string()); }
    const std::string& Received() const { return m_received; }
    Corvane::CSockStream& Stream() { return m_stream; }

private:
    int read_some(int timeout_us)
    {
        char buf[65536];
        const int n = m_stream.Recv_n(buf, sizeof buf, timeout_us);
        if (n > 0) m_received.append(buf, static_cast<std::size_t>(n));
        return n;
    }

    Corvane::CSockStream m_stream;
    std::string m_received;
};

/// The arguments of every call of the recording commands, in order.
struct CallLog {
    std::mutex mutex;
    std::vector<std::array<int, 10>> calls;

    std::vector<std::array<int, 10>> Calls()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    void Clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        calls.clear();
    }
};

inline CallLog g_calls;

inline int record_call(int a0, int a1, int a2, int a3, int a4, int a5, int a6, int a7, int a8, int a9)
{
    std::lock_guard<std::mutex> lock(g_calls.mutex);
    g_calls.calls.push_back({a0, a1, a2, a3, a4, a5, a6, a7, a8, a9});
    return 0;
}

inline std::array<int, 10> args(int a0 = 0, int a1 = 0, int a2 = 0, int a3 = 0, int a4 = 0)
{
    return {a0, a1, a2, a3, a4, 0, 0, 0, 0, 0};
}

inline constexpr int kNotANumber = static_cast<int>(0xBCBCBCBC);

/// A high port to start the console's search from, different per run, so that suites
/// running side by side rarely meet.
inline unsigned short random_base_port()
{
    std::random_device seed;
    return static_cast<unsigned short>(20000 + seed() % 40000);
}

/// The public pool, the console switched on and started with the prompt "test", and
/// "foo" registered to record its calls.
class ConsoleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_pool.ok());
        g_calls.Clear();
        Corvane::CNetThread::SetR3Enabled(true);
        ASSERT_EQ(R3ServerStart(random_base_port(), "test", false), 0);
        m_port = R3ServerPort();
        ASSERT_NE(m_port, 0);
        ASSERT_EQ(R3Register(reinterpret_cast<void*>(&record_call), "foo", "records its arguments"), 0);
    }
    void TearDown() override
    {
        R3ServerExit();
        Corvane::CNetThread::SetR3Enabled(false);
    }
    /// A client that connected and read the whole greeting.
    void Open(ConsoleClient& client)
    {
        ASSERT_TRUE(client.Connect(m_port));
        ASSERT_TRUE(client.ReadUntil("test>")) << client.Received();
        client.Take();
    }

    PoolScope m_pool{2};
    unsigned short m_port = 0;
};

}  // namespace Qelvar::Test
