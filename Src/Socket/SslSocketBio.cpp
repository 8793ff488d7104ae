#include "Socket/SslSocketBio.h"

#include <cstdint>
#include <mutex>

#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Socket/SockDetail.h"

namespace Qelvar::Corvane {

namespace {

BIO_METHOD* g_method = nullptr;

int fd_of(BIO* bio)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio)));
}

}  // namespace

BIO* CSslSocketBio::New(int fd)
{
    static std::once_flag made;
    std::call_once(made, [] {
        // A descriptor type, so that SSL_get_fd finds the socket.
        g_method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "Corvane socket");
        if (!g_method) return;
        BIO_meth_set_write(g_method, write);
        BIO_meth_set_read(g_method, read);
        BIO_meth_set_ctrl(g_method, ctrl);
        BIO_meth_set_create(g_method, create);
    });
    if (!g_method) return nullptr;
    BIO* bio = BIO_new(g_method);
    if (bio) BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)));
    return bio;
}

int CSslSocketBio::create(BIO* bio)
{
    BIO_set_init(bio, 1);
    return 1;
}

int CSslSocketBio::write(BIO* bio, const char* buf, int len)
{
    BIO_clear_retry_flags(bio);
    const long n = Platform::sock_send(fd_of(bio), buf, static_cast<std::size_t>(len));
    if (n < 0 && try_later(Platform::last_error())) BIO_set_retry_write(bio);
    return static_cast<int>(n);
}

int CSslSocketBio::read(BIO* bio, char* buf, int len)
{
    BIO_clear_retry_flags(bio);
    const long n = Platform::sock_recv(fd_of(bio), buf, static_cast<std::size_t>(len));
    if (n < 0 && try_later(Platform::last_error())) BIO_set_retry_read(bio);
    return static_cast<int>(n);
}

long CSslSocketBio::ctrl(BIO* bio, int cmd, long, void* ptr)
{
    switch (cmd) {
    case BIO_C_GET_FD:
        if (ptr) *static_cast<int*>(ptr) = fd_of(bio);
        return fd_of(bio);
    case BIO_CTRL_FLUSH:
        return 1;  // nothing is buffered here
    default:
        return 0;
    }
}

}  // namespace Qelvar::Corvane
