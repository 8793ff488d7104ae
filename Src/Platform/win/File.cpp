#include "Platform/File.h"

namespace Qelvar::Platform {

std::FILE* open_private_file(const char* path)
{
    return std::fopen(path, "wb");
}

}  // namespace Qelvar::Platform
