#include "TestPki.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "TestSupport.h"

namespace TestPki {

namespace {

EVP_PKEY* new_key()
{
    return EVP_EC_gen("P-256");
}

void add_extension(X509* cert, X509* issuer, int nid, const char* value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

// A certificate for `key` named `cn`, valid from `from_days` to `to_days` (relative to
// now), signed by `issuer`/`issuer_key` or by itself when they are null.
X509* make_cert(const char* cn, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuer_key, bool ca, long from_days,
                long to_days, const char* san)
{
    static long serial = 1;
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++);
    X509_gmtime_adj(X509_getm_notBefore(cert), from_days * 86400);
    X509_gmtime_adj(X509_getm_notAfter(cert), to_days * 86400);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Corvane tests"), -1,
                               -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
    X509_set_issuer_name(cert, issuer ? X509_get_subject_name(issuer) : name);
    X509* signer = issuer ? issuer : cert;
    add_extension(cert, signer, NID_basic_constraints, ca ? "critical,CA:TRUE" : "CA:FALSE");
    add_extension(cert, signer, NID_subject_key_identifier, "hash");
    if (ca) add_extension(cert, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    if (san) add_extension(cert, signer, NID_subject_alt_name, san);
    X509_sign(cert, issuer_key ? issuer_key : key, EVP_sha256());
    return cert;
}

void write_cert(const std::string& path, X509* cert)
{
    FILE* f = std::fopen(path.c_str(), "w");
    PEM_write_X509(f, cert);
    std::fclose(f);
}

void write_key(const std::string& path, EVP_PKEY* key, const char* pass = nullptr)
{
    FILE* f = std::fopen(path.c_str(), "w");
    if (pass) {
        PEM_write_PrivateKey(f, key, EVP_aes_128_cbc(), nullptr, 0, nullptr, const_cast<char*>(pass));
    } else {
        PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
    }
    std::fclose(f);
}

// A pem directory: the certificate (and its issuer, as a chain file) and the key.
void write_identity(const std::string& dir, X509* cert, EVP_PKEY* key)
{
    std::filesystem::create_directories(dir);
    write_cert(dir + "/cacert.pem", cert);
    write_key(dir + "/privkey.pem", key);
}

std::string make_all()
{
    const std::string dir = Qelvar::Test::MakeTempDir("corvane-pki-");
    if (dir.empty()) {
        std::fprintf(stderr, "no temporary directory for the test certificates\n");
        std::abort();
    }

    EVP_PKEY* ca_key = new_key();
    X509* ca = make_cert("Corvane Test CA", ca_key, nullptr, nullptr, true, -1, 365, nullptr);
    write_cert(dir + "/ca.pem", ca);

    EVP_PKEY* server_key = new_key();
    X509* server = make_cert("localhost", server_key, ca, ca_key, false, -1, 365, "DNS:localhost,IP:127.0.0.1");
    write_identity(dir + "/server", server, server_key);
    write_key(dir + "/server-key-enc.pem", server_key, "secret");

    EVP_PKEY* expired_key = new_key();
    X509* expired = make_cert("localhost", expired_key, ca, ca_key, false, -30, -1, "DNS:localhost,IP:127.0.0.1");
    write_identity(dir + "/expired", expired, expired_key);

    EVP_PKEY* self_key = new_key();
    X509* self = make_cert("localhost", self_key, nullptr, nullptr, false, -1, 365, "DNS:localhost,IP:127.0.0.1");
    write_identity(dir + "/selfsigned", self, self_key);

    EVP_PKEY* other_key = new_key();
    X509* other = make_cert("other.test", other_key, ca, ca_key, false, -1, 365, "DNS:other.test");
    write_identity(dir + "/other", other, other_key);

    EVP_PKEY* client_key = new_key();
    X509* client = make_cert("client", client_key, ca, ca_key, false, -1, 365, nullptr);
    write_cert(dir + "/client.pem", client);
    write_key(dir + "/client-key.pem", client_key);

    EVP_PKEY* stray = new_key();
    write_key(dir + "/stray-key.pem", stray);

    for (X509* c : {ca, server, expired, self, other, client}) X509_free(c);
    for (EVP_PKEY* k : {ca_key, server_key, expired_key, self_key, other_key, client_key, stray}) EVP_PKEY_free(k);
    return dir;
}

}  // namespace

// The directory's name for the exit handler, which may run after the string is gone.
char g_made[512];

const std::string& Dir()
{
    static const std::string dir = [] {
        std::string made = make_all();
        std::snprintf(g_made, sizeof g_made, "%s", made.c_str());
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(g_made, ec);
        });
        return made;
    }();
    return dir;
}

std::string Path(const std::string& name)
{
    return Dir() + "/" + name;
}

std::string Read(const std::string& name)
{
    std::ifstream in(Path(name));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace TestPki
