// CSslDgram: the process-wide TLS session-ticket keys (the datagram TLS socket itself is
// not part of this library yet).
#pragma once

namespace Qelvar::Corvane {

/// Holds the keys that protect session tickets: a 16-byte key name, a 16-byte HMAC
/// secret and a 16-byte AES key, drawn from OpenSSL's random generators once per process
/// and kept in memory only, so tickets issued by one server context are accepted by
/// every other context of the process until it exits.
class CSslDgram {
public:
    /// Draws the keys once; 0, or -1 with "Generate SESSION TICKET KEY  failed" (a later
    /// call tries again). Called when the first thread pool starts.
    static int Init();
    /// The 48 bytes (name, HMAC secret, AES key) in OpenSSL's ticket-key layout, or null
    /// before a successful Init.
    static const unsigned char* TicketKeys();
};

}  // namespace Qelvar::Corvane
