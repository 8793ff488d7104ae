// SslOptions: the option record of a TLS object and the rules that turn it into an
// OpenSSL context, shared by every TLS class.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

namespace Qelvar::Corvane {

class CSslX509;

/// The cipher rules used when the user gave none.
inline constexpr const char* kDefaultCipherList = "ALL:!EXPORT:!LOW:!aNULL:!eNULL:!SSLv2:!DES:!RC4:!3DES";

/// Option numbers of SetOption.
enum : int {
    SSL_OPTION_SESSION = 0,
    SSL_OPTION_CERTIFICATE = 1,
    SSL_OPTION_PROTOCOL_BAN = 2,
    SSL_OPTION_CIPHER_LIST = 3,
    SSL_OPTION_TIMEOUT = 4,
    SSL_OPTION_PASSWORD = 5,
    SSL_OPTION_SERVER_NAME = 6,
    SSL_OPTION_NTLS = 7,
};

/// Session flag bits (option 0).
enum : int {
    SSL_SESSION_FIRST_CACHE = 1,  ///< client: the first process-wide cache, else the second
    SSL_SESSION_TICKETS = 2,      ///< session tickets allowed
    SSL_SESSION_BY_ID = 4,        ///< client: sessions keyed by a numeric id, not the address
};

/// The options of one TLS object (client or server side) and its certificate sources.
/// Not synchronised: its object uses it from one thread at a time.
class SslOptions {
public:
    /// `owner` and `server` fix the object the log lines name and which side's rules
    /// apply; `async` selects the reactor-driven classes' wording ("errno: %s").
    SslOptions(const void* owner, bool server, bool async);
    ~SslOptions();
    SslOptions(const SslOptions&) = delete;
    SslOptions& operator=(const SslOptions&) = delete;

    /// SetOption of the TLS classes. `length` < 0 measures a string value with its
    /// terminator. 0, or -1 when a value is missing or cannot be stored.
    int Set(int option, int type, void* value, int length, const char* function);

    /// GetOption of the TLS classes: option 0 gives the session flags in `type` and, with
    /// keying by id, the id in `*(unsigned int*)value`; option 4 the time-out in
    /// `*(int*)value`; options 1-3 their type. 0, or -1 for another option.
    int Get(int option, int& type, void* value, int& length) const;

    /// True when a server has a certificate source; else logs "server need the
    /// certificate compulsorily" and returns false.
    bool Valid(const char* function) const;

    /// A new context built from the options (server or client rules), or null after
    /// logging why. The caller owns it.
    SSL_CTX* BuildContext(const char* function);

    /// A connection object on `ctx` over descriptor `fd`, or null after logging.
    SSL* NewConnection(SSL_CTX* ctx, int fd, const char* function) const;

    /// The cipher list for a connection: the user's when given, else the default.
    const char* CipherList() const;

    /// Bounds the blocking reads and writes of a handshake on `fd` (SO_RCVTIMEO and
    /// SO_SNDTIMEO) to `ms`; 0 removes the bounds. Failures are logged only (each side's
    /// classes word the line their own way).
    void SetHandshakeLimits(int fd, int ms, const char* function) const;

    // The record, in the order of its description.
    std::string pem_dir;
    std::string cert_path;
    std::string key_path;
    std::vector<char> key_password;
    int verify_mode = 0;
    int session_flags = 0;
    int cert_mode = 0;
    std::unique_ptr<CSslX509> cert;
    unsigned int ban_bits = 0;
    int cipher_kind = 0;
    std::string cipher_list;
    int timeout_kind = 0;
    int timeout_ms = 0;
    unsigned int session_id = 0;
    int session_reused = 0;
    std::string server_name;

private:
    bool certificate_setup(SSL_CTX* ctx, const char* function);
    /// `ok`, after logging "<call> failed" with the OpenSSL error when it is false.
    bool step(bool ok, const char* call, const char* function) const;
    void key_exchange_setup(SSL_CTX* ctx, const char* function);
    static int password_callback(char* buf, int size, int rwflag, void* userdata);

    const void* m_owner;
    bool m_server;
    const char* m_err_label;  // "error" or "errno"
    bool m_async;
};

}  // namespace Qelvar::Corvane
