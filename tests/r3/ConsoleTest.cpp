// The telnet console over raw loopback sockets: what it sends, how it edits and runs
// lines, and how it survives peers that misbehave.
#include <atomic>
#include <thread>

#include "ConsoleSupport.h"

using namespace Qelvar;
using namespace Qelvar::Test;
using namespace std::chrono_literals;

namespace {

using Calls = std::vector<std::array<int, 10>>;

std::atomic<bool> g_flood_done{false};

// A command that prints 16 MB, far more than the sender holds, from the reactor thread.
int flood(int, int, int, int, int, int, int, int, int, int)
{
    const std::string line(3999, 'f');
    for (int i = 0; i < 4000; ++i) R3Printf("%s\n", line.c_str());
    g_flood_done.store(true);
    return 0;
}

bool connection_dropped()
{
    unsigned int queued, peak, capacity;
    return !Corvane::r3_output_state(&queued, &peak, &capacity);
}

}  // namespace

TEST_F(ConsoleTest, GreetsThenPrintsWithCrLfLineEnds)
{
    LogCapture log(6);
    ConsoleClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.ReadUntil("test>")) << client.Received();
    EXPECT_EQ(client.Take(), greeting("test"));
    EXPECT_TRUE(log.Contains("R3Server come new connect.\n"));

    R3Printf("a\nb|%d\rc", 7);
    ASSERT_TRUE(client.ReadUntil("c"));
    EXPECT_EQ(client.Take(), "a\r\nb|7\r\nc");

    // Longer than one chunk once translated: split across hand-overs, nothing lost.
    R3Printf("%s<end>", std::string(3000, '\n').c_str());
    ASSERT_TRUE(client.ReadUntil("<end>"));
    std::string translated;
    for (int i = 0; i < 3000; ++i) translated += "\r\n";
    EXPECT_EQ(client.Take(), translated + "<end>");

    // 4095 characters go out, 4096 are dropped whole.
    R3Printf("%s|", std::string(4094, 'x').c_str());
    R3Printf("%s", std::string(4096, 'y').c_str());
    R3Printf("<mark>");
    ASSERT_TRUE(client.ReadUntil("<mark>"));
    EXPECT_EQ(client.Take(), std::string(4094, 'x') + "|<mark>");
}

TEST_F(ConsoleTest, EditsLinesAndRunsCommands)
{
    const std::string long_name(255, 'z');
    ASSERT_EQ(R3Register(reinterpret_cast<void*>(&record_call), long_name.c_str(), nullptr), 0);
    ConsoleClient client;
    Open(client);

    EXPECT_EQ(client.Exchange("foo 12 -3 x\r"), "foo 12 -3 x\r\ntest>");
    EXPECT_EQ(g_calls.Calls(), (Calls{args(12, -3, kNotANumber)}));

    // Erasing (BS and DEL echo 8 32 8; nothing to erase echoes nothing), escape
    // sequences dropped, the LF after CR ignored.
    g_calls.Clear();
    EXPECT_EQ(client.Exchange(std::string("\x7f") + "fooo\x08 4\x1b[A2\x1b[15~\x7f 5x\x08\r\n"),
              "fooo\b \b 42\b \b 5x\b \b\r\ntest>");
    EXPECT_EQ(g_calls.Calls(), (Calls{args(4, 5)}));

    // A 300-character line keeps 255: the 255-character name is found.
    EXPECT_EQ(client.Exchange(std::string(300, 'z') + "\r"), long_name + "\r\ntest>");
    EXPECT_EQ(g_calls.Calls().size(), 2u);

    EXPECT_EQ(client.Exchange("nosuch 1\r\r", "test>\r\ntest>"), "nosuch 1\r\n:: command not found\r\ntest>\r\ntest>");

    // Numbers as strtoll reads them, cut to 32 bits; ten arguments at most.
    client.Exchange("foo -0 007 99999999999 - 1-2 a b c d e f g\r");
    const int big = static_cast<int>(99999999999LL);
    const int nan = kNotANumber;
    EXPECT_EQ(g_calls.Calls().back(), (std::array<int, 10>{0, 7, big, nan, nan, nan, nan, nan, nan, nan}));

    // bye ends the connection, not the console, and closes the console's socket.
    const int fds = OpenFds();
    ASSERT_TRUE(client.Send("bye\r"));
    EXPECT_TRUE(client.WaitClosed());
    if (fds >= 0) {
        EXPECT_TRUE(eventually([&] { return OpenFds() == fds - 1; }));
    }
    ConsoleClient next;
    Open(next);
    EXPECT_EQ(next.Exchange("foo 1\r"), "foo 1\r\ntest>");
}

TEST_F(ConsoleTest, NewConnectionReplacesTheCurrentOne)
{
    ConsoleClient first, second;
    Open(first);
    EXPECT_EQ(first.Exchange("fo", "fo"), "fo");
    Open(second);
    EXPECT_TRUE(first.WaitClosed());
    // The half-typed line went with the first connection.
    second.Exchange("foo 1\r");
    EXPECT_EQ(g_calls.Calls(), (Calls{args(1)}));
}

TEST_F(ConsoleTest, GarbageLeavesTheConsoleServing)
{
    {
        ConsoleClient client;
        Open(client);
        // IAC split across reads; a subnegotiation of 100 bytes at most.
        ASSERT_TRUE(client.Send("\xff"));
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(client.Exchange("\xfb\x01" "foo 1\r"), "foo 1\r\ntest>");
        EXPECT_EQ(client.Exchange("\xff\xfa" + std::string(100, 'q') + "foo 2\r"), "foo 2\r\ntest>");
        // 3000 bytes without CR fill the 1024-byte buffer several times over.
        EXPECT_EQ(client.Exchange(std::string(3000, 'a') + "\rfoo 3\r", "foo 3\r\ntest>"),
                  std::string(255, 'a') + "\r\n:: command not found\r\ntest>foo 3\r\ntest>");
        EXPECT_EQ(g_calls.Calls(), (Calls{args(1), args(2), args(3)}));
        // Every byte value as one line; the last is IAC, and NUL ends that command.
        std::string binary;
        for (int round = 0; round < 8; ++round) {
            for (int b = 0; b < 256; ++b) {
                if (b != '\r') binary += static_cast<char>(b);
            }
        }
        client.Exchange(binary + std::string(1, '\0') + "\r");
        EXPECT_EQ(g_calls.Calls().size(), 3u);
        // Then a subnegotiation the peer never ends. Everything was read, so the close
        // is orderly: the console takes these bytes before it sees the end.
        ASSERT_TRUE(client.Send("\xff\xfa\x01"));
        client.Stream().Close();
        ASSERT_TRUE(eventually(connection_dropped));
    }
    {
        ConsoleClient client;
        Open(client);
        EXPECT_EQ(client.Exchange("foo 4\r"), "foo 4\r\ntest>");
        // Gone in the middle of a large output.
        ASSERT_EQ(R3Register(reinterpret_cast<void*>(&flood), "flood", nullptr), 0);
        g_flood_done.store(false);
        ASSERT_TRUE(client.Send("flood\r"));
        ASSERT_TRUE(client.ReadUntil("ffff"));
    }
    ASSERT_TRUE(eventually([] { return g_flood_done.load(); }));
    ASSERT_TRUE(eventually(connection_dropped));
    ConsoleClient client;
    Open(client);
    client.Exchange("foo 5\r");
    EXPECT_EQ(g_calls.Calls().back(), args(5));
}

TEST_F(ConsoleTest, PeerThatNeverReadsCostsBoundedMemory)
{
    ASSERT_EQ(R3Register(reinterpret_cast<void*>(&flood), "flood", nullptr), 0);
    g_flood_done.store(false);
    ConsoleClient idle;
    Open(idle);
    std::atomic<int> ticks{0};
    Probe ticker;
    ticker.on_timeout = [&](long) {
        ticks.fetch_add(1);
        return 0LL;
    };
    struct CloseAtEnd {
        Probe& probe;
        ~CloseAtEnd() { probe.Close(); }
    } close_at_end{ticker};
    ASSERT_NE(ticker.SetTimer(5000), -1);

    // The command must come back although no one reads.
    ASSERT_TRUE(idle.Send("flood\r"));
    ASSERT_TRUE(eventually([] { return g_flood_done.load(); }, 30s));
    unsigned int queued = 0, peak = 0, capacity = 0;
    ASSERT_TRUE(Corvane::r3_output_state(&queued, &peak, &capacity));
    EXPECT_LE(peak, capacity);
    EXPECT_GE(peak, capacity - 2 * 4096) << "the queue never filled: the test did not test";
    const int before = ticks.load();
    EXPECT_TRUE(eventually([&] { return ticks.load() >= before + 3; }));

    // The stuck peer is replaced like any other.
    ConsoleClient next;
    Open(next);
    next.Exchange("foo 6\r");
    EXPECT_EQ(g_calls.Calls().back(), args(6));
}

TEST_F(ConsoleTest, PrintersOnOtherThreadsRaceTheShutdown)
{
    // Sanitizer builds see a print that touches a freed session or sender.
    struct Printers {
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        ~Printers()
        {
            stop.store(true);
            for (std::thread& thread : threads) thread.join();
        }
    } printers;
    for (int t = 0; t < 2; ++t) {
        printers.threads.emplace_back([&printers, t] {
            while (!printers.stop.load()) R3Printf("printer %d\n", t);
        });
    }
    for (int round = 0; round < 20; ++round) {
        ConsoleClient client;
        ASSERT_TRUE(client.Connect(m_port));
        ASSERT_TRUE(client.ReadUntil("printer"));
        if (round % 2 == 0) client.Stream().Close();  // the peer leaves, or stays for the stop
        R3ServerExit();
        ASSERT_EQ(R3ServerStart(m_port, "test", false), 0);
        m_port = R3ServerPort();
    }
    ASSERT_EQ(R3Register(reinterpret_cast<void*>(&record_call), "foo", nullptr), 0);
    ConsoleClient client;
    Open(client);
    client.Exchange("foo 7\r");
    EXPECT_EQ(g_calls.Calls().back(), args(7));
}
