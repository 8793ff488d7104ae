// CNStorDev_IF: what stores the bytes of an asynchronous file.
#pragma once

#include <Corvane/Export.h>
#include <Corvane/NFileInfo.h>

namespace Qelvar::Corvane {

/// The seam between an asynchronous file and whatever keeps its bytes. Derive from it to
/// store files elsewhere than in the file system; CDefaultStorDev keeps them in ordinary
/// files. A device is opened once, asked for its status once, used for reads, writes and
/// seeks, and ended with Close.
class CORVANE_API CNStorDev_IF {
public:
    virtual ~CNStorDev_IF() = default;
    /// Opens `path` with a C stream `mode` ("rb", "wb", "a+b" ...). 0, or negative.
    virtual int Open(const char* path, const char* mode) = 0;
    /// Ends the device's use (a device may delete itself here).
    virtual void Close() = 0;
    /// Writes `len` bytes; the count written.
    virtual int Write(const char* buf, unsigned int len) = 0;
    /// Reads up to `len` bytes; the count read, or 0 or negative when nothing was read.
    virtual int Read(char* buf, unsigned int len) = 0;
    /// Moves the position (`whence` as for fseek). 0, or negative.
    virtual int Seek(long long offset, int whence) = 0;
    /// Fills `info`. 0, or negative.
    virtual int Stat(NFile_Info* info) = 0;
    /// Whether the file layer runs this device's I/O on a file thread (true here).
    virtual bool NeedAIO() { return true; }
};

}  // namespace Qelvar::Corvane
