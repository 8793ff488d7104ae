// CSockStream: the TCP stream socket.
#pragma once

#include <Corvane/IoVec.h>
#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

/// A TCP stream (type 1).
///
/// Transfers return the byte count when positive, 0 when the call would block or was
/// interrupted (try again later), and -1 on failure or when the peer has closed (then
/// with the thread's socket error set to connection reset).
class CORVANE_API CSockStream : public CSock {
public:
    CSockStream();
    ~CSockStream() override = default;
    CSockStream(const CSockStream&) = default;
    CSockStream& operator=(const CSockStream&) = default;

    /// Creates the socket for the family of `remote` (replacing one already held),
    /// applies the blocking flag, binds to `local` when given and connects. In
    /// non-blocking mode 0 means the connect has started: wait for writability, then
    /// ask GetConnectStatus().
    int Connect(const CSockAddr& remote, CSockAddr* local);
    /// A blocking connect that gives up after `timeout_ms`; the blocking flag is kept.
    int synConnect(const CSockAddr& remote, CSockAddr* local, int timeout_ms);
    /// Creates the socket and binds it to `local`, without connecting.
    int OpenEx(CSockAddr* local);
    /// Connects a socket made by OpenEx; the two last arguments are ignored.
    int ConnectEx(const CSockAddr& remote, bool unused_flag = false, int unused_value = 0);
    /// 0 when the connect succeeded, -2 when it failed or cannot be told.
    int GetConnectStatus();

    /// One send; buf must not be null nor len 0.
    int Send(const char* buf, unsigned int len);
    /// One gathered send of at most 1024 elements (more are cut).
    int WriteV(const iovec* vec, int count);
    /// One receive.
    int Recv(char* buf, unsigned int len);
    /// Sends until everything is gone, waiting for writability up to `timeout_us` per
    /// wait. The bytes sent (fewer when a wait timed out), or -1.
    int Send_n(const char* buf, unsigned int len, int timeout_us);
    /// Waits up to `timeout_us` for data and receives once: the bytes of that one
    /// receive (possibly fewer than `len`), 0 on time-out or for a timeout of 0, or -1.
    int Recv_n(char* buf, unsigned int len, int timeout_us);

    int SetSockRecvBuf(unsigned int bytes);
    int GetSockRecvBuf();
    int SetSockSendBuf(unsigned int bytes);
    int GetSockSendBuf();
    int SetSockKeepAlive(bool on);
    int SetSockNoDelay(bool on);
    /// IP_TOS; a value above 255 is refused.
    int SetSockQos(int dscp);
    /// SO_PRIORITY (Linux); refused on Windows.
    int SetSockPriority(int priority);
    /// Close-on-exec on or off (Linux; every socket starts with it on); refused on Windows.
    int SetSockCLOEXEC(bool on);

private:
    int open_for(const CSockAddr& remote, const CSockAddr* local, const char* function);
    int create_socket(unsigned int family, const char* function);
    int bind_local(const CSockAddr& local, const char* function);
    int connect_to(const CSockAddr& remote, bool tolerate_pending, const char* function);
    int set_io_timeouts(int ms, const char* function);
};

}  // namespace Qelvar::Corvane
