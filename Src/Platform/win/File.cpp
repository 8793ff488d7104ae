#include "Platform/File.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cstring>

namespace Qelvar::Platform {

std::FILE* open_private_file(const char* path)
{
    return std::fopen(path, "wb");
}

std::FILE* open_file(const char* path, const char* mode)
{
    return std::fopen(path, mode);
}

int seek_file(std::FILE* file, std::int64_t offset, int whence)
{
    return ::_fseeki64(file, offset, whence) == 0 ? 0 : -1;
}

int stat_file(const char* path, SFileStatus* status)
{
    struct _stat64 st {};
    if (::_stat64(path, &st) != 0) return -1;
    status->created = static_cast<std::int64_t>(st.st_ctime);
    status->accessed = static_cast<std::int64_t>(st.st_atime);
    status->modified = static_cast<std::int64_t>(st.st_mtime);
    status->size = static_cast<std::int64_t>(st.st_size);
    return 0;
}

const char* file_error_text(int err, char* buf, std::size_t size)
{
    if (::strerror_s(buf, size, err) != 0 && size > 0) buf[0] = '\0';
    return buf;
}

}  // namespace Qelvar::Platform
