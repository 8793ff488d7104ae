#include "Platform/File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

}  // namespace Qelvar::Platform
