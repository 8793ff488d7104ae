// CNFile: a file whose reads and writes do not block the calling network thread.
#pragma once

#include <Corvane/NFileInfo.h>
#include <Corvane/NStorDev.h>
#include <Corvane/NetHandler.h>

namespace Qelvar::Corvane {

struct SNFileData;

/// A file read and written through a storage device (CNStorDev_IF) without blocking the
/// caller. With the file threads running (CNetThread::CreateThreadPool(n, true)) and a
/// device that asks for them (NeedAIO), the file keeps a few 131072-byte buffers that
/// the file threads fill and drain; otherwise every call goes straight to the device.
///
/// The owner (the negative receiver id given to Open) gets these messages, attach 0:
/// - 6: write space is free again after a Write took less than asked (or 0): write the
///   rest now. Write returns 0 until then.
/// - 7: call Read again: the data asked for arrived, the end of the file was found, or
///   a buffer came free after a Read found none. Read returns 0 until then.
/// - 8: an I/O error, or Read/Write called without data. Bytes the device refused are
///   dropped; the owner usually closes the file.
///
/// Rules of the buffered file:
/// - Read and Write share one offset, as a C stream does. When no buffer is empty, the
///   first clean one from a round-robin index is reused; dirty ones met on the way are
///   sent for writing first.
/// - End of file: a device read giving 0, or -1 at or beyond the size that the device's
///   Stat reports at that moment (the file may have grown), is the end: eof is set and
///   no 8 is sent; any other -1 is an error (8). The unbuffered Read follows the same
///   rule: 0 with eof at the end, -1 and 8 on an error. The test follows Stat's size,
///   a 32-bit number with CDefaultStorDev: beyond 2 GiB reads come out as errors.
/// - Seek: whence 0 sets the offset, 1 moves it from the current one; 2 (from the end)
///   is refused with -1, since a buffered file has no settled end while bytes are in
///   flight. A negative result or another whence is refused too; refusals log at level 3.
/// - Close: the device is closed only after every byte written before has reached it.
class CORVANE_API CNFile : public CNetHandler {
public:
    /// Opens `path` with the C stream `mode` on `dev` (a CDefaultStorDev when null).
    /// `recvr_id` receives the messages and must be negative. Null (logged) for a bad
    /// receiver id, a null path or mode, or a path of 256 characters or more (a given
    /// device stays the caller's then); null too when the device cannot open the path.
    /// From the device's Open on, the file ends it with its Close.
    static CNFile* Open(long recvr_id, const char* path, const char* mode, CNStorDev_IF* dev = nullptr);

    /// Makes `count` buffers (4 when either argument is 0). Every buffer holds 131072
    /// bytes whatever `size` says. Without file threads, or with a device that does not
    /// need them, the file goes unbuffered instead. 0; -1 (logged) while buffers are in
    /// use or hold unwritten bytes.
    int SetBufferSize(unsigned int size, unsigned int count);

    /// Takes up to `len` bytes at the current offset; the count taken (0 while waiting
    /// for message 6). Unbuffered: the device's result (8 when it wrote nothing).
    int Write(const char* data, unsigned int len);

    /// Copies up to `len` bytes from the current offset; the count copied. 0 while the
    /// data is on its way (message 7 follows). `eof` is set when the copy reached the end
    /// of the file. Unbuffered: -1 on an error.
    int Read(char* buf, unsigned int len, bool& eof);

    /// Moves the current offset (see the rules above). 0, or -1. Unbuffered: the
    /// device's Seek, whose refusal is logged at level 3 and returned.
    int Seek(long long offset, int whence);

    /// The information read from the device at Open. 0, or -1.
    int Stat(NFile_Info* info);

    /// Buffered: sends every buffer for writing and closes the file once they are
    /// written. Unbuffered: closes the device and the file at once.
    void Close() override;

    /// Gives the buffers back, closes the device if still open and deletes the file.
    int handle_close(CNetHandler* handler) override;

protected:
    CNFile();
    ~CNFile() override;

private:
    friend struct SNFileData;

    SNFileData* m_data;
};

}  // namespace Qelvar::Corvane
