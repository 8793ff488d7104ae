// CSslStream: a TLS client connection used from the caller's own thread.
#pragma once

#include <Corvane/IoVec.h>
#include <Corvane/Sock.h>

#include <memory>

struct ssl_st;

namespace Qelvar::Corvane {

class CSockAddr;
class CSockStream;
class CSslX509;

/// A TLS stream (type 3). Connect runs the client handshake in blocking mode, bounded by
/// the handshake time-out (option 4, 5000 ms by default); afterwards the stream is
/// non-blocking and owns the socket. CSslAcceptor hands accepted connections over as
/// objects of this class too.
///
/// Transfers return the byte count when positive, 0 when nothing can be done now (try
/// again when the socket is ready), -1 on failure or when the peer has closed.
///
/// Options (SetOption(option, type, value)):
///  - 0 sessions: type = flags; non-zero resumes sessions from a process-wide cache
///    (bit 0 picks the first of two caches, bit 1 allows tickets, bit 2 keys sessions by
///    the unsigned id `*value` instead of the peer address; id 0 asks for a new id,
///    which GetOption(0, ...) returns after the first connection);
///  - 1 certificate object: type bit 0 verifies the server against its trusted CAs,
///    bit 1 presents its certificate; the stream takes the CSslX509 over;
///  - 2 protocol bans (OR-ed in): bit 0 SSLv2, 1 SSLv3, 2 TLS 1.0, 3 TLS 1.1;
///  - 3 cipher list: type 1 uses the string `value` (copied);
///  - 4 handshake time-out: type 0 with `*value` in milliseconds;
///  - 5 private-key pass phrase; 6 server name (SNI).
/// Options change the next Connect only.
class CORVANE_API CSslStream : public CSock {
public:
    CSslStream();
    /// Shuts the TLS connection down, then closes the socket.
    ~CSslStream() override;
    CSslStream(const CSslStream&) = delete;
    CSslStream& operator=(const CSslStream&) = delete;

    /// Connects a new TCP socket to `remote` (bound to `local` when given) and runs the
    /// handshake. 0 or -1; the address must be IPv4, IPv6 or a storage.
    int Connect(const CSockAddr& remote, CSockAddr* local);
    /// Runs the handshake over a connected stream. On success (0) the stream's socket
    /// now belongs to this object and `stream` is deleted; on failure (-1) the stream is
    /// left open and still the caller's.
    int Connect(CSockStream* stream);

    /// One TLS write of up to `len` bytes (a part may be taken: send the rest later).
    int Send(const char* buf, unsigned int len);
    /// Reads only what TLS has already decrypted or can decrypt without blocking.
    int Recv(char* buf, unsigned int len);
    /// Decrypted bytes ready to read: > 0, 0 when none now, -1 on failure.
    int Peek();
    /// Sends the elements in order; stops after one written in part. The total written,
    /// or the last Send's result (0 or -1) when nothing was.
    int WriteV(const iovec* vec, int count);
    /// Sends all of `len` within `timeout_ms`: the bytes sent (fewer after a time-out),
    /// or -1.
    int Send_n(const char* buf, unsigned int len, int timeout_ms);
    /// Waits up to `timeout_ms` for data and returns the bytes of the first successful
    /// read (possibly fewer than `len`), 0 on time-out or for a time-out of 0, or -1.
    int Recv_n(char* buf, unsigned int len, int timeout_ms);

    /// See the class comment. 0, or -1 when a value is missing.
    int SetOption(int option, int type, void* value);
    /// As above; text and buffer values are `length` bytes.
    int SetOption(int option, int type, void* value, int length);
    /// Option 0: `type` = the session flags and, with bit 2, `*(unsigned int*)value` =
    /// the session id. Option 4: the kind in `type`, the milliseconds in `*(int*)value`.
    /// Options 1-3: their type only. 0, or -1 for another option.
    int GetOption(int option, int& type, void* value, int& length);
    /// The directory holding cacert.pem and privkey.pem to present (client certificate).
    int SetPemPath(const char* dir);
    /// Gives the peer's certificate to `cert`: 0, -1 without a connection or `cert`,
    /// -2 when the peer sent none.
    int GetPeerCert(CSslX509* cert);
    /// 1 when the last handshake resumed a cached session, else 0.
    int IsSessionReused() const;

    /// Socket options of the underlying TCP socket, as on CSockStream: the receive and
    /// send buffer sizes (the getters return the size or -1) and close-on-exec.
    int SetSockRecvBuf(unsigned int bytes);
    int GetSockRecvBuf();
    int SetSockSendBuf(unsigned int bytes);
    int GetSockSendBuf();
    int SetSockCLOEXEC(bool on);

private:
    friend class CSslAcceptor;
    struct SImpl;

    int handshake(CSockStream* stream);
    void release_connection();
    /// Takes over a connection established by an acceptor.
    void adopt(ssl_st* ssl, CSockStream* stream);

    std::unique_ptr<SImpl> m_impl;
};

}  // namespace Qelvar::Corvane
