// Writes to a socket by its type: the senders hold a CSock* and dispatch on GetType()
// instead of a virtual call, since each class writes differently.
#pragma once

#include <Corvane/IoVec.h>

#include <climits>

namespace Qelvar::Corvane {

class CSock;

/// What sock_send and sock_writev return for a socket type they cannot write.
constexpr int kNotWritable = INT_MIN;

/// One send on a socket of type 1, 3, 4, 5 or 8, and of type 2 (to its default destination)
/// when `datagrams`. The bytes accepted, 0 when it would block, negative on error, or
/// kNotWritable.
int sock_send(CSock* sock, unsigned int type, const char* buf, unsigned int len, bool datagrams);
/// One gathered write, with the same types and results as sock_send.
int sock_writev(CSock* sock, unsigned int type, const iovec* vec, int count, bool datagrams);

}  // namespace Qelvar::Corvane
