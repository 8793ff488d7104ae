// Files: the ones the library writes for its user, and the few calls of the C runtime's
// buffered streams whose names differ between systems.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace Qelvar::Platform {

/// Opens `path` for writing, created or emptied, readable and writable by its owner only
/// (a private key); null on failure. Windows keeps the directory's default access.
std::FILE* open_private_file(const char* path);

/// A buffered stream with close-on-exec where the system has it; null on failure (errno).
std::FILE* open_file(const char* path, const char* mode);

/// fseeko / _fseeki64: 0, or -1 (errno).
int seek_file(std::FILE* file, std::int64_t offset, int whence);

/// What the file system says of a path, times in seconds since 1970 UTC.
struct SFileStatus {
    std::int64_t created;   ///< status change (Linux) or creation (Windows)
    std::int64_t accessed;
    std::int64_t modified;
    std::int64_t size;
};

/// stat / _stat64 of `path`: 0, or -1 (errno).
int stat_file(const char* path, SFileStatus* status);

/// The C runtime's text for error number `err` (errno), always terminated.
const char* file_error_text(int err, char* buf, std::size_t size);

}  // namespace Qelvar::Platform
