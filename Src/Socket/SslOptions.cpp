#include "Socket/SslOptions.h"

#include <Corvane/SslX509.h>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Fundel/LogDefs.h"
#include "Platform/Error.h"
#include "Platform/Socket.h"
#include "Socket/SockDetail.h"
#include "Socket/SslDgram.h"
#include "Socket/SslError.h"
#include "Socket/SslSocketBio.h"

namespace Qelvar::Corvane {

namespace {

// Path mode checks nothing about the peer's chain: the verify mode only asks for a
// certificate.
int accept_any_certificate(int, X509_STORE_CTX*)
{
    return 1;
}

// Sessions are only resumed within a context of this library; OpenSSL refuses to resume
// without an id context once peer verification is on.
constexpr unsigned char kSessionIdContext[] = "Corvane";

}  // namespace

SslOptions::SslOptions(const void* owner, bool server, bool async)
    : m_owner(owner), m_server(server), m_err_label(async ? "errno" : "error"), m_async(async)
{
    // A client gives up a handshake after 5 s unless told otherwise.
    if (!server) timeout_ms = 5000;
}

SslOptions::~SslOptions() = default;

int SslOptions::Set(int option, int type, void* value, int length, const char* function)
{
    // Text values: a string with its terminator, or `length` bytes.
    auto text = [&](std::string& into) {
        if (!value) return -1;
        const char* s = static_cast<const char*>(value);
        into.assign(s, length < 0 ? s + std::strlen(s) : std::find(s, s + length, '\0'));
        return 0;
    };
    switch (option) {
    case SSL_OPTION_SESSION:
        session_flags = type;
        if (!m_server && (type & SSL_SESSION_BY_ID) && value) session_id = *static_cast<unsigned int*>(value);
        return 0;
    case SSL_OPTION_CERTIFICATE: {
        auto* object = static_cast<CSslX509*>(value);
        cert_mode = type;
        if (object != cert.get()) cert.reset(object);
        return 0;
    }
    case SSL_OPTION_PROTOCOL_BAN:
        ban_bits |= static_cast<unsigned int>(type);
        return 0;
    case SSL_OPTION_CIPHER_LIST:
        cipher_kind = type;
        if (type == 1) return text(cipher_list);
        return 0;
    case SSL_OPTION_TIMEOUT:
        timeout_kind = type;
        // The two sides read the value under different kinds, on purpose.
        if (value && ((m_server && type == 1) || (!m_server && type == 0))) timeout_ms = *static_cast<int*>(value);
        return 0;
    case SSL_OPTION_PASSWORD: {
        if (!value) return -1;
        const char* s = static_cast<const char*>(value);
        const std::size_t n = length < 0 ? std::strlen(s) + 1 : static_cast<std::size_t>(length);
        key_password.assign(s, s + n);
        return 0;
    }
    case SSL_OPTION_SERVER_NAME:
        if (!m_server) return text(server_name);
        break;
    case SSL_OPTION_NTLS:
        if (m_server) {
            CVN_LOG(Fundel::LOG_WARN, "this:%p %s : This version do not support NTLS function !\n", m_owner, function);
            return 0;
        }
        break;
    default:
        break;
    }
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Unknown Option %d Type %d !\n", m_owner, function, option, type);
    return 0;
}

int SslOptions::Get(int option, int& type, void* value, int& length) const
{
    switch (option) {
    case SSL_OPTION_SESSION:
        type = session_flags;
        if ((session_flags & SSL_SESSION_BY_ID) && value) {
            *static_cast<unsigned int*>(value) = session_id;
            length = static_cast<int>(sizeof(unsigned int));
        }
        return 0;
    case SSL_OPTION_CERTIFICATE:
        type = cert_mode;
        return 0;
    case SSL_OPTION_PROTOCOL_BAN:
        type = static_cast<int>(ban_bits);
        return 0;
    case SSL_OPTION_CIPHER_LIST:
        type = cipher_kind;
        return 0;
    case SSL_OPTION_TIMEOUT:
        type = timeout_kind;
        if (value) {
            *static_cast<int*>(value) = timeout_ms;
            length = static_cast<int>(sizeof(int));
        }
        return 0;
    default:
        return -1;
    }
}

bool SslOptions::Valid(const char* function) const
{
    if (!pem_dir.empty() || (!cert_path.empty() && !key_path.empty()) || cert) return true;
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : server need the certificate compulsorily \n", m_owner, function);
    return false;
}

int SslOptions::password_callback(char* buf, int size, int, void* userdata)
{
    const auto* password = static_cast<const std::vector<char>*>(userdata);
    // A phrase given as a string carries its terminator; the key needs only the text.
    std::size_t len = password->size();
    if (len > 0 && (*password)[len - 1] == '\0') --len;
    if (static_cast<int>(len) > size) return 0;
    std::memcpy(buf, password->data(), len);
    return static_cast<int>(len);
}

bool SslOptions::step(bool ok, const char* call, const char* function) const
{
    if (!ok) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : %s failed, %s: %s\n", m_owner, function, call, m_err_label,
                SslErrorText().text);
    }
    return ok;
}

bool SslOptions::certificate_setup(SSL_CTX* ctx, const char* function)
{
    if (cert && (cert_mode & 1)) {
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        X509_STORE* store = SSL_CTX_get_cert_store(ctx);
        STACK_OF(X509)* cas = cert->GetTrustedCAs();
        for (int i = 0; cas && i < sk_X509_num(cas); ++i) X509_STORE_add_cert(store, sk_X509_value(cas, i));
    }
    if (cert && (cert_mode & 2)) {
        if (!step(SSL_CTX_use_certificate(ctx, cert->GetCertificate()) == 1, "SSL_CTX_use_certificate", function)) {
            return false;
        }
        if (!step(SSL_CTX_use_PrivateKey(ctx, cert->GetPrivateKey()) == 1, "SSL_CTX_use_PrivateKey", function)) {
            return false;
        }
        if (!step(SSL_CTX_check_private_key(ctx) == 1, "SSL_CTX_check_private_key", function)) return false;
        STACK_OF(X509)* chain = cert->GetChain();
        for (int i = 0; chain && i < sk_X509_num(chain); ++i) {
            X509* copy = X509_dup(sk_X509_value(chain, i));
            if (copy && SSL_CTX_add_extra_chain_cert(ctx, copy) != 1) X509_free(copy);
        }
        return true;
    }

    // Path mode.
    if (verify_mode != 0) SSL_CTX_set_verify(ctx, verify_mode, accept_any_certificate);
    const bool full_paths = !cert_path.empty() && !key_path.empty();
    if (pem_dir.empty() && !full_paths) return true;  // a client needs no certificate

    char path[128];
    if (full_paths) std::snprintf(path, sizeof path, "%s", cert_path.c_str());
    else std::snprintf(path, sizeof path, "%s/cacert.pem", pem_dir.c_str());
    if (!step(SSL_CTX_use_certificate_chain_file(ctx, path) == 1, "SSL_CTX_use_certificate_chain_file", function)) {
        return false;
    }
    if (!key_password.empty()) {
        SSL_CTX_set_default_passwd_cb(ctx, password_callback);
        SSL_CTX_set_default_passwd_cb_userdata(ctx, &key_password);
    }
    if (full_paths) std::snprintf(path, sizeof path, "%s", key_path.c_str());
    else std::snprintf(path, sizeof path, "%s/privkey.pem", pem_dir.c_str());
    if (!step(SSL_CTX_use_PrivateKey_file(ctx, path, SSL_FILETYPE_PEM) == 1, "SSL_CTX_use_PrivateKey_file", function)) {
        return false;
    }
    if (!step(SSL_CTX_check_private_key(ctx) == 1, "SSL_CTX_check_private_key", function)) return false;
    return true;
}

// Ephemeral key exchange of a server: the fixed 2048-bit finite-field group for DHE and
// P-256 first among the elliptic curves.
void SslOptions::key_exchange_setup(SSL_CTX* ctx, const char* function)
{
    EVP_PKEY* dh = nullptr;
    if (EVP_PKEY_CTX* pctx = EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr)) {
        char group[] = "ffdhe2048";
        OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, group, 0),
                               OSSL_PARAM_construct_end()};
        if (EVP_PKEY_fromdata_init(pctx) <= 0 ||
            EVP_PKEY_fromdata(pctx, &dh, EVP_PKEY_KEY_PARAMETERS, params) <= 0) {
            dh = nullptr;
        }
        EVP_PKEY_CTX_free(pctx);
    }
    // The context takes the parameters over only on success.
    if (dh && SSL_CTX_set0_tmp_dh_pkey(ctx, dh) != 1) EVP_PKEY_free(dh);

    if (SSL_CTX_set1_groups_list(ctx, "P-256:X25519:P-384:ffdhe2048") != 1) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Error EC CIPHER context!\n", m_owner, function);
    }
}

SSL_CTX* SslOptions::BuildContext(const char* function)
{
    SSL_CTX* ctx = SSL_CTX_new(m_server ? TLS_server_method() : TLS_client_method());
    if (!ctx) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : SSL_CTX_new failed, errno:%d, %s, %s\n", m_owner, function, err,
                SErrorText(err).text, SslErrorText().text);
        return nullptr;
    }
    if (!certificate_setup(ctx, function)) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    // Bans only ever add; SSLv2 is gone from OpenSSL altogether and TLS 1.2 cannot be
    // banned. The system's own policy (a minimum version) applies on top.
    if (ban_bits & 1) SSL_CTX_set_options(ctx, SSL_OP_NO_SSLv2);
    if (ban_bits & 2) SSL_CTX_set_options(ctx, SSL_OP_NO_SSLv3);
    if (ban_bits & 4) SSL_CTX_set_options(ctx, SSL_OP_NO_TLSv1);
    if (ban_bits & 8) SSL_CTX_set_options(ctx, SSL_OP_NO_TLSv1_1);
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (!(session_flags & SSL_SESSION_TICKETS)) SSL_CTX_set_options(ctx, SSL_OP_NO_TICKET);
    if (m_server) {
        SSL_CTX_set_session_cache_mode(ctx, session_flags ? SSL_SESS_CACHE_SERVER : SSL_SESS_CACHE_OFF);
        SSL_CTX_set_session_id_context(ctx, kSessionIdContext, sizeof kSessionIdContext - 1);
        // One set of ticket keys for the whole process: a ticket stays good when the
        // context is rebuilt.
        if (const unsigned char* keys = CSslDgram::TicketKeys()) {
            SSL_CTX_set_tlsext_ticket_keys(ctx, const_cast<unsigned char*>(keys), 48);
        }
        key_exchange_setup(ctx, function);
    } else {
        // Client sessions live in the library's own caches, never in OpenSSL's.
        SSL_CTX_set_session_cache_mode(
            ctx, session_flags ? SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL : SSL_SESS_CACHE_OFF);
    }
    return ctx;
}

SSL* SslOptions::NewConnection(SSL_CTX* ctx, int fd, const char* function) const
{
    SSL* ssl = SSL_new(ctx);
    if (!ssl) {
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s SSL_new failed, errno:%d, %s, %s\n", m_owner, function, err,
                SErrorText(err).text, SslErrorText().text);
        return nullptr;
    }
    BIO* bio = CSslSocketBio::New(fd);
    if (!bio) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s SSL_new failed, errno:%d, %s, %s\n", m_owner, function, 0, "no BIO",
                SslErrorText().text);
        SSL_free(ssl);
        return nullptr;
    }
    SSL_set_bio(ssl, bio, bio);
    return ssl;
}

void SslOptions::SetHandshakeLimits(int fd, int ms, const char* function) const
{
    static constexpr const char* kLines[2][2] = {
        // The blocking classes label both numbers "send_t".
        {"this:%p %s :Set SO_RCVTIMEO failed! fd[%d], send_t:%d, send_t:%d, error:%d, %s\n",
         "this:%p %s :Set SO_SNDTIMEO failed! fd[%d], send_t:%d, send_t:%d, error:%d, %s\n"},
        {"this:%p %s :Set SO_RCVTIMEO failed! fd[%d], send_t[%d], recv_t[%d], errno:%d,%s\n",
         "this:%p %s :Set SO_SNDTIMEO failed! fd[%d], send_t[%d], recv_t[%d], errno:%d,%s\n"}};
    for (int i = 0; i < 2; ++i) {
        if (Platform::sock_set_io_timeout(fd, i == 0, ms) == 0) continue;
        const int err = Platform::last_error();
        CVN_LOG(Fundel::LOG_WARN, kLines[m_async ? 1 : 0][i], m_owner, function, fd, ms, ms, err, SErrorText(err).text);
        return;
    }
}

const char* SslOptions::CipherList() const
{
    return cipher_kind == 1 ? cipher_list.c_str() : kDefaultCipherList;
}

}  // namespace Qelvar::Corvane
