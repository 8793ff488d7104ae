// CSslSocketBio: the OpenSSL I/O object the TLS classes put under a connection.
#pragma once

#include <openssl/bio.h>

namespace Qelvar::Corvane {

/// An OpenSSL BIO over a socket descriptor that sends and receives through the platform
/// layer, so that a peer gone away is an error result and never a signal (OpenSSL's own
/// socket BIO writes with write(), which raises SIGPIPE on Linux). It does not own the
/// descriptor.
class CSslSocketBio {
public:
    /// A new BIO over `fd`, or null.
    static BIO* New(int fd);

private:
    static int write(BIO* bio, const char* buf, int len);
    static int read(BIO* bio, char* buf, int len);
    static long ctrl(BIO* bio, int cmd, long num, void* ptr);
    static int create(BIO* bio);
};

}  // namespace Qelvar::Corvane
