// CSslIo: the data transfer of an established TLS connection, shared by the TLS streams.
#pragma once

#include <Corvane/IoVec.h>

#include <openssl/ssl.h>

namespace Qelvar::Corvane {

struct SFailureLines;

/// Send, Recv, Peek, WriteV, Send_n and Recv_n over a connection object and its socket,
/// with the results and log lines of the TLS streams: a positive byte count, 0 when
/// nothing can be done now, -1 on failure or when the peer has closed. The owner and its
/// class name appear in the log lines ("this:%p Class::Send ...").
class CSslIo {
public:
    CSslIo(const void* owner, const char* class_name);

    /// The connection object and socket to work on (null and -1: none).
    void Bind(ssl_st* ssl, int fd);
    ssl_st* Ssl() const { return m_ssl; }

    int Send(const char* buf, unsigned int len);
    int Recv(char* buf, unsigned int len);
    int Peek();
    int WriteV(const iovec* vec, int count);
    int Send_n(const char* buf, unsigned int len, int timeout_ms);
    int Recv_n(char* buf, unsigned int len, int timeout_ms);

private:
    bool usable(const char* op, const char* word, const void* buf, unsigned int len) const;
    int map_failure(int ret, const SFailureLines& lines, unsigned int len);

    const void* m_owner;
    const char* m_class;
    ssl_st* m_ssl = nullptr;
    int m_fd = -1;
};

}  // namespace Qelvar::Corvane
