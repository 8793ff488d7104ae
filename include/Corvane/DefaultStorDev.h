// CDefaultStorDev: a storage device that keeps the bytes in an ordinary file.
#pragma once

#include <Corvane/NStorDev.h>

#include <cstdio>

namespace Qelvar::Corvane {

/// A file of the file system through the C runtime's buffered streams. Create it with
/// new; Close deletes it.
///
/// Rules kept on purpose:
/// - Read returns -1 when nothing was read, at the end of the file as well as on an
///   error: a caller that knows the file's size (Stat) tells the two apart.
/// - Seek takes whence 0 (from the start) and 1 (from the current position) only;
///   whence 2 (from the end) is refused with -1 and the position stays.
/// - Stat reports the size of the stored path as a 32-bit signed number widened: sizes
///   of 2 GiB and more come out wrong (negative or wrapped).
/// - The path is kept to 255 characters: a longer one is cut, and the cut path is the
///   file opened and reported.
class CORVANE_API CDefaultStorDev : public CNStorDev_IF {
public:
    CDefaultStorDev() = default;
    /// Closes the stream if open.
    ~CDefaultStorDev() override;
    CDefaultStorDev(const CDefaultStorDev&) = delete;
    CDefaultStorDev& operator=(const CDefaultStorDev&) = delete;

    /// Closes a stream already open, then opens `path` with `mode`. A null path, or a
    /// file that cannot be opened, is logged at level 3 and gives -1.
    int Open(const char* path, const char* mode) override;
    /// Deletes the device.
    void Close() override;
    int Write(const char* buf, unsigned int len) override;
    /// The count read, or -1 when nothing was read (end of file or error).
    int Read(char* buf, unsigned int len) override;
    /// whence 0 or 1: 0 or -1; any other whence: -1 without seeking.
    int Seek(long long offset, int whence) override;
    /// The status of the stored path (not of the open stream); logged and -1 on failure.
    int Stat(NFile_Info* info) override;

private:
    std::FILE* m_file = nullptr;
    char m_path[256] = {};
};

}  // namespace Qelvar::Corvane
