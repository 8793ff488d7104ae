// CSslX509: a certificate, its private key and the certificates around it, for TLS.
#pragma once

#include <Corvane/Export.h>

// OpenSSL's types, declared here so that this header needs no OpenSSL headers; the
// accessors below hand out OpenSSL objects for callers that use OpenSSL themselves.
struct x509_st;
struct evp_pkey_st;
struct stack_st_X509;

namespace Qelvar::Corvane {

/// What a TLS object needs to prove who it is and to check its peer: a certificate, the
/// private key that goes with it, the trusted CA certificates that a peer's certificate
/// must chain to, and further chain certificates sent with the certificate.
///
/// Attach it to a TLS stream or acceptor with SetOption(1, mode, object): bit 0 of mode
/// verifies the peer against the trusted CAs, bit 1 presents the certificate and key.
/// The TLS object then owns it and deletes it. GetPeerCert fills one with the peer's
/// certificate.
///
/// Loaders take PEM text from a file or from memory and return 0, or -1 with a log line
/// naming the OpenSSL error. A loader replaces what it loads (certificate, key) or adds
/// to it (CA and chain stacks).
class CORVANE_API CSslX509 {
public:
    CSslX509();
    ~CSslX509();
    CSslX509(const CSslX509&) = delete;
    CSslX509& operator=(const CSslX509&) = delete;

    /// The first certificate of a PEM file or buffer becomes the certificate; any further
    /// ones are appended to the chain (a "full chain" file).
    int LoadCertificateFile(const char* path);
    int LoadCertificate(const char* pem, int length);

    /// The private key, decrypted with `pass` when it is encrypted (null: none).
    int LoadPrivateKeyFile(const char* path, const char* pass = nullptr);
    int LoadPrivateKey(const char* pem, int length, const char* pass = nullptr);

    /// Every certificate of the PEM text is added to the trusted CAs.
    int AddTrustedCAFile(const char* path);
    int AddTrustedCA(const char* pem, int length);

    /// Every certificate of the PEM text is added to the chain sent after the certificate.
    int AddChainFile(const char* path);
    int AddChain(const char* pem, int length);

    /// Makes a new P-256 key and a certificate for it, signed by itself, naming
    /// `common_name` (also as its DNS name) and valid for `days` from now; replaces the
    /// certificate and key held. For tests and first runs, not for production trust.
    int CreateSelfSigned(const char* common_name, int days);
    /// Writes the certificate, or the private key (unencrypted; on Linux the file is
    /// readable by its owner only), as PEM to `path`.
    int SaveCertificateFile(const char* path) const;
    int SavePrivateKeyFile(const char* path) const;

    /// Takes over `cert` and the one reference the caller held (a peer's certificate);
    /// the previous certificate is released.
    void TakeCertificate(x509_st* cert);

    /// The objects held (null or empty when none); they stay owned by this object.
    x509_st* GetCertificate() const { return m_cert; }
    evp_pkey_st* GetPrivateKey() const { return m_key; }
    stack_st_X509* GetTrustedCAs() const { return m_cas; }
    stack_st_X509* GetChain() const { return m_chain; }

    /// The certificate's subject as one line ("CN=host, O=..."), into `buf` of `size`
    /// bytes; the length written, or -1 without a certificate or room.
    int GetSubject(char* buf, int size) const;

private:
    int load_certificates(const char* pem, int length, const char* path, bool first_is_own,
                          stack_st_X509* into, const char* function);
    int load_key(const char* pem, int length, const char* path, const char* pass);

    x509_st* m_cert = nullptr;
    evp_pkey_st* m_key = nullptr;
    stack_st_X509* m_cas = nullptr;
    stack_st_X509* m_chain = nullptr;
};

}  // namespace Qelvar::Corvane
