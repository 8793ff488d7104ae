#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/Socket.h"
#include "Platform/SockTypes.h"
#include "ReactorSupport.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using namespace Qelvar::Corvane;
using namespace Qelvar::Test;

TEST(Registry, MasksMergeIntoOneRecordAndReachBothCallbacks)
{
    PoolScope scope;
    Connection c;
    ASSERT_TRUE(c.Make());
    Signal in, out, checked;
    Probe h;
    h.on_input = [&](int) {
        char buf[16];
        c.server.Recv(buf, sizeof buf);
        in.Add();
        return 0;
    };
    h.on_output = [&](int) {
        out.Add();
        checked.WaitFor(1);
        h.UnregisterSock(c.server, MASK_WRITE);  // once is enough
        return 0;
    };
    ASSERT_EQ(h.RegisterSock(c.server, MASK_READ, 0), 0);
    ASSERT_EQ(h.RegisterSock(c.server, MASK_WRITE, 0), 0);
    EXPECT_EQ(registered_mask(0, c.server.GetHandle()), MASK_READ | MASK_WRITE);
    checked.Add();
    EXPECT_TRUE(out.WaitFor(1));
    ASSERT_EQ(c.client.Send("ping", 4), 4);
    EXPECT_TRUE(in.WaitFor(1));
    EXPECT_TRUE(eventually([&] { return registered_mask(0, c.server.GetHandle()) == MASK_READ; }));
    EXPECT_EQ(h.RemoveSock(c.server), 0);  // a callback still running finishes the removal
    EXPECT_TRUE(eventually([&] { return registered_mask(0, c.server.GetHandle()) == -1; }));
    h.Close();
}

// Many sockets, each flooded by its own sender, on a pool of 8 workers: the callbacks
// of one socket never run at the same time, whatever the traffic.
TEST(Registry, OneSocketIsHandledByOneThreadAtATime)
{
    PoolScope scope(0x80000008u);
    constexpr int kSockets = 16;
    constexpr int kBytes = 200000;
    std::vector<std::unique_ptr<Connection>> conns;
    std::vector<std::unique_ptr<Probe>> handlers;
    std::atomic<int> inside[kSockets] = {};
    std::atomic<int> overlaps{0};
    std::atomic<long> received[kSockets] = {};
    for (int i = 0; i < kSockets; ++i) {
        conns.push_back(std::make_unique<Connection>());
        ASSERT_TRUE(conns[i]->Make());
        handlers.push_back(std::make_unique<Probe>());
        CSockStream& server = conns[i]->server;
        auto enter = [&, i] {
            if (inside[i].fetch_add(1) != 0) ++overlaps;
            std::this_thread::sleep_for(20us);  // widen the window a second thread would hit
        };
        handlers[i]->on_input = [&, i, enter](int) {
            enter();
            char buf[4096];
            const int n = server.Recv(buf, sizeof buf);
            if (n > 0) received[i] += n;
            inside[i].fetch_sub(1);
            return 0;
        };
        handlers[i]->on_output = [&, i, enter](int) {
            enter();
            inside[i].fetch_sub(1);
            return 0;
        };
        ASSERT_EQ(handlers[i]->RegisterSock(server, MASK_READ | MASK_WRITE, 0), 0);
    }
    std::vector<std::thread> senders;
    for (int i = 0; i < kSockets; ++i) {
        senders.emplace_back([&, i] {
            std::vector<char> chunk(1000, 'x');
            for (int sent = 0; sent < kBytes; sent += 1000) conns[i]->client.Send_n(chunk.data(), 1000, 5000000);
        });
    }
    for (auto& t : senders) t.join();
    EXPECT_TRUE(eventually([&] {
        for (int i = 0; i < kSockets; ++i) {
            if (received[i] < kBytes) return false;
        }
        return true;
    }));
    EXPECT_EQ(overlaps.load(), 0);
    for (int i = 0; i < kSockets; ++i) {
        handlers[i]->RemoveSock(conns[i]->server);
        handlers[i]->Close();
    }
}

// RemoveSock from inside the socket's own callback is deferred until the callback
// returns; registering again in the same callback cancels it.
TEST(Registry, RemovalInsideACallbackWaitsForItAndCanBeCancelled)
{
    PoolScope scope;
    Connection c;
    ASSERT_TRUE(c.Make());
    Signal in;
    std::atomic<long long> mask_during{0};
    std::atomic<int> removed_result{1};
    Probe h;
    h.on_input = [&](int fd) {
        char buf[16];
        c.server.Recv(buf, sizeof buf);
        removed_result = h.RemoveSock(c.server);
        mask_during = registered_mask(0, fd);  // still there, marked for deletion
        in.Add();
        return 5000;  // ignored: the record goes
    };
    ASSERT_EQ(h.RegisterSock(c.server, MASK_READ, 2000000), 0);
    ASSERT_EQ(c.client.Send("a", 1), 1);
    ASSERT_TRUE(in.WaitFor(1));
    EXPECT_EQ(removed_result.load(), 0);
    EXPECT_EQ(mask_during.load(), MASK_DELETE);
    EXPECT_TRUE(eventually([&] { return registered_mask(0, c.server.GetHandle()) == -1; }));

    // Remove and register again inside one callback: the registration stays, and the
    // object's socket count is whole again (no complaint at destruction).
    LogCapture log(6);
    Signal second;
    h.on_input = [&](int) {
        char buf[16];
        c.server.Recv(buf, sizeof buf);
        h.RemoveSock(c.server);
        h.RegisterSock(c.server, MASK_READ, 0);
        second.Add();
        return 0;
    };
    ASSERT_EQ(h.RegisterSock(c.server, MASK_READ, 0), 0);
    ASSERT_EQ(c.client.Send("b", 1), 1);
    ASSERT_TRUE(second.WaitFor(1));
    ASSERT_EQ(c.client.Send("c", 1), 1);
    EXPECT_TRUE(second.WaitFor(2));  // still registered, still delivered
    EXPECT_EQ(registered_mask(0, c.server.GetHandle()), MASK_READ);
    EXPECT_EQ(h.RemoveSock(c.server), 0);
    h.Close();
    EXPECT_FALSE(log.Contains("some sockets registered"));
}

TEST(Registry, ExceptionalConditionsGoToHandleExceptionAlone)
{
    PoolScope scope;
    Connection c;
    ASSERT_TRUE(c.Make());
    Signal exception;
    std::atomic<int> inputs{0};
    Probe h;
    h.on_input = [&](int) {
        ++inputs;
        return 0;
    };
    h.on_exception = [&](int) {
        exception.Add();
        h.UnregisterSock(c.server, MASK_EXCEPT | MASK_READ);
        return -1;
    };
    ASSERT_EQ(h.RegisterSock(c.server, MASK_READ | MASK_EXCEPT, 0), 0);
    // Out-of-band data is the exceptional condition both systems report.
    ASSERT_EQ(::send(c.client.GetHandle(), "!", 1, MSG_OOB), 1);
    EXPECT_TRUE(exception.WaitFor(1));
    EXPECT_EQ(inputs.load(), 0);
    h.RemoveSock(c.server);
    h.Close();
}

TEST(Registry, ProtectedRegistrationsRefuseOtherObjects)
{
    PoolScope scope;
    LogCapture log(6);
    Connection c;
    ASSERT_TRUE(c.Make());
    Probe owner, other;
    ASSERT_EQ(owner.RegisterSock(c.server, MASK_READ | MASK_PROTECT, 0), 0);
    EXPECT_EQ(other.RegisterSock(c.server, MASK_WRITE, 0), -1);
    EXPECT_TRUE(log.Contains("modify a protected socket event failed, socket:" + std::to_string(c.server.GetHandle())));
    EXPECT_TRUE(log.Contains("owner type:Qelvar::Test::Probe"));
    EXPECT_EQ(other.UnregisterSock(c.server, MASK_READ), -1);
    EXPECT_TRUE(log.Contains("unregister a protected socket event failed"));
    EXPECT_EQ(other.RemoveSock(c.server), -1);
    EXPECT_TRUE(log.Contains("remove a protected socket failed"));
    EXPECT_EQ(registered_mask(0, c.server.GetHandle()), MASK_READ | MASK_PROTECT);
    EXPECT_EQ(owner.RegisterSock(c.server, MASK_WRITE, 0), 0);
    EXPECT_EQ(owner.RemoveSock(c.server), 0);
    owner.Close();
    other.Close();
}

TEST(Registry, BadHandlesAndClosedObjects)
{
    PoolScope scope;
    LogCapture log(6);
    Probe h;
    CSockStream unopened;
    EXPECT_EQ(h.RegisterSock(unopened, MASK_READ, 0), -1);
    EXPECT_TRUE(log.Contains("RegisterSock sock fd error, fd: -1"));
    EXPECT_TRUE(log.Contains("CNetSock Register an invalid sock"));

    CSock standard;
    standard.Attach(0);  // stdin: accepted with a warning (the system may still refuse to watch it)
    h.RegisterSock(standard, MASK_READ, 0);
    EXPECT_TRUE(log.Contains("RegisterSock sock fd specially with standard stream value: 0"));
    h.RemoveSock(standard);
    standard.Detach();

    Connection c;
    ASSERT_TRUE(c.Make());
    h.Close();
    EXPECT_EQ(h.RegisterSock(c.server, MASK_READ, 0), -1);  // closed: refused without a record
    EXPECT_EQ(registered_mask(0, c.server.GetHandle()), -1);
}

// Events for an object that was closed meanwhile find nobody: they are dropped and the
// socket's time-out cancelled, never a call on freed memory.
TEST(Registry, EventsForAClosedObjectAreDropped)
{
    PoolScope scope;
    LogCapture log(6);
    Connection c;
    ASSERT_TRUE(c.Make());
    CNetThread::AddSockTrace(c.server.GetHandle());
    CNetThread::SetSockTrace(true);
    Signal closed;
    std::atomic<int> calls{0};
    auto* h = new Probe(0, &closed, true);
    h->on_input = [&](int) {
        ++calls;
        return 0;
    };
    ASSERT_EQ(h->RegisterSock(c.server, MASK_READ, 3000000), 0);
    h->Close();  // without RemoveSock: the registration outlives its owner
    ASSERT_TRUE(closed.WaitFor(1));
    ASSERT_EQ(c.client.Send("late", 4), 4);
    EXPECT_TRUE(log.WaitFor("handle sock net event: not found obj", 5s));
    EXPECT_EQ(calls.load(), 0);
    CNetThread::SetSockTrace(false);
    CNetThread::RemoveSockTrace(c.server.GetHandle());
}

TEST(Registry, CallbacksMayRegisterAndRemoveOtherSockets)
{
    PoolScope scope;
    Connection a, b;
    ASSERT_TRUE(a.Make() && b.Make());
    Signal got_b;
    Probe h;
    h.on_input = [&](int fd) {
        char buf[16];
        if (fd == a.server.GetHandle()) {
            a.server.Recv(buf, sizeof buf);
            h.RemoveSock(a.server);
            h.RegisterSock(b.server, MASK_READ, 0);
        } else {
            b.server.Recv(buf, sizeof buf);
            got_b.Add();
        }
        return 0;
    };
    ASSERT_EQ(h.RegisterSock(a.server, MASK_READ, 0), 0);
    ASSERT_EQ(a.client.Send("a", 1), 1);
    EXPECT_TRUE(eventually([&] { return registered_mask(0, b.server.GetHandle()) == MASK_READ; }));
    EXPECT_EQ(registered_mask(0, a.server.GetHandle()), -1);
    ASSERT_EQ(b.client.Send("b", 1), 1);
    EXPECT_TRUE(got_b.WaitFor(1));
    h.RemoveSock(b.server);
    h.Close();
}

TEST(Registry, CheckSockWithdrawsWriteFromReadersAndRemovesTheRest)
{
    PoolScope scope;
    Connection a, b;
    ASSERT_TRUE(a.Make() && b.Make());
    Probe h;
    ASSERT_EQ(h.RegisterSock(a.server, MASK_READ | MASK_WRITE, 0), 0);
    ASSERT_EQ(h.RegisterSock(b.server, MASK_WRITE, 0), 0);
    EXPECT_EQ(h.CheckSock(a.server), 0);
    EXPECT_EQ(h.CheckSock(b.server), 0);
    EXPECT_TRUE(eventually([&] { return registered_mask(0, a.server.GetHandle()) == MASK_READ; }));
    // A write-only record in a worker's hands goes when its callback returns.
    EXPECT_TRUE(eventually([&] { return registered_mask(0, b.server.GetHandle()) == -1; }));
    h.RemoveSock(a.server);
    h.Close();
}

// A record found already queued is refused, not queued a second time.
TEST(Registry, ARecordFoundQueuedTwiceIsRefused)
{
    PoolScope scope;
    LogCapture log(6);
    Connection c;
    ASSERT_TRUE(c.Make());
    Signal in;
    Probe h;
    h.on_input = [&](int) {
        in.Add();
        return 0;
    };
    ASSERT_EQ(h.RegisterSock(c.server, MASK_READ, 0), 0);
    auto mark = [&](std::uint32_t ready) {
        CThreadPool::with_pool(0, false, [&](CThreadPool& pool) {
            std::shared_lock<Qelvar::Fundel::CReadWriteMutex> table(pool.Sockets().Lock());
            SEvent* ev = pool.Sockets().Find(c.server.GetHandle());
            std::lock_guard<Qelvar::Fundel::CMutex> record(ev->m_mutex);
            ev->m_evready = ready;
            return true;
        });
    };
    mark(1);  // as if it sat in a worker queue
    ASSERT_EQ(c.client.Send("q", 1), 1);
    EXPECT_TRUE(log.WaitFor("event already in queue, key:" + std::to_string(c.server.GetHandle()), 5s));
    EXPECT_EQ(in.Count(), 0);
    mark(0);
    h.RemoveSock(c.server);
    h.Close();
}

// The peer resets the connection while its callback runs: the next event reports the
// failure to the handler, which ends the registration; nothing hangs or crashes.
TEST(Registry, APeerResetDuringACallbackIsSeenByTheNextOne)
{
    PoolScope scope;
    Connection c;
    ASSERT_TRUE(c.Make());
    Signal entered, reset, failed;
    Probe h;
    h.on_input = [&](int) {
        entered.Add();
        reset.WaitFor(1);
        char buf[64];
        while (true) {
            const int n = c.server.Recv(buf, sizeof buf);
            if (n > 0) continue;
            if (n < 0) {
                h.RemoveSock(c.server);
                failed.Add();
            }
            return 0;
        }
    };
    ASSERT_EQ(h.RegisterSock(c.server, MASK_READ, 0), 0);
    ASSERT_EQ(c.client.Send("r", 1), 1);
    ASSERT_TRUE(entered.WaitFor(1));
    const linger abort_on_close{1, 0};  // close sends a reset
    Qelvar::Platform::sock_setopt(c.client.GetHandle(), SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close);
    c.client.Close();
    reset.Add();
    EXPECT_TRUE(failed.WaitFor(1));
    EXPECT_TRUE(eventually([&] { return registered_mask(0, c.server.GetHandle()) == -1; }));
    h.Close();
}
