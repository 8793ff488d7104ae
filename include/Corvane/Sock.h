// CSock: the base of every socket object.
#pragma once

#include <Corvane/Export.h>

namespace Qelvar::Corvane {

class CNetHandler;
class CSockAddr;

/// Socket type codes (CSock::GetType).
enum : unsigned int {
    SOCK_TYPE_STREAM = 1,     ///< CSockStream
    SOCK_TYPE_DGRAM = 2,      ///< CSockDgram, CSslDgram
    SOCK_TYPE_SSL = 3,        ///< CSslStream
    SOCK_TYPE_SIMULATOR = 4,  ///< CSimulatorStream
    SOCK_TYPE_MIRT = 5,       ///< CMirtStream
    SOCK_TYPE_ACCEPTOR = 6,   ///< every acceptor
    SOCK_TYPE_BARE = 7,       ///< a CSock made by its default constructor
    SOCK_TYPE_SSL_ASYNC = 8,  ///< CSslAsyncStream, CSslAsyncAcceptor
    SOCK_TYPE_QUIC = 9,       ///< CQuicStream
};

/// The base of every socket object: one descriptor (-1 for none), a type code and the
/// blocking flag (false, non-blocking, at construction).
///
/// Descriptors from 1 below the reliable-UDP base (Mirt) are system sockets; those at or
/// above it belong to the reliable-UDP transport. Every descriptor is tracked by the
/// socket manager through a status shared by all objects that hold it, so a number
/// closed through one object is never closed again through another (which could close a
/// socket the system has handed out anew under that number).
///
/// Results are 0 for success and -1 for failure, with a log line, unless stated. A
/// socket object is used by one thread at a time.
class CORVANE_API CSock {
public:
    /// An empty bare socket (type 7), unknown to the socket manager.
    CSock();
    /// Closes the descriptor (whatever the type) and leaves the socket manager.
    virtual ~CSock();
    /// Copies the fields, descriptor included: both objects then hold one descriptor.
    CSock(const CSock& other);
    CSock& operator=(const CSock& other);

    /// Proxy hooks consulted by the reactor for sockets of type 8 only. Here they do
    /// nothing and return 0.
    virtual int doProxyRegister(CNetHandler* handler, CSock& sock, unsigned int mask, int timeout);
    virtual int doProxyUnregisterSock(CNetHandler* handler, CSock& sock, unsigned int mask);
    virtual int doProxyRemoveSock(CNetHandler* handler, CSock& sock);

    /// The descriptor, -1 when none.
    int GetHandle() const { return m_sockfd; }
    /// The type code.
    unsigned int GetType() const { return m_type; }
    /// True unless the descriptor is -1.
    bool IsValid() const { return m_sockfd != -1; }
    /// The blocking flag: true blocking, false non-blocking.
    bool GetBlockOpt() const { return m_block; }
    /// Stores the flag and applies it to a held system socket when it changed.
    void SetBlockOpt(bool block);

    /// Adopts a descriptor made elsewhere (sharing its status with other holders) and
    /// applies the blocking flag. Fails when a descriptor is already held.
    int Attach(int sockfd);
    /// Gives up the descriptor without closing it; returns it.
    int Detach();
    /// Closes the descriptor; refused (-1, still open) for the TLS types 3 and 8.
    int Close();
    /// Closes the descriptor whatever the type. Refused without a system call when
    /// another object sharing the descriptor closed it already.
    int real_Close();

    /// Fills `addr` with the bound address: IPv4 into a CSockAddrIPv4, IPv6 into a
    /// CSockAddrIPv6, either into a CSockAddrStorage.
    int GetLocalAddr(CSockAddr* addr);
    /// Fills `addr` with the peer's address, as GetLocalAddr.
    int GetRemoteAddr(CSockAddr* addr);

protected:
    /// For derived classes: the fields, and the object's entry in the socket manager.
    CSock(int sockfd, unsigned int type);

    /// Pushes the blocking flag to the held socket (system or transport). 0 or -1 (logged).
    int set_block_opt();

    /// True for a system socket: 0 < fd < the reliable-UDP base.
    static bool is_system_fd(int fd);

    /// The address family code of `addr` (1 IPv4, 2 IPv6): its type, or for a
    /// CSockAddrStorage its input type.
    static unsigned int family_of(const CSockAddr& addr);

    /// Takes a descriptor just created or accepted: a fresh valid status in the socket
    /// manager, bound to this object, and the descriptor stored.
    void take_new_fd(int fd);

    /// The descriptor's status was closed by another holder: logs "SockManager error!"
    /// naming `function` and returns true.
    bool status_invalid(const char* function);

    // Options shared by the socket classes, each checking the status first and logging
    // its failure naming `function`.
    int set_buffer(bool receive, unsigned int bytes, const char* function);
    int get_buffer(bool receive, const char* function);
    int set_int_option(int level, int name, int value, const char* function);
    int set_qos(int dscp, const char* function);
    int set_priority(int priority, const char* function);
    int set_cloexec(bool on, const char* function);

    /// One wait of the bounded-time transfers: for the `want` readiness (1 read, 2 write)
    /// or an exception, up to `timeout_us` less `*last_wait_us` (the previous wait's
    /// duration), which then becomes this wait's duration. 1 with `*ready`, 0 on
    /// time-out, -1 on failure.
    int wait_step(unsigned int want, int timeout_us, long long* last_wait_us, unsigned int* ready);

    int m_sockfd;
    unsigned int m_type;
    bool m_block;

private:
    int query_address(CSockAddr* addr, bool peer);
};

}  // namespace Qelvar::Corvane
