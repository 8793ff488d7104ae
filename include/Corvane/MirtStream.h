// CMirtStream: the reliable-UDP stream socket.
#pragma once

#include <Corvane/IoVec.h>
#include <Corvane/Sock.h>

namespace Qelvar::Corvane {

class CMirtAcceptor;

/// Transfer types of the reliable-UDP sockets (SetTransType).
enum EMirtTransfer : int {
    MIRT_LIVE = 0,  ///< messages with a latency budget; a late one is dropped (the default)
    MIRT_FILE = 1,  ///< a byte stream: everything arrives, at the pace the link allows
};

/// A reliable-UDP stream (type 5), on descriptors at or above the transport's base. It
/// registers with the reactor like a TCP stream (RegisterSock with MASK_READ/MASK_WRITE).
///
/// The transport runs once the environment started it (the thread pool's creation does);
/// before that, and in a build without the transport, every operation fails with -1 and
/// a log line naming the transport's reason.
///
/// Results as CSockStream: transfers return the byte count when positive, 0 when the call
/// would block (try again later), -1 on failure or when the connection is gone (then
/// with the thread's socket error set to connection reset, and no log line). Other
/// failures are -1 with a log line.
///
/// Live mode (the default) carries messages: Send sends one message of at most the
/// payload size (1316 bytes unless SetPayloadSize changed it) and returns the bytes it
/// took, so a longer buffer goes out in several calls (Send_n and WriteV do that, and the
/// stream and media senders write through WriteV); Recv returns one message and wants a
/// buffer of at least the payload size. File mode is a byte stream like TCP; note that
/// a loss among its first packets leaves the transport's file congestion control sending
/// a few dozen packets a second, recovering only slowly.
///
/// The blocking flag (SetBlockOpt, non-blocking at construction) is applied when the
/// socket is made or accepted, and again by the next operation when it changed since.
class CORVANE_API CMirtStream : public CSock {
public:
    CMirtStream();
    ~CMirtStream() override = default;
    CMirtStream(const CMirtStream&) = default;
    CMirtStream& operator=(const CMirtStream&) = default;

    /// Makes the transport socket (replacing one already held), applies the options and
    /// the blocking flag, and binds to `local` when given. Optional: Connect makes the
    /// socket itself when none is held.
    int Open(const CSockAddr* local);
    /// Connects to `remote`: on the socket made by Open when it is still unconnected,
    /// else on a new one (a held one is closed first). `local`, when given, is bound
    /// first: give it to Open or to Connect, not both. Blocking: returns once connected
    /// (0) or refused (-1), within the transport's connect time-out (3 s). Non-blocking:
    /// 0 means the connect has started; the reactor then reports writability (or an
    /// exception), and GetConnectStatus() tells the outcome.
    int Connect(const CSockAddr& remote, CSockAddr* local);
    /// 0 when connected, 1 while the connect is under way, -2 when it failed or cannot
    /// be told (as CSockStream: -2, not -1, for failure).
    int GetConnectStatus();

    /// One send; buf must not be null nor len 0. Live mode: one message of
    /// min(len, payload size) bytes.
    int Send(const char* buf, unsigned int len);
    /// A gathered send of what the transport takes now, as on a stream socket: the bytes
    /// sent (0 when it would block at once), or -1. Live mode: the elements are cut in
    /// order into messages of the payload size (the last one shorter), sent in turn until
    /// all are gone or the transport would block. File mode: the elements are sent in turn
    /// until one is taken partly or the socket would block.
    int WriteV(const iovec* vec, int count);
    /// One receive (live mode: one message).
    int Recv(char* buf, unsigned int len);
    /// Sends until everything is gone, waiting for writability up to `timeout_us` per
    /// wait. The bytes sent (fewer when a wait timed out), or -1.
    int Send_n(const char* buf, unsigned int len, int timeout_us);
    /// Waits up to `timeout_us` for data and receives once: the bytes of that one
    /// receive, 0 on time-out or for a timeout of 0, or -1.
    int Recv_n(char* buf, unsigned int len, int timeout_us);

    // Options: set them before Connect, that is before Open or between Open and Connect.
    // Each is stored and applied when the socket is made (the transfer type first, as it
    // resets the others); on a socket made by Open and not yet connected it is applied at
    // once. A value out of range, or a connected stream (the transport refuses), gives -1
    // with a line and leaves the stored set as it was. Both ends must agree on the
    // transfer type and the pass phrase; an accepted stream has its acceptor's options.

    /// MIRT_LIVE (default) or MIRT_FILE.
    int SetTransType(EMirtTransfer type);
    /// The receiver's latency budget in milliseconds (live mode; the transport's default
    /// is 120). The larger of both ends' values is used.
    int SetLatency(int ms);
    /// The largest message in live mode (at most 1456; 1316 by default).
    int SetPayloadSize(int bytes);
    /// Encrypts with a key from `phrase` (10 to 79 characters); null or "" for none. A
    /// peer with another phrase, or none, is refused at connect.
    int SetPassphrase(const char* phrase);

private:
    friend class CMirtAcceptor;

    /// The options as set, applied to each new socket.
    struct SOptions {
        int trans_type = MIRT_LIVE;
        int latency_ms = -1;  // -1: the transport's default
        int payload = 0;      // 0: the transport's default
        char phrase[80] = {};
    };
    enum EOption { OPT_TRANS_TYPE, OPT_LATENCY, OPT_PAYLOAD, OPT_PHRASE };

    // Shared with the acceptor: checks and stores one option (logged when refused), and
    // applies the whole set to a transport socket, the transfer type first.
    static bool store_option(SOptions& options, EOption which, int value, const char* phrase, const void* self,
                             const char* function);
    static int apply_option(int fd, const SOptions& options, EOption which, const void* self, const char* function);
    static int apply_options(int fd, const SOptions& options, const void* self, const char* function);
    static int bind_local(int fd, const CSockAddr& local, const void* self, const char* function);

    int set_option(EOption which, int value, const char* phrase, const char* function);
    int create_socket(const char* function);
    int sync_block();
    bool not_open(const char* function);
    int message_limit() const;
    // Takes a descriptor accepted by a listener with `options`, which the socket inherited.
    int adopt(int fd, const SOptions& options);

    SOptions m_options;
    // The blocking flag last pushed to the descriptor: a changed one is pushed again.
    bool m_block_applied;
};

}  // namespace Qelvar::Corvane
