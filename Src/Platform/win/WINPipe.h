// The wake-up pair of the select poller. Windows select() waits on sockets only, so
// the pipe is a loopback TCP connection: the accepted end is read, the connecting end
// is written.
#pragma once

namespace Qelvar::Platform {

class CWINPipe {
public:
    CWINPipe() = default;
    ~CWINPipe();
    CWINPipe(const CWINPipe&) = delete;
    CWINPipe& operator=(const CWINPipe&) = delete;

    /// Connects the pair and puts both ends in non-blocking (true) or blocking mode.
    /// 0, or -1 with last_error() and nothing left open.
    int Create(bool nonblocking);

    /// Closes both ends; safe to call twice.
    void Close();

    int ReadHandle() const { return m_read_handle; }
    int WriteHandle() const { return m_write_handle; }

    /// Sends `len` bytes into the write end: the count sent, 0 when the call would block
    /// or was interrupted, -1 on any other error.
    int Write(const void* buf, int len);

    /// Reads up to `len` bytes from the read end: the count read, 0 when nothing is
    /// there or the call was interrupted, -1 on error or when the write end has closed.
    int Read(void* buf, int len);

private:
    int m_read_handle = -1;
    int m_write_handle = -1;
};

}  // namespace Qelvar::Platform
