// Error numbers of the system and their texts. Code above the platform layer never
// compares against raw numbers: it asks these helpers, which know the native names
// (EAGAIN/EWOULDBLOCK, EINTR ... on Linux; WSAEWOULDBLOCK 10035, WSAEINTR 10004 ... on Windows).
#pragma once

#include <cstddef>

namespace Qelvar::Platform {

/// The error number of the last failed socket call on this thread (errno; WSAGetLastError()).
int last_error();

/// Sets the number that last_error() returns on this thread.
void set_last_error(int err);

/// Writes the system's message text for `err` into `buf` (always terminated, no trailing
/// newline) and returns `buf`.
const char* error_text(int err, char* buf, std::size_t size);

/// The call would block: EAGAIN/EWOULDBLOCK; WSAEWOULDBLOCK or 11 (EAGAIN).
bool is_would_block(int err);

/// The call was interrupted: EINTR; WSAEINTR.
bool is_interrupted(int err);

/// A non-blocking connect is under way: EINPROGRESS; WSAEWOULDBLOCK, WSAEINPROGRESS.
bool is_in_progress(int err);

/// A connect is already under way: EALREADY; WSAEALREADY.
bool is_already(int err);

/// The peer reset or aborted the connection: ECONNRESET, ECONNABORTED, EPIPE; WSAECONNRESET,
/// WSAECONNABORTED.
bool is_connection_reset(int err);

/// The socket library is there but not in the version asked for: WSAVERNOTSUPPORTED;
/// never on Linux.
bool is_unsupported_version(int err);

}  // namespace Qelvar::Platform
