// TLS echo server on standalone asio's ssl::stream over the same OpenSSL as Corvane:
// every byte read on a connection is written back.
//
//   asio_tls_echo --port P --cert-dir DIR [--threads N] [--bind ADDR]
//
// DIR holds cacert.pem and privkey.pem. Configured like the Corvane TLS echo server it
// is compared with: the server session cache and session tickets are on, TLS 1.2 and
// 1.3 allowed. One io_context run by N threads; each session is one chain handshake ->
// read -> write -> read, so its handlers never overlap and no strand is needed.
#include "PeerCommon.h"

#include <asio.hpp>
#include <asio/ssl.hpp>

#include <array>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace {

using asio::ip::tcp;
using TlsSocket = asio::ssl::stream<tcp::socket>;

class Session : public std::enable_shared_from_this<Session> {
public:
    Session(tcp::socket socket, asio::ssl::context& context) : m_stream(std::move(socket), context) {}

    void Start()
    {
        m_stream.async_handshake(asio::ssl::stream_base::server, [self = shared_from_this()](std::error_code ec) {
            if (!ec) self->Read();
        });
    }

private:
    void Read()
    {
        m_stream.async_read_some(asio::buffer(m_buf), [self = shared_from_this()](std::error_code ec, std::size_t n) {
            if (!ec) self->Write(n);
        });
    }

    void Write(std::size_t n)
    {
        asio::async_write(m_stream, asio::buffer(m_buf.data(), n),
                          [self = shared_from_this()](std::error_code ec, std::size_t) {
                              if (!ec) self->Read();
                          });
    }

    TlsSocket m_stream;
    std::array<char, PeerEcho::kReadSize> m_buf;
};

class Server {
public:
    Server(asio::io_context& io, const tcp::endpoint& endpoint, asio::ssl::context& context)
        : m_acceptor(io), m_context(context)
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
                std::make_shared<Session>(std::move(socket), m_context)->Start();
            }
            Accept();
        });
    }

    tcp::acceptor m_acceptor;
    asio::ssl::context& m_context;
};

}  // namespace

int main(int argc, char** argv)
{
    PeerEcho::Options options = PeerEcho::ParseOptions(argc, argv);
    if (options.cert_dir.empty()) PeerEcho::Usage(argv[0]);
    try {
        asio::ssl::context context(asio::ssl::context::tls_server);
        context.use_certificate_chain_file(options.cert_dir + "/cacert.pem");
        context.use_private_key_file(options.cert_dir + "/privkey.pem", asio::ssl::context::pem);
        SSL_CTX* native = context.native_handle();
        SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_SERVER);
        static const unsigned char kIdContext[] = "asio-tls-echo";
        SSL_CTX_set_session_id_context(native, kIdContext, sizeof kIdContext - 1);

        asio::io_context io(options.threads);
        tcp::endpoint endpoint(asio::ip::make_address(options.bind), static_cast<unsigned short>(options.port));
        Server server(io, endpoint, context);
        std::vector<std::thread> threads;
        for (int i = 1; i < options.threads; ++i) threads.emplace_back([&io] { io.run(); });
        io.run();
        for (std::thread& thread : threads) thread.join();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "TLS echo server: %s\n", e.what());
        return 1;
    }
    return 0;
}
