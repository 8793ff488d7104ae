// The OpenSSL error text that TLS log lines end with.
#pragma once

#include <openssl/err.h>

#include <cstdio>

namespace Qelvar::Corvane {

/// The text of the latest error queued by OpenSSL on this thread (the queue is left as
/// it is); "no error" when the queue is empty.
struct SslErrorText {
    SslErrorText()
    {
        const unsigned long err = ERR_peek_last_error();
        if (err == 0) {
            std::snprintf(text, sizeof text, "no error");
        } else {
            ERR_error_string_n(err, text, sizeof text);
        }
    }
    char text[256];
};

}  // namespace Qelvar::Corvane
