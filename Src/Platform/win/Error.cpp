// Error numbers on Windows: the thread's Winsock error and FormatMessage texts.
#include "Platform/Error.h"

#include <winsock2.h>
#include <windows.h>

#include <cstdio>

namespace Qelvar::Platform {

int last_error()
{
    return WSAGetLastError();
}

void set_last_error(int err)
{
    WSASetLastError(err);
}

const char* error_text(int err, char* buf, std::size_t size)
{
    if (size == 0) return buf;
    // FormatMessage resets the thread's error; callers may still want to read it.
    const DWORD saved = GetLastError();
    char* text = nullptr;
    DWORD n = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                 FORMAT_MESSAGE_IGNORE_INSERTS,
                             nullptr, static_cast<DWORD>(err), 0, reinterpret_cast<char*>(&text), 0, nullptr);
    if (n == 0 || text == nullptr) {
        std::snprintf(buf, size, "Unknown error %d", err);
    } else {
        // System texts end with "\r\n"; log lines add their own line end.
        while (n > 0 && (text[n - 1] == '\r' || text[n - 1] == '\n' || text[n - 1] == ' ')) --n;
        std::snprintf(buf, size, "%.*s", static_cast<int>(n), text);
    }
    if (text != nullptr) LocalFree(text);
    SetLastError(saved);
    return buf;
}

bool is_would_block(int err)
{
    // 11 is EAGAIN, which the socket classes take for "would block" on every system.
    return err == WSAEWOULDBLOCK || err == 11;
}

bool is_interrupted(int err)
{
    return err == WSAEINTR;
}

bool is_in_progress(int err)
{
    // A non-blocking connect reports WSAEWOULDBLOCK; WSAEINPROGRESS is the old blocking-call one.
    return err == WSAEWOULDBLOCK || err == WSAEINPROGRESS;
}

bool is_already(int err)
{
    return err == WSAEALREADY;
}

bool is_connection_reset(int err)
{
    return err == WSAECONNRESET || err == WSAECONNABORTED;
}

bool is_unsupported_version(int err)
{
    return err == WSAVERNOTSUPPORTED;
}

}  // namespace Qelvar::Platform
