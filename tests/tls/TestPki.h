// Certificates and keys for the TLS tests, made once per test process with OpenSSL into
// a temporary directory: a CA, a server certificate it signed (localhost, 127.0.0.1), an
// expired one, a self-signed one, a client certificate, a second server identity for
// server-name tests, an encrypted key and a key that matches nothing.
#pragma once

#include <string>

namespace TestPki {

/// The directory everything is in; made at the first call.
const std::string& Dir();
/// Dir() + "/" + name. Names:
///   ca.pem                                  the CA certificate
///   server/cacert.pem, server/privkey.pem   CN=localhost, signed by the CA (a pem dir)
///   expired/..., selfsigned/...             the same layout, expired / self-signed
///   other/...                               CN=other.test, signed by the CA
///   client.pem, client-key.pem              CN=client, signed by the CA
///   server-key-enc.pem                      the server key, encrypted with "secret"
///   stray-key.pem                           a key that matches no certificate
std::string Path(const std::string& name);
/// The contents of Path(name).
std::string Read(const std::string& name);

}  // namespace TestPki
