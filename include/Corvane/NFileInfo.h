// NFile_Info: what a storage device says of its file.
#pragma once

namespace Qelvar::Corvane {

/// Filled by CNStorDev_IF::Stat. Times are seconds since 1970-01-01 UTC.
struct NFile_Info {
    long long creation_time = 0;      ///< status change (Linux) or creation (Windows)
    long long access_time = 0;
    long long modification_time = 0;
    long long size = 0;               ///< bytes; CDefaultStorDev represents sizes below 2 GiB only
    int reserved = 0;                 ///< always 0
    char path[256] = {};              ///< the device's path, at most 255 characters
};

}  // namespace Qelvar::Corvane
