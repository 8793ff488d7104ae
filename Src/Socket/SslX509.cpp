#include <Corvane/SslX509.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Fundel/LogDefs.h"
#include "Platform/File.h"
#include "Socket/SslError.h"

namespace Qelvar::Corvane {

namespace {

// A read-only BIO over the file `path`, or over `length` bytes at `pem` when no path.
BIO* open_source(const char* pem, int length, const char* path)
{
    if (path) return BIO_new_file(path, "r");
    if (!pem || length <= 0) return nullptr;
    return BIO_new_mem_buf(pem, length);
}

// PEM pass phrase callback: the phrase given to the loader (userdata), or none.
int pass_phrase(char* buf, int size, int, void* userdata)
{
    const char* pass = static_cast<const char*>(userdata);
    if (!pass) return 0;
    const int len = static_cast<int>(std::strlen(pass));
    if (len > size) return 0;
    std::memcpy(buf, pass, static_cast<std::size_t>(len));
    return len;
}

}  // namespace

CSslX509::CSslX509()
    : m_cas(sk_X509_new_null()), m_chain(sk_X509_new_null())
{
}

CSslX509::~CSslX509()
{
    X509_free(m_cert);
    EVP_PKEY_free(m_key);
    sk_X509_pop_free(m_cas, X509_free);
    sk_X509_pop_free(m_chain, X509_free);
}

int CSslX509::load_certificates(const char* pem, int length, const char* path, bool first_is_own,
                                stack_st_X509* into, const char* function)
{
    BIO* bio = open_source(pem, length, path);
    if (!bio) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : cannot read %s, error: %s\n", static_cast<void*>(this),
                function, path ? path : "the PEM buffer", SslErrorText().text);
        return -1;
    }
    ERR_clear_error();
    int count = 0;
    while (X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
        if (first_is_own && count == 0) {
            X509_free(m_cert);
            m_cert = cert;
        } else if (!into || sk_X509_push(into, cert) <= 0) {
            X509_free(cert);
        }
        ++count;
    }
    BIO_free(bio);
    // The loop ends on the first thing that is not a certificate: the end of the text
    // is expected, anything else is a fault in it.
    const unsigned long err = ERR_peek_last_error();
    const bool clean_end = ERR_GET_REASON(err) == PEM_R_NO_START_LINE;
    if (count == 0 || (err != 0 && !clean_end)) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : no certificate in %s, error: %s\n", static_cast<void*>(this),
                function, path ? path : "the PEM buffer", SslErrorText().text);
        ERR_clear_error();
        return -1;
    }
    ERR_clear_error();
    return 0;
}

int CSslX509::load_key(const char* pem, int length, const char* path, const char* pass)
{
    BIO* bio = open_source(pem, length, path);
    EVP_PKEY* key = bio ? PEM_read_bio_PrivateKey(bio, nullptr, pass_phrase, const_cast<char*>(pass)) : nullptr;
    BIO_free(bio);
    if (!key) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : no private key in %s, error: %s\n", static_cast<void*>(this),
                "CSslX509::LoadPrivateKey", path ? path : "the PEM buffer", SslErrorText().text);
        ERR_clear_error();
        return -1;
    }
    EVP_PKEY_free(m_key);
    m_key = key;
    return 0;
}

int CSslX509::LoadCertificateFile(const char* path)
{
    if (!path) return -1;
    return load_certificates(nullptr, 0, path, true, m_chain, "CSslX509::LoadCertificateFile");
}

int CSslX509::LoadCertificate(const char* pem, int length)
{
    return load_certificates(pem, length, nullptr, true, m_chain, "CSslX509::LoadCertificate");
}

int CSslX509::LoadPrivateKeyFile(const char* path, const char* pass)
{
    if (!path) return -1;
    return load_key(nullptr, 0, path, pass);
}

int CSslX509::LoadPrivateKey(const char* pem, int length, const char* pass)
{
    return load_key(pem, length, nullptr, pass);
}

int CSslX509::AddTrustedCAFile(const char* path)
{
    if (!path) return -1;
    return load_certificates(nullptr, 0, path, false, m_cas, "CSslX509::AddTrustedCAFile");
}

int CSslX509::AddTrustedCA(const char* pem, int length)
{
    return load_certificates(pem, length, nullptr, false, m_cas, "CSslX509::AddTrustedCA");
}

int CSslX509::AddChainFile(const char* path)
{
    if (!path) return -1;
    return load_certificates(nullptr, 0, path, false, m_chain, "CSslX509::AddChainFile");
}

int CSslX509::AddChain(const char* pem, int length)
{
    return load_certificates(pem, length, nullptr, false, m_chain, "CSslX509::AddChain");
}

int CSslX509::CreateSelfSigned(const char* common_name, int days)
{
    if (!common_name || !*common_name || days <= 0) return -1;
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    bool ok = key && cert;
    if (ok) {
        // A random serial: two certificates made this way never share one.
        unsigned char serial[8];
        BIGNUM* number = BN_bin2bn(serial, RAND_bytes(serial, sizeof serial) == 1 ? sizeof serial : 0, nullptr);
        ok = number && BN_to_ASN1_INTEGER(number, X509_get_serialNumber(cert)) != nullptr;
        BN_free(number);
    }
    if (ok) {
        X509_set_version(cert, 2);
        X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
        X509_gmtime_adj(X509_getm_notAfter(cert), static_cast<long>(days) * 86400);
        X509_set_pubkey(cert, key);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(common_name),
                                   -1, -1, 0);
        X509_set_issuer_name(cert, name);
        X509V3_CTX ctx;
        X509V3_set_ctx_nodb(&ctx);
        X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
        const std::string san = std::string("DNS:") + common_name;
        X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, NID_subject_alt_name, san.c_str());
        ok = ext && X509_add_ext(cert, ext, -1) == 1 && X509_sign(cert, key, EVP_sha256()) > 0;
        X509_EXTENSION_free(ext);
    }
    if (!ok) {
        CVN_LOG(Fundel::LOG_WARN, "this:%p %s : cannot make a certificate for %s, error: %s\n",
                static_cast<void*>(this), "CSslX509::CreateSelfSigned", common_name, SslErrorText().text);
        ERR_clear_error();
        X509_free(cert);
        EVP_PKEY_free(key);
        return -1;
    }
    X509_free(m_cert);
    EVP_PKEY_free(m_key);
    m_cert = cert;
    m_key = key;
    return 0;
}

int CSslX509::SaveCertificateFile(const char* path) const
{
    if (!m_cert || !path) return -1;
    BIO* bio = BIO_new_file(path, "w");
    const bool ok = bio && PEM_write_bio_X509(bio, m_cert) == 1;
    BIO_free(bio);
    return ok ? 0 : -1;
}

int CSslX509::SavePrivateKeyFile(const char* path) const
{
    if (!m_key || !path) return -1;
    std::FILE* file = Platform::open_private_file(path);
    BIO* bio = file ? BIO_new_fp(file, BIO_CLOSE) : nullptr;
    if (file && !bio) std::fclose(file);
    const bool ok = bio && PEM_write_bio_PrivateKey(bio, m_key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    BIO_free(bio);
    return ok ? 0 : -1;
}

void CSslX509::TakeCertificate(x509_st* cert)
{
    X509_free(m_cert);
    m_cert = cert;
}

int CSslX509::GetSubject(char* buf, int size) const
{
    if (!m_cert || !buf || size <= 0) return -1;
    BIO* bio = BIO_new(BIO_s_mem());
    if (!bio) return -1;
    X509_NAME_print_ex(bio, X509_get_subject_name(m_cert), 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    char* data = nullptr;
    const long len = BIO_get_mem_data(bio, &data);
    int written = -1;
    if (len >= 0 && len < size) {
        std::memcpy(buf, data, static_cast<std::size_t>(len));
        buf[len] = '\0';
        written = static_cast<int>(len);
    }
    BIO_free(bio);
    return written;
}

}  // namespace Qelvar::Corvane
