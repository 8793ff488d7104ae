#include "Platform/File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Platform/Error.h"

namespace Qelvar::Platform {

std::FILE* open_private_file(const char* path)
{
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return nullptr;
    // An existing file keeps its mode through O_TRUNC: tighten it before writing.
    if (::fchmod(fd, 0600) != 0) {
        ::close(fd);
        return nullptr;
    }
    std::FILE* file = ::fdopen(fd, "w");
    if (!file) ::close(fd);
    return file;
}

std::FILE* open_file(const char* path, const char* mode)
{
    // glibc's "e" flag: the descriptor does not leak into programs the user starts.
    const std::string with_cloexec = std::string(mode) + "e";
    return std::fopen(path, with_cloexec.c_str());
}

int seek_file(std::FILE* file, std::int64_t offset, int whence)
{
    return ::fseeko(file, static_cast<off_t>(offset), whence) == 0 ? 0 : -1;
}

int stat_file(const char* path, SFileStatus* status)
{
    struct stat st {};
    if (::stat(path, &st) != 0) return -1;
    status->created = static_cast<std::int64_t>(st.st_ctime);
    status->accessed = static_cast<std::int64_t>(st.st_atime);
    status->modified = static_cast<std::int64_t>(st.st_mtime);
    status->size = static_cast<std::int64_t>(st.st_size);
    return 0;
}

const char* file_error_text(int err, char* buf, std::size_t size)
{
    // A file error is an errno value, the same texts as the socket calls use here.
    return error_text(err, buf, size);
}

}  // namespace Qelvar::Platform
