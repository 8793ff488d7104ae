// Echo server on standalone asio: every byte read on a connection is written back.
//
//   asio_echo --port P [--threads N] [--bind ADDR]
//
// One io_context run by N threads (asio's usual multi-threaded server), with a
// concurrency hint of 1 when there is a single thread, so the scheduler knows it needs
// no cross-thread hand-off. Each session is one chain async_read_some -> async_write ->
// async_read_some on its own buffer, so its handlers never run at the same time and no
// strand is needed.
#include "PeerCommon.h"

#include <asio.hpp>

#include <array>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace {

using asio::ip::tcp;

class Session : public std::enable_shared_from_this<Session> {
public:
    explicit Session(tcp::socket socket) : m_socket(std::move(socket)) {}

    void Read()
    {
        m_socket.async_read_some(asio::buffer(m_buf),
                                 [self = shared_from_this()](std::error_code ec, std::size_t n) {
                                     if (!ec) {
                                         self->Write(n);
                                     }
                                 });
    }

private:
    void Write(std::size_t n)
    {
        asio::async_write(m_socket, asio::buffer(m_buf.data(), n),
                          [self = shared_from_this()](std::error_code ec, std::size_t) {
                              if (!ec) {
                                  self->Read();
                              }
                          });
    }

    tcp::socket m_socket;
    std::array<char, PeerEcho::kReadSize> m_buf;
};

class Server {
public:
    Server(asio::io_context& io, const tcp::endpoint& endpoint) : m_acceptor(io)
    {
        m_acceptor.open(endpoint.protocol());
        m_acceptor.set_option(tcp::acceptor::reuse_address(true));
        m_acceptor.bind(endpoint);
        m_acceptor.listen(PeerEcho::kBacklog);
        Accept();
    }

private:
    void Accept()
    {
        m_acceptor.async_accept([this](std::error_code ec, tcp::socket socket) {
            if (!ec) {
                socket.set_option(tcp::no_delay(true), ec);
                std::make_shared<Session>(std::move(socket))->Read();
            }
            Accept();
        });
    }

    tcp::acceptor m_acceptor;
};

}  // namespace

int main(int argc, char** argv)
{
    PeerEcho::Options options = PeerEcho::ParseOptions(argc, argv);
    try {
        asio::io_context io(options.threads);
        tcp::endpoint endpoint(asio::ip::make_address(options.bind),
                               static_cast<unsigned short>(options.port));
        Server server(io, endpoint);

        std::vector<std::thread> threads;
        for (int i = 1; i < options.threads; ++i) {
            threads.emplace_back([&io] { io.run(); });
        }
        io.run();
        for (std::thread& thread : threads) {
            thread.join();
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "echo server: %s\n", e.what());
        return 1;
    }
    return 0;
}
