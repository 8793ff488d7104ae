// Echo server on libuv 1.x: every byte read on a connection is written back.
//
//   libuv_echo --port P [--threads N] [--bind ADDR]
//
// One uv_loop_t per thread, each with its own listening socket on the same port
// (SO_REUSEPORT, set before the socket is handed to uv_tcp_open, since this libuv has no
// flag for it), so the kernel spreads the connections over the loops. Each connection
// reads into its own buffer and answers with uv_try_write; only when the socket cannot
// take everything does the rest go out through uv_write, with reading stopped until its
// callback, so the buffer is never overwritten while queued.
#include "PeerCommon.h"

#include <uv.h>

#include <memory>
#include <thread>
#include <vector>

namespace {

struct Connection {
    uv_tcp_t tcp;
    uv_write_t write_req;
    char buf[PeerEcho::kReadSize];
};

Connection* Of(uv_handle_t* handle) { return static_cast<Connection*>(handle->data); }

void OnClosed(uv_handle_t* handle) { delete Of(handle); }

void Close(uv_stream_t* stream)
{
    if (!uv_is_closing(reinterpret_cast<uv_handle_t*>(stream))) {
        uv_close(reinterpret_cast<uv_handle_t*>(stream), OnClosed);
    }
}

void OnAlloc(uv_handle_t* handle, std::size_t, uv_buf_t* buf)
{
    Connection* conn = Of(handle);
    *buf = uv_buf_init(conn->buf, sizeof conn->buf);
}

void OnRead(uv_stream_t* stream, ssize_t nread, const uv_buf_t* buf);

void OnWritten(uv_write_t* req, int status)
{
    auto* stream = req->handle;
    if (status < 0 || uv_read_start(stream, OnAlloc, OnRead) != 0) {
        Close(stream);
    }
}

void OnRead(uv_stream_t* stream, ssize_t nread, const uv_buf_t* buf)
{
    if (nread < 0) {
        Close(stream);  // UV_EOF or an error
        return;
    }
    if (nread == 0) {
        return;
    }
    uv_buf_t data = uv_buf_init(buf->base, static_cast<unsigned int>(nread));
    int written = uv_try_write(stream, &data, 1);
    if (written == nread) {
        return;
    }
    if (written < 0 && written != UV_EAGAIN) {
        Close(stream);
        return;
    }
    if (written > 0) {
        data.base += written;
        data.len -= static_cast<unsigned int>(written);
    }
    Connection* conn = Of(reinterpret_cast<uv_handle_t*>(stream));
    uv_read_stop(stream);
    if (uv_write(&conn->write_req, stream, &data, 1, OnWritten) != 0) {
        Close(stream);
    }
}

void OnConnection(uv_stream_t* server, int status)
{
    if (status < 0) {
        return;
    }
    auto* conn = new Connection;
    uv_tcp_init(server->loop, &conn->tcp);
    conn->tcp.data = conn;
    auto* stream = reinterpret_cast<uv_stream_t*>(&conn->tcp);
    if (uv_accept(server, stream) != 0) {
        Close(stream);
        return;
    }
    uv_tcp_nodelay(&conn->tcp, 1);
    if (uv_read_start(stream, OnAlloc, OnRead) != 0) {
        Close(stream);
    }
}

struct Loop {
    uv_loop_t loop;
    uv_tcp_t listener;
};

}  // namespace

int main(int argc, char** argv)
{
    PeerEcho::Options options = PeerEcho::ParseOptions(argc, argv);

    // Every loop listens before any runs, so the first connection already finds them all.
    std::vector<std::unique_ptr<Loop>> loops;
    for (int i = 0; i < options.threads; ++i) {
        auto loop = std::make_unique<Loop>();
        if (uv_loop_init(&loop->loop) != 0 || uv_tcp_init(&loop->loop, &loop->listener) != 0 ||
            uv_tcp_open(&loop->listener, PeerEcho::OpenListener(options)) != 0 ||
            uv_listen(reinterpret_cast<uv_stream_t*>(&loop->listener), PeerEcho::kBacklog,
                      OnConnection) != 0) {
            PeerEcho::Die("libuv listener");
        }
        loops.push_back(std::move(loop));
    }

    std::vector<std::thread> threads;
    for (std::size_t i = 1; i < loops.size(); ++i) {
        threads.emplace_back([loop = &loops[i]->loop] { uv_run(loop, UV_RUN_DEFAULT); });
    }
    uv_run(&loops[0]->loop, UV_RUN_DEFAULT);
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 0;
}
