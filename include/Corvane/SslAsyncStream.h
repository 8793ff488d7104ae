// CSslAsyncStream: a TLS client stream driven by the reactor.
#pragma once

#include <Corvane/IoVec.h>
#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

class CNetHandler;
class CProxyHandler;
class CSockAddr;
class CSslX509;

/// A TLS client stream for handlers (type 8). Connect starts a non-blocking TCP connect;
/// then register your handler for it with MASK_WRITE and a time-out, as for a plain
/// stream. While the connect and the handshake run, an internal handler takes the
/// socket's events in your place; when they are over your handler gets one writable
/// event (handle_output), where GetConnectStatus() tells the outcome: 0 connected, -1
/// failed. A handshake that does not finish within your time-out reaches you as
/// handle_output_timeout; an error on the socket as handle_exception.
///
/// After the hand-over the stream is yours as any registered socket: register MASK_READ
/// to read, withdraw MASK_WRITE when you have nothing to send. Transfers are those of
/// CSslStream. TLS may hold decrypted bytes that the socket no longer shows as readable:
/// in handle_input, call Recv until it returns 0.
///
/// The TCP socket has Nagle's algorithm off (TCP_NODELAY): TLS writes whole records.
///
/// Options are those of CSslStream (the handshake time-out of option 4 does not apply:
/// your registration time-out bounds the handshake). Needs the public thread pool: the
/// internal handler lives there. Results are 0 or -1 unless stated; without its internal
/// handler every call logs "The proxy object initialization failed!" and fails.
class CORVANE_API CSslAsyncStream : public CSock {
public:
    CSslAsyncStream();
    /// Releases the connection, its internal handler and the socket.
    ~CSslAsyncStream() override;
    CSslAsyncStream(const CSslAsyncStream&) = delete;
    CSslAsyncStream& operator=(const CSslAsyncStream&) = delete;

    /// Starts connecting to `remote` (from `local` when given): 0 when under way.
    int Connect(const CSockAddr& remote, CSockAddr* local);
    /// -2 connecting, 0 connected (handshake done), -1 failed.
    int GetConnectStatus();

    /// Transfers after the hand-over, with the results of CSslStream's: a byte count,
    /// 0 when nothing can be done now, -1 on failure or a closed peer.
    int Send(const char* buf, unsigned int len);
    int Recv(char* buf, unsigned int len);
    int Peek();
    int WriteV(const iovec* vec, int count);
    /// The bounded waits of CSslStream; they block the calling thread.
    int Send_n(const char* buf, unsigned int len, int timeout_ms);
    int Recv_n(char* buf, unsigned int len, int timeout_ms);

    /// Options as on CSslStream; they apply to the next Connect.
    int SetOption(int option, int type, void* value);
    int SetOption(int option, int type, void* value, int length);
    int GetOption(int option, int& type, void* value, int& length);
    /// The directory holding cacert.pem and privkey.pem to present (client certificate).
    int SetPemPath(const char* dir);
    /// 0, -1 without a connection or `cert`, -2 when the peer sent no certificate.
    int GetPeerCert(CSslX509* cert);
    /// 1 when the handshake resumed a cached session, else 0.
    int IsSessionReused();

    /// Socket options of the underlying TCP socket, as on CSockStream.
    int SetSockRecvBuf(unsigned int bytes);
    int GetSockRecvBuf();
    int SetSockSendBuf(unsigned int bytes);
    int GetSockSendBuf();
    int SetSockCLOEXEC(bool on);

    /// Called by the reactor for registrations of this stream. Until the hand-over the
    /// internal handler registers, withdraws or removes its own interest (these return
    /// -1: the reactor does nothing more); afterwards they return 0 and the reactor
    /// handles your handler's registration itself.
    int doProxyRegister(CNetHandler* handler, CSock& sock, unsigned int mask, int timeout) override;
    int doProxyUnregisterSock(CNetHandler* handler, CSock& sock, unsigned int mask) override;
    int doProxyRemoveSock(CNetHandler* handler, CSock& sock) override;

private:
    friend class CProxyHandler;
    friend class CProxyAcceptHandler;

    bool proxy_ready(const char* function) const;

    CProxyHandler* m_proxy;
};

}  // namespace Qelvar::Corvane
