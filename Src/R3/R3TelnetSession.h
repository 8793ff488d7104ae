// One telnet connection of the console: its socket, its output queue and its editor.
#pragma once

#include <cstddef>

#include <Corvane/NetHandler.h>
#include <Corvane/SockStream.h>

#include "Fundel/Mutex.h"
#include "R3/R3TelnetInput.h"

namespace Qelvar::Corvane {

class CStreamSender;

/// The console's connection handler. The daemon makes one at start and hands it each
/// accepted socket; a new socket replaces the current one. All output goes through a
/// CStreamSender, so a peer that does not read costs at most the sender's capacity and
/// never blocks a thread.
///
/// Locks: the input lock covers reading, the editor and running commands; the output
/// lock covers the sender. Changing the connection takes both, input first. Writers
/// (R3Printf from any thread) take only the output lock, so a command that runs for long
/// does not hold up other threads' output.
class CR3TelnetSession : public CNetHandler {
public:
    /// A session without connection on the public pool, prompting "`name`>".
    explicit CR3TelnetSession(const char* name);

    /// Drops the current connection, takes `accepted` (send buffer 204800 bytes, a new
    /// sender, registered for input) and sends the telnet options, the banner and the
    /// prompt. 0, or -1 after Shutdown or when the socket cannot be served (it is closed).
    int Attach(CSockStream& accepted);
    /// Drops the connection for good: Attach fails from now on. Call it before Close.
    void Shutdown();

    /// Sends `text` with every LF and every CR turned into CR LF, in chunks of at most
    /// 4096 bytes. Stops at the first chunk the sender refuses. 0, or -1 when there is no
    /// connection or a chunk was refused. Any thread.
    int Write(const char* text, std::size_t len);
    bool IsConnected();

    /// For tests: the sender's queued bytes, the most it ever queued and its capacity in
    /// bytes. False without a connection.
    bool GetOutputState(unsigned int* queued, unsigned int* peak, unsigned int* capacity);

    int handle_input(int handle) override;
    int handle_output(int handle) override;
    /// Code 2 from the current sender: the socket failed, the connection is dropped.
    int handle_message(long from_id, unsigned int type, long attach) override;
    int handle_close(CNetHandler* handler) override;

private:
    ~CR3TelnetSession() override = default;

    static constexpr std::size_t kRecvBufSize = 1024;

    void drop_connection();
    int put_raw(const char* data, std::size_t len);
    void use_input();
    void run_line(const char* line, std::size_t len);

    Fundel::CMutex m_input_mutex;
    Fundel::CMutex m_mutex;
    CSockStream m_stream;
    CStreamSender* m_sender = nullptr;
    bool m_shut = false;
    char m_prompt[66] = {};  // the name (at most 64) and ">"
    unsigned char m_buf[kRecvBufSize] = {};
    std::size_t m_fill = 0;
    CR3TelnetInput m_input;
};

}  // namespace Qelvar::Corvane
