// CSslAcceptor: a blocking TLS listening socket.
#pragma once

#include <Corvane/Sock.h>

#include <memory>

namespace Qelvar::Corvane {

class CSockAddr;
class CSockStream;
class CSslStream;

/// The certificate chain file and private key file of a TLS server (full paths).
struct PathList {
    const char* cacertpath = nullptr;
    const char* privkeypath = nullptr;
};

/// Accepts TCP connections and runs the server handshake in the caller's thread, bounded
/// by the handshake time-out (option 4 with type 1, 5000 ms by default); an accepted
/// connection is handed over as a non-blocking CSslStream. Type 6.
///
/// A server needs a certificate: SetPemPath (cacert.pem and privkey.pem in a directory),
/// SetFullPemPath, or a CSslX509 through option 1 (type bit 1; bit 0 also asks clients
/// for a certificate verified against the object's trusted CAs). Without one every
/// Accept fails with "server need the certificate compulsorily".
///
/// Options are those of CSslStream, with these differences: option 0's type non-zero
/// turns the server session cache on and bit 1 allows tickets; option 4 is read with
/// type 1; option 6 does not apply; SSLv2 and SSLv3 are banned from the start (option 2
/// only adds bans). The context is built at the first Accept and kept, and built anew
/// after a failed handshake, so options set later apply from then on.
class CORVANE_API CSslAcceptor : public CSock {
public:
    CSslAcceptor();
    ~CSslAcceptor() override;
    CSslAcceptor(const CSslAcceptor&) = delete;
    CSslAcceptor& operator=(const CSslAcceptor&) = delete;

    /// Listens on `local` (with SO_REUSEADDR when `reuse`); an open socket is closed first.
    int Open(const CSockAddr& local, bool reuse);
    /// Runs the handshake on an accepted `stream`. 0: `out` holds the connection and the
    /// stream is consumed. -1: the stream is closed and deleted (the caller never gets a
    /// half-open connection back).
    int Accept(CSslStream& out, CSockStream* stream);
    /// Waits for a TCP connection (filling `remote` when given), then as above.
    int Accept(CSslStream& out, CSockAddr* remote);
    /// As above into a new stream the caller deletes; null on failure.
    CSslStream* Accept(CSockAddr* remote);

    /// The directory holding the server's cacert.pem (certificate chain) and privkey.pem.
    int SetPemPath(const char* dir);
    /// The chain and key files by full path; both members must be set.
    int SetFullPemPath(const PathList& paths);
    /// Options as on CSslStream, with the differences in the class comment.
    int SetOption(int option, int type, void* value);
    int SetOption(int option, int type, void* value, int length);

    /// Socket options of the listening socket, as on CSockAcceptor.
    int SetSockRecvBuf(unsigned int bytes);
    int GetSockRecvBuf();
    int SetSockSendBuf(unsigned int bytes);
    int GetSockSendBuf();
    int SetSockCLOEXEC(bool on);

private:
    struct SImpl;
    std::unique_ptr<SImpl> m_impl;
};

}  // namespace Qelvar::Corvane
