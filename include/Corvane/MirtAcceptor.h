// CMirtAcceptor: the listening reliable-UDP socket.
#pragma once

#include <Corvane/MirtStream.h>
#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

/// A listening reliable-UDP socket (type 6). Register it for reading and call Accept
/// when it is readable. Its options (the setters below, set before Open) are inherited
/// by every accepted stream; a caller whose transfer type or pass phrase differs is
/// refused by the transport and never shows up here.
///
/// As CMirtStream: the transport must have been started by the environment, and in a
/// build without it every operation fails with -1 and a log line.
class CORVANE_API CMirtAcceptor : public CSock {
public:
    CMirtAcceptor();
    ~CMirtAcceptor() override = default;

    /// Makes the transport socket (replacing one already held), applies the options and
    /// the blocking flag (set it before: a later SetBlockOpt does not reach it), binds to `local` and listens with a backlog of 1024. After a
    /// failure past the socket's making the descriptor stays held until Close or the
    /// destructor, as with CSockAcceptor.
    int Open(const CSockAddr& local);
    /// Accepts one connection into `stream` (which keeps its own blocking flag and takes
    /// the acceptor's options) and the peer's address into `remote` when given (an IPv4,
    /// IPv6 or storage address). -1 also when nothing is pending, then without a log line,
    /// and when `stream` holds a descriptor already (nothing is accepted then).
    int Accept(CMirtStream& stream, CSockAddr* remote);
    /// Accepts into a new stream that the caller deletes; null on failure.
    CMirtStream* Accept(CSockAddr* remote);

    // Options for the connections to come: set them before Open (the transport refuses
    // them on a listening socket). Meanings as CMirtStream's.

    /// MIRT_LIVE (default) or MIRT_FILE.
    int SetTransType(EMirtTransfer type);
    /// The latency budget in milliseconds (live mode).
    int SetLatency(int ms);
    /// The largest message in live mode (at most 1456; 1316 by default).
    int SetPayloadSize(int bytes);
    /// The pass phrase callers must present (10 to 79 characters); null or "" for none.
    int SetPassphrase(const char* phrase);

private:
    int set_option(int which, int value, const char* phrase, const char* function);

    CMirtStream::SOptions m_options;
};

}  // namespace Qelvar::Corvane
