// CSslAsyncAcceptor: a TLS listening socket driven by the reactor.
#pragma once

#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

class CNetHandler;
class CProxyAcceptHandler;
class CSockAddr;
class CSslAsyncStream;

/// A TLS listening socket for handlers (type 8). Open it, then register your handler for
/// it with MASK_READ and a time-out. An internal handler accepts the TCP connections and
/// runs each server handshake on reactor events; every time a connection has finished
/// its handshake (or failed it) your handle_input is called with the listening handle,
/// and you call Accept until it returns null. Accepted streams are connected and handed
/// over already: register your handler for them directly.
///
/// The registration time-out applies to the listening socket and to each handshake: a
/// handshake that does not finish within it is dropped ("The connection socket is
/// timeout"), and you see nothing of it. At most the backlog (128 by default)
/// connections wait in handshake or for Accept; beyond that new connections stay in the
/// kernel's queue until Accept makes room.
///
/// Accepted connections have Nagle's algorithm off (TCP_NODELAY): TLS writes whole records.
///
/// A server needs a certificate, as CSslAcceptor; options are those of CSslAcceptor.
/// Needs the public thread pool: the internal handler lives there.
class CORVANE_API CSslAsyncAcceptor : public CSock {
public:
    CSslAsyncAcceptor();
    /// Stops accepting and frees every connection not taken yet.
    ~CSslAsyncAcceptor() override;
    CSslAsyncAcceptor(const CSslAsyncAcceptor&) = delete;
    CSslAsyncAcceptor& operator=(const CSslAsyncAcceptor&) = delete;

    /// Listens on `local`; the second argument as for CSockAcceptor::Open.
    int Open(const CSockAddr& local, bool reuse);
    /// The connection that finished its handshake first, owned by the caller (its peer's
    /// address into `remote` when given); null when none is waiting.
    CSslAsyncStream* Accept(CSockAddr* remote);
    /// Connections that may wait in handshake or for Accept together.
    int SetBacklog(unsigned int backlog);
    /// The directory holding the server's cacert.pem (certificate chain) and privkey.pem.
    int SetPemPath(const char* dir);
    /// Asks every client for a certificate: with a certificate object (option 1) it is
    /// verified against the object's trusted CAs; with certificate files it is only
    /// required.
    int SetCertVerityPeer(bool verify);
    /// Options as on CSslAcceptor; they apply from the first connection on.
    int SetOption(int option, int type, void* value);
    int SetOption(int option, int type, void* value, int length);

    /// Socket options of the listening socket, as on CSockAcceptor.
    int SetSockRecvBuf(unsigned int bytes);
    int GetSockRecvBuf();
    int SetSockSendBuf(unsigned int bytes);
    int GetSockSendBuf();
    int SetSockCLOEXEC(bool on);

    /// Called by the reactor: your handler's registrations of this socket are taken by
    /// the internal handler (these return -1: the reactor does nothing more).
    int doProxyRegister(CNetHandler* handler, CSock& sock, unsigned int mask, int timeout) override;
    int doProxyUnregisterSock(CNetHandler* handler, CSock& sock, unsigned int mask) override;
    int doProxyRemoveSock(CNetHandler* handler, CSock& sock) override;

private:
    bool proxy_ready(const char* function) const;

    CProxyAcceptHandler* m_proxy;
};

}  // namespace Qelvar::Corvane
