#include "Socket/SslIo.h"

#include <openssl/err.h>

#include <algorithm>
#include <cstdio>

#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Socket/SockDetail.h"

namespace Qelvar::Corvane {

// The log lines of one failing TLS call: the SSL_get_error line, a line per queued
// OpenSSL error, and the line for an empty queue (null when the call has none).
struct SFailureLines {
    const char* main;
    const char* queued;
    const char* empty;
};

namespace {

constexpr SFailureLines kWriteLines = {
    "this:%p SSL_write error! fd:%d, len:%u, SSL_get_error=%d, errno:%d,%s\n",
    "this:%p SSL_write error! fd:%d, len:%u, ERR_error_string:%s, errno:%d,%s\n",
    "this:%p SSL_write error! fd:%d, len:%u, ERR_get_error=0, errno:%d,%s\n"};
constexpr SFailureLines kReadLines = {
    "this:%p SSL_read error! fd:%d, len:%u, SSL_get_error:%d, errno:%d,%s\n",
    "this:%p SSL_read error! fd:%d, len:%u, ERR_error_string:%s, errno:%d,%s\n",
    "this:%p SSL_read error! fd:%d, len:%u, ERR_get_error:0, errno:%d,%s\n"};
constexpr SFailureLines kPeekLines = {
    "this:%p SSL_peek error! fd:%d, len:%u, SSL_get_error=%d, errno:%d,%s\n",
    "this:%p SSL_peek error! fd:%d, len:%u, ERR_error_string:%s, errno:%d,%s\n",
    "this:%p SSL_peek error! fd:%d, len:%u, ERR_get_error=0, errno:%d,%s\n"};

// "Class::operation", for the log lines.
struct SName {
    SName(const char* cls, const char* op) { std::snprintf(text, sizeof text, "%s::%s", cls, op); }
    char text[64];
};

}  // namespace

CSslIo::CSslIo(const void* owner, const char* class_name) : m_owner(owner), m_class(class_name)
{
}

void CSslIo::Bind(ssl_st* ssl, int fd)
{
    m_ssl = ssl;
    m_fd = fd;
}

// The result of a failed TLS transfer call: 0 when it only has to wait (the socket would
// block, or TLS needs the socket readable or writable first), else -1 after logging the
// call's lines.
int CSslIo::map_failure(int ret, const SFailureLines& text, unsigned int len)
{
    const int err = Platform::last_error();
    const int ssl_error = SSL_get_error(m_ssl, ret);
    if (ssl_error != SSL_ERROR_ZERO_RETURN && ssl_error != SSL_ERROR_SSL && try_later(err)) return 0;
    if (ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE) return 0;
    const SErrorText err_text(err);
    CVN_LOG(Fundel::LOG_WARN, text.main, m_owner, m_fd, len, ssl_error, err, err_text.text);
    unsigned long queued = ERR_get_error();
    if (queued == 0 && text.empty) {
        CVN_LOG(Fundel::LOG_WARN, text.empty, m_owner, m_fd, len, err, err_text.text);
    }
    for (; queued != 0; queued = ERR_get_error()) {
        char entry[256];
        ERR_error_string_n(queued, entry, sizeof entry);
        CVN_LOG(Fundel::LOG_WARN, text.queued, m_owner, m_fd, len, entry, err, err_text.text);
    }
    return -1;
}

// Checks a transfer's buffer and the connection, logging the refusal as `op` (and its
// lower-case form `word`, which the argument line uses).
bool CSslIo::usable(const char* op, const char* word, const void* buf, unsigned int len) const
{
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : %s failed! buf[%p], len[%d], fd[%d]\n", m_owner,
                SName(m_class, op).text, word, buf, static_cast<int>(len), m_fd);
        return false;
    }
    if (!m_ssl) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : %s failed!, m_ssl:%p, fd:%d\n", m_owner, SName(m_class, op).text, op,
                static_cast<void*>(m_ssl), m_fd);
        return false;
    }
    return true;
}

int CSslIo::Send(const char* buf, unsigned int len)
{
    if (!usable("Send", "send", buf, len)) return -1;
    // A stale "would block" left by an earlier call must not hide this call's failure.
    Platform::set_last_error(0);
    ERR_clear_error();
    const int n = SSL_write(m_ssl, buf, static_cast<int>(len));
    if (n > 0) return n;
    return map_failure(n, kWriteLines, len);
}

int CSslIo::Recv(char* buf, unsigned int len)
{
    if (!usable("Recv", "recv", buf, len)) return -1;
    Platform::set_last_error(0);
    ERR_clear_error();
    // Peek first: it decrypts at most what the socket has, so the read below takes only
    // bytes already decrypted and never waits for the socket.
    char probe;
    const int peeked = SSL_peek(m_ssl, &probe, 1);
    if (peeked <= 0) return map_failure(peeked, kPeekLines, len);
    const int pending = SSL_pending(m_ssl);
    if (pending <= 0) return 0;
    const int n = SSL_read(m_ssl, buf, std::min(static_cast<int>(len), pending));
    if (n > 0) return n;
    return map_failure(n, kReadLines, len);
}

int CSslIo::Peek()
{
    if (!m_ssl) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Peek failed!, m_ssl:%p, fd:%d\n", m_owner, SName(m_class, "Peek").text,
                static_cast<void*>(m_ssl), m_fd);
        return -1;
    }
    Platform::set_last_error(0);
    ERR_clear_error();
    char probe;
    const int peeked = SSL_peek(m_ssl, &probe, 1);
    if (peeked > 0) return SSL_pending(m_ssl);
    const int ssl_error = SSL_get_error(m_ssl, peeked);
    if (ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE) return 0;
    const int err = Platform::last_error();
    const SErrorText err_text(err);
    CVN_LOG(Fundel::LOG_WARN, "this:%p SSL_peek error! fd:%d, SSL_get_error:%d, errno:%d,%s\n",
            m_owner, m_fd, ssl_error, err, err_text.text);
    for (unsigned long queued = ERR_get_error(); queued != 0; queued = ERR_get_error()) {
        char entry[256];
        ERR_error_string_n(queued, entry, sizeof entry);
        CVN_LOG(Fundel::LOG_WARN, "this:%p SSL_peek error! fd:%d, ERR_error_string:%s, errno:%d,%s\n",
                m_owner, m_fd, entry, err, err_text.text);
    }
    return -1;
}

int CSslIo::WriteV(const iovec* vec, int count)
{
    static constexpr const char* kOp = "WriteV";
    if (!vec || count < 1) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : send failed! vector[%p], count[%d], fd[%d]\n",
                m_owner, SName(m_class, kOp).text, static_cast<const void*>(vec), count, m_fd);
        return -1;
    }
    int total = 0;
    int last = 0;
    for (int i = 0; i < count; ++i) {
        const auto len = static_cast<unsigned int>(vec[i].iov_len);
        last = Send(static_cast<const char*>(vec[i].iov_base), len);
        if (last < 1) {
            if (last < 0) {
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send failed! vector[%d].iov_base:%p, len:%lu, fd:%d\n",
                        m_owner, SName(m_class, kOp).text, i, static_cast<const void*>(vec[i].iov_base),
                        static_cast<unsigned long>(vec[i].iov_len), m_fd);
            }
            break;
        }
        total += last;
        if (static_cast<unsigned int>(last) < len) break;
    }
    return total > 0 ? total : last;
}

int CSslIo::Send_n(const char* buf, unsigned int len, int timeout_ms)
{
    static constexpr const char* kOp = "Send_n";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : Send_n failed! buf[%p], len[%d], timeout:[%d], fd[%d]\n",
                m_owner, SName(m_class, kOp).text, static_cast<const void*>(buf), static_cast<int>(len), timeout_ms,
                m_fd);
        return -1;
    }
    int sent = Send(buf, len);
    if (sent < 0 || timeout_ms == 0) return sent;
    const long long limit_us = static_cast<long long>(timeout_ms) * 1000;
    const long long start = Fundel::CTime::getCurrentMicroSecond();
    while (static_cast<unsigned int>(sent) < len) {
        const long long elapsed = Fundel::CTime::getCurrentMicroSecond() - start;
        if (elapsed >= limit_us) return sent;
        unsigned int ready = 0;
        const int w = Platform::sock_wait(m_fd, Platform::SOCK_WRITABLE, limit_us - elapsed, &ready);
        if (w < 0) {
            const int err = Platform::last_error();
            if (Platform::is_interrupted(err)) continue;
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send_n select failed, fd:%d, errno:%d,%s\n",
                    m_owner, SName(m_class, kOp).text, m_fd, err, SErrorText(err).text);
            return -1;
        }
        if (w == 0) return sent;
        if (ready & Platform::SOCK_EXCEPTION) {
            const int err = Platform::last_error();
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Send_n error, fd:%d, socket exception! errno:%d,%s\n",
                    m_owner, SName(m_class, kOp).text, m_fd, err, SErrorText(err).text);
            return -1;
        }
        if (!(ready & Platform::SOCK_WRITABLE)) return -1;
        const int n = Send(buf + sent, len - static_cast<unsigned int>(sent));
        if (n < 0) return -1;
        sent += n;
    }
    return sent;
}

int CSslIo::Recv_n(char* buf, unsigned int len, int timeout_ms)
{
    static constexpr const char* kOp = "Recv_n";
    if (!buf || len == 0) {
        CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : recv_n failed! buf[%p], len[%d], timeout:[%d], fd[%d]\n",
                m_owner, SName(m_class, kOp).text, static_cast<const void*>(buf), static_cast<int>(len), timeout_ms,
                m_fd);
        return -1;
    }
    if (timeout_ms == 0) return 0;
    const long long limit_us = static_cast<long long>(timeout_ms) * 1000;
    const long long start = Fundel::CTime::getCurrentMicroSecond();
    for (;;) {
        const long long elapsed = Fundel::CTime::getCurrentMicroSecond() - start;
        if (elapsed >= limit_us) return 0;
        // Bytes TLS holds already (decrypted, or read ahead) are not on the socket any
        // more: no wait then.
        if (!m_ssl || !SSL_has_pending(m_ssl)) {
            unsigned int ready = 0;
            const int w = Platform::sock_wait(m_fd, Platform::SOCK_READABLE, limit_us - elapsed, &ready);
            if (w < 0) {
                const int err = Platform::last_error();
                if (Platform::is_interrupted(err)) continue;
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n select failed, fd:%d, errno:%d,%s\n",
                        m_owner, SName(m_class, kOp).text, m_fd, err, SErrorText(err).text);
                return -1;
            }
            if (w == 0) return 0;
            if ((ready & Platform::SOCK_EXCEPTION) && !(ready & Platform::SOCK_READABLE)) {
                const int err = Platform::last_error();
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n error, socket exception! fd:%d, %d,%s\n",
                        m_owner, SName(m_class, kOp).text, m_fd, err, SErrorText(err).text);
                return -1;
            }
            if (!(ready & Platform::SOCK_READABLE)) {
                const int err = Platform::last_error();
                CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Recv_n error, fd not set! fd:%d, %d,%s\n",
                        m_owner, SName(m_class, kOp).text, m_fd, err, SErrorText(err).text);
                return -1;
            }
        }
        const int n = Recv(buf, len);
        if (n != 0) return n < 0 ? -1 : n;
    }
}

}  // namespace Qelvar::Corvane
