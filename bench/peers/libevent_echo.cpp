// Echo server on libevent 2.1: every byte read on a connection is written back.
//
//   libevent_echo --port P [--threads N] [--bind ADDR]
//
// One event_base per thread, each with its own listener on the same port (SO_REUSEPORT),
// so the kernel spreads the connections over the threads and no thread touches another's
// base. Connections use raw persistent read events rather than bufferevents: a read is
// answered at once with a send from the same buffer, and only a send that could not take
// everything arms a write event (and parks the read event until the rest is out), which
// is how a libevent user who cares about cost writes an echo.
#include "PeerCommon.h"

#include <event2/event.h>
#include <event2/listener.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

namespace {

struct Connection {
    int fd = -1;
    event* read_event = nullptr;
    event* write_event = nullptr;
    std::size_t pending_from = 0;  // bytes of buf still to send: [pending_from, pending_to)
    std::size_t pending_to = 0;
    char buf[PeerEcho::kReadSize];
};

void Close(Connection* conn)
{
    event_free(conn->read_event);
    event_free(conn->write_event);
    close(conn->fd);
    delete conn;
}

/// Sends what is pending; true when it is all out, false when the socket is full.
/// Closes the connection (and returns false) on an error; `*closed` says so.
bool SendPending(Connection* conn, bool* closed)
{
    while (conn->pending_from < conn->pending_to) {
        ssize_t n = send(conn->fd, conn->buf + conn->pending_from,
                         conn->pending_to - conn->pending_from, MSG_NOSIGNAL);
        if (n > 0) {
            conn->pending_from += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return false;
        } else {
            Close(conn);
            *closed = true;
            return false;
        }
    }
    return true;
}

void OnWritable(evutil_socket_t, short, void* arg)
{
    auto* conn = static_cast<Connection*>(arg);
    bool closed = false;
    if (SendPending(conn, &closed)) {
        event_del(conn->write_event);
        event_add(conn->read_event, nullptr);
    }
}

void OnReadable(evutil_socket_t fd, short, void* arg)
{
    auto* conn = static_cast<Connection*>(arg);
    ssize_t n = recv(fd, conn->buf, sizeof conn->buf, 0);
    if (n <= 0) {
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            return;
        }
        Close(conn);  // end of stream or an error
        return;
    }
    conn->pending_from = 0;
    conn->pending_to = static_cast<std::size_t>(n);
    bool closed = false;
    if (!SendPending(conn, &closed) && !closed) {
        event_del(conn->read_event);
        event_add(conn->write_event, nullptr);
    }
}

void OnAccept(evconnlistener* listener, evutil_socket_t fd, sockaddr*, int, void*)
{
    event_base* base = evconnlistener_get_base(listener);
    PeerEcho::SetNoDelay(fd);
    auto* conn = new Connection;
    conn->fd = fd;
    conn->read_event = event_new(base, fd, EV_READ | EV_PERSIST, OnReadable, conn);
    conn->write_event = event_new(base, fd, EV_WRITE | EV_PERSIST, OnWritable, conn);
    if (!conn->read_event || !conn->write_event) {
        PeerEcho::Die("event_new");
    }
    event_add(conn->read_event, nullptr);
}

struct Loop {
    event_base* base = nullptr;
    evconnlistener* listener = nullptr;
};

}  // namespace

int main(int argc, char** argv)
{
    PeerEcho::Options options = PeerEcho::ParseOptions(argc, argv);

    // Every loop listens before any runs, so the first connection already finds them all.
    std::vector<Loop> loops(static_cast<std::size_t>(options.threads));
    for (Loop& loop : loops) {
        loop.base = event_base_new();
        if (!loop.base) {
            PeerEcho::Die("event_base_new");
        }
        // Backlog 0: the socket is already listening.
        loop.listener = evconnlistener_new(loop.base, OnAccept, nullptr, LEV_OPT_CLOSE_ON_FREE,
                                           0, PeerEcho::OpenListener(options));
        if (!loop.listener) {
            PeerEcho::Die("evconnlistener_new");
        }
    }

    std::vector<std::thread> threads;
    for (std::size_t i = 1; i < loops.size(); ++i) {
        threads.emplace_back([base = loops[i].base] { event_base_dispatch(base); });
    }
    event_base_dispatch(loops[0].base);
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 0;
}
