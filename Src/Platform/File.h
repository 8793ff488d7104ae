// Files the library writes for its user.
#pragma once

#include <cstdio>

namespace Qelvar::Platform {

/// Opens `path` for writing, created or emptied, readable and writable by its owner only
/// (a private key); null on failure. Windows keeps the directory's default access.
std::FILE* open_private_file(const char* path);

}  // namespace Qelvar::Platform
