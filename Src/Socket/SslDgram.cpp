#include "Socket/SslDgram.h"

#include <openssl/rand.h>

#include <atomic>

#include "Fundel/LogDefs.h"

namespace Qelvar::Corvane {

namespace {

// Name, HMAC secret, AES key: the order OpenSSL's ticket-key control expects.
unsigned char g_ticket_keys[48];
std::atomic<bool> g_ticket_keys_ready{false};

}  // namespace

int CSslDgram::Init()
{
    if (g_ticket_keys_ready.load()) return 0;
    // The name needs no secrecy (public generator); the two secrets come from the
    // private one.
    if (RAND_bytes(g_ticket_keys, 16) <= 0 || RAND_priv_bytes(g_ticket_keys + 16, 16) <= 0 ||
        RAND_priv_bytes(g_ticket_keys + 32, 16) <= 0) {
        CVN_LOG(Fundel::LOG_WARN, "%s : Generate SESSION TICKET KEY  failed\n", "CSslDgram::Init");
        return -1;
    }
    g_ticket_keys_ready.store(true);
    return 0;
}

const unsigned char* CSslDgram::TicketKeys()
{
    return g_ticket_keys_ready.load() ? g_ticket_keys : nullptr;
}

}  // namespace Qelvar::Corvane
