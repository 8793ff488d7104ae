#include <gtest/gtest.h>

#include <string>

#include <Fundel/Log.h>

#include "../r3/ConsoleSupport.h"
#include "../reactor/ReactorSupport.h"
#include "R3/R3FuncBox.h"
#include "Tool/MediaTrace.h"

namespace Qelvar::Test {

using namespace std::chrono_literals;

namespace {

/// Runs `line` on the console and returns what it printed up to the next prompt.
std::string run(ConsoleClient& client, const std::string& line)
{
    client.Take();
    EXPECT_TRUE(client.Send(line + "\r")) << line;
    EXPECT_TRUE(client.ReadUntil("\r\ntest>")) << line << ": " << client.Received();
    return client.Take();
}

}  // namespace

// The pool daemon installs the debug commands on its first pass and says so; a daemon
// that finds them installed says nothing more.
TEST(ConsoleDebug, DaemonInstallsTheCommandsOnce)
{
    R3ServerExit();  // an empty command table
    LogCapture log(Fundel::LOG_WARN);
    {
        PoolScope pool(2);
        ASSERT_TRUE(pool.ok());
        ASSERT_TRUE(log.WaitFor("InitConsoleDebug ok! run happy.", 5s));
        const int priv = Corvane::CNetThread::CreatePrivatePool(2);
        ASSERT_GE(priv, 1);
        std::this_thread::sleep_for(300ms);  // its daemon's first pass
        Corvane::CNetThread::DestroyPrivatePool(priv);
    }
    EXPECT_EQ(log.Count("InitConsoleDebug ok! run happy."), 1);
    EXPECT_EQ(log.Count("InitConsoleDebug Failed!"), 0);
}

TEST_F(ConsoleTest, DebugCommandsReportAndSwitch)
{
    // The pool's daemon installs the commands when the pool starts.
    ASSERT_TRUE(eventually([] { return Corvane::CR3FuncBox::Find("cvn") != nullptr; }));
    ConsoleClient client;
    Open(client);

    const std::string help = run(client, "help");
    for (const char* name : {"cvn ", "help ", "MediaBufferPrt ", "foo "}) {
        EXPECT_NE(help.find(std::string("\r\n") + name), std::string::npos) << name << " in " << help;
    }
    EXPECT_NE(help.find("records its arguments"), std::string::npos);
    EXPECT_NE(run(client, "cvn").find("cvn 1 "), std::string::npos);

    // The dump names the pool, the console's own handlers and its registered sockets.
    const std::string dump = run(client, "cvn 1");
    EXPECT_NE(dump.find("pool 0: "), std::string::npos) << dump;
    EXPECT_NE(dump.find("class:Qelvar::Corvane::CR3Daemon"), std::string::npos) << dump;
    EXPECT_NE(dump.find("CThreadPool::Traversal, sock fd: "), std::string::npos) << dump;

    // Log level: read, set, refused out of range.
    const int saved = Fundel::GetLogLevel();
    EXPECT_NE(run(client, "cvn 3").find("log level " + std::to_string(saved)), std::string::npos);
    run(client, "cvn 3 5");
    EXPECT_EQ(Fundel::GetLogLevel(), 5);
    EXPECT_NE(run(client, "cvn 3 9").find("1 to 6"), std::string::npos);
    EXPECT_EQ(Fundel::GetLogLevel(), 5);
    Fundel::SetLogLevel(saved);

    // Socket trace of one descriptor: its registration is dumped, and re-registering it
    // writes "<Corvane Debug>" lines while the trace is on, none after.
    Connection conn;
    ASSERT_TRUE(conn.Make());
    Probe owner;
    ASSERT_EQ(owner.RegisterSock(conn.server, Corvane::MASK_READ, 0), 0);
    const std::string fd = std::to_string(conn.server.GetHandle());
    EXPECT_NE(run(client, "cvn 2 " + fd).find("sock fd: " + fd + ", owner: "), std::string::npos);
    {
        LogCapture log;
        run(client, "cvn 4 " + fd + " 1");
        ASSERT_EQ(owner.RegisterSock(conn.server, Corvane::MASK_WRITE, 0), 0);
        EXPECT_TRUE(log.Contains("<Corvane Debug>"));
        run(client, "cvn 4 " + fd + " 0");
        log.Clear();
        ASSERT_EQ(owner.UnregisterSock(conn.server, Corvane::MASK_WRITE), 0);
        EXPECT_FALSE(log.Contains("<Corvane Debug>"));
    }
    owner.RemoveSock(conn.server);
    owner.Close();

    // Delivery trace: a message is framed by begin and end lines on the console.
    Probe target;
    Signal got;
    target.on_message = [&](long, unsigned int, long) {
        got.Add();
        return 0;
    };
    run(client, "cvn 5 1");
    target.Notify(target.GetID(), 7, 99);
    ASSERT_TRUE(got.WaitFor(1));
    EXPECT_TRUE(client.ReadUntil("handle message end at")) << client.Received();
    EXPECT_NE(client.Received().find("handle message begin at"), std::string::npos);
    EXPECT_NE(client.Received().find("msg:7,attach:99"), std::string::npos);
    run(client, "cvn 5 0");
    target.Close();

    // The media trace switch, from both commands.
    run(client, "cvn 6 1");
    EXPECT_EQ(Corvane::CMediaTrace::Get(), 1);
    run(client, "MediaBufferPrt 0");
    EXPECT_EQ(Corvane::CMediaTrace::Get(), 0);
    EXPECT_NE(run(client, "MediaBufferPrt 7").find("1 on, 0 off"), std::string::npos);
}

}  // namespace Qelvar::Test
