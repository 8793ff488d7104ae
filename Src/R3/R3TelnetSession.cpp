#include "R3/R3TelnetSession.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include <Corvane/R3.h>
#include <Corvane/StreamSender.h>

#include "Fundel/LogDefs.h"
#include "R3/R3FuncBox.h"

namespace Qelvar::Corvane {

namespace {

constexpr unsigned int kSendBufBytes = 204800;
constexpr std::size_t kChunkBytes = 4096;

// IAC DO ECHO, IAC DO LINEMODE, IAC DO REMOTE-FLOW-CONTROL, IAC WILL ECHO, IAC WILL
// SUPPRESS-GO-AHEAD: the client leaves echo and editing to us.
constexpr unsigned char kNegotiation[] = {255, 253, 1, 255, 253, 34, 255, 253, 33, 255, 251, 1, 255, 251, 3};

constexpr const char kBanner[] = "================================================================\n"
                                 "                   Realtime Remote Runner                       \n"
                                 "================================================================\n";

// Set while this thread is inside Write: output that something called from there (a
// log sink that prints to the console) would add is dropped instead of re-entering the
// sender in the middle of a Put.
thread_local bool t_writing = false;

}  // namespace

CR3TelnetSession::CR3TelnetSession(const char* name)
{
    std::snprintf(m_prompt, sizeof m_prompt, "%.64s>", name);
}

int CR3TelnetSession::Attach(CSockStream& accepted)
{
    std::lock_guard<Fundel::CMutex> input(m_input_mutex);
    std::lock_guard<Fundel::CMutex> output(m_mutex);
    if (m_shut) return -1;
    drop_connection();
    m_stream.Attach(accepted.Detach());
    m_stream.SetSockSendBuf(kSendBufBytes);
    m_sender = CStreamSender::Create();
    if (!m_sender || m_sender->Attach(this, &m_stream) != 0) {
        drop_connection();
        return -1;
    }
    m_sender->WaitException(GetID());
    if (RegisterSock(m_stream, MASK_READ, 0) != 0) {
        drop_connection();
        return -1;
    }
    // A new peer starts with a clean filter, whatever the last one left half-sent.
    CR3TelnetInput::ResetFilter();
    put_raw(reinterpret_cast<const char*>(kNegotiation), sizeof kNegotiation);
    Write(kBanner, sizeof kBanner - 1);
    put_raw(m_prompt, std::strlen(m_prompt));
    return 0;
}

void CR3TelnetSession::Shutdown()
{
    std::lock_guard<Fundel::CMutex> input(m_input_mutex);
    std::lock_guard<Fundel::CMutex> output(m_mutex);
    m_shut = true;
    drop_connection();
}

// Both locks held.
void CR3TelnetSession::drop_connection()
{
    if (m_sender) {
        m_sender->Detach();
        m_sender->Clear();
        m_sender->Close();
        m_sender = nullptr;
    }
    if (m_stream.IsValid()) {
        RemoveSock(m_stream);
        m_stream.Close();
    }
    m_fill = 0;
    m_input.Reset();
}

bool CR3TelnetSession::IsConnected()
{
    std::lock_guard<Fundel::CMutex> output(m_mutex);
    return m_sender != nullptr;
}

bool CR3TelnetSession::GetOutputState(unsigned int* queued, unsigned int* peak, unsigned int* capacity)
{
    std::lock_guard<Fundel::CMutex> output(m_mutex);
    if (!m_sender) return false;
    *queued = m_sender->GetDataLen();
    *peak = m_sender->GetPeakDataLen();
    *capacity = m_sender->GetCapacity() * 32768u;
    return true;
}

int CR3TelnetSession::put_raw(const char* data, std::size_t len)
{
    std::lock_guard<Fundel::CMutex> output(m_mutex);
    if (!m_sender) return -1;
    return m_sender->Put(data, static_cast<unsigned int>(len));
}

int CR3TelnetSession::Write(const char* text, std::size_t len)
{
    if (t_writing) return -1;
    std::lock_guard<Fundel::CMutex> output(m_mutex);
    if (!m_sender) return -1;
    t_writing = true;
    char chunk[kChunkBytes];
    std::size_t fill = 0;
    int result = 0;
    for (std::size_t i = 0; i <= len && result == 0; ++i) {
        // Hand over at the end, and before a byte that might not fit.
        if (i == len || fill + 2 > sizeof chunk) {
            if (fill > 0) result = m_sender->Put(chunk, static_cast<unsigned int>(fill));
            fill = 0;
            if (i == len) break;
        }
        if (text[i] == '\n' || text[i] == '\r') {
            chunk[fill++] = '\r';
            chunk[fill++] = '\n';
        } else {
            chunk[fill++] = text[i];
        }
    }
    t_writing = false;
    return result == 0 ? 0 : -1;
}

int CR3TelnetSession::handle_input(int handle)
{
    std::lock_guard<Fundel::CMutex> input(m_input_mutex);
    if (!m_stream.IsValid() || handle != m_stream.GetHandle()) return 0;
    // The editor uses every byte unless a line ends, and the loop below feeds it until
    // the buffer is empty, so the buffer is never full here.
    const int n = m_stream.Recv(reinterpret_cast<char*>(m_buf + m_fill), static_cast<unsigned int>(kRecvBufSize - m_fill));
    if (n < 0) {
        std::lock_guard<Fundel::CMutex> output(m_mutex);
        drop_connection();
        return -1;
    }
    m_fill += static_cast<std::size_t>(n);
    use_input();
    return 0;
}

// Input lock held.
void CR3TelnetSession::use_input()
{
    std::size_t used = 0;
    while (used < m_fill) {
        std::string echo;
        ER3Input event;
        used += m_input.Feed(m_buf + used, m_fill - used, echo, event);
        if (!echo.empty()) put_raw(echo.data(), echo.size());
        if (event == ER3Input::kBye) {
            std::lock_guard<Fundel::CMutex> output(m_mutex);
            drop_connection();
            return;
        }
        if (event == ER3Input::kLine) {
            run_line(m_input.Line(), m_input.LineLength());
            // The command may have stopped the console.
            if (!m_stream.IsValid()) return;
            put_raw(m_prompt, std::strlen(m_prompt));
        }
    }
    std::memmove(m_buf, m_buf + used, m_fill - used);
    m_fill -= used;
}

void CR3TelnetSession::run_line(const char* line, std::size_t len)
{
    const SR3Command command = CR3TelnetInput::Split(line, len);
    if (command.name.empty()) return;
    const R3Function func = CR3FuncBox::Find(command.name.c_str());
    if (!func) {
        static constexpr const char kNotFound[] = ":: command not found\n";
        Write(kNotFound, sizeof kNotFound - 1);
        return;
    }
    const int* a = command.args;
    func(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9]);
}

int CR3TelnetSession::handle_output(int handle)
{
    std::lock_guard<Fundel::CMutex> output(m_mutex);
    if (!m_sender || handle != m_stream.GetHandle()) return 0;
    m_sender->handle_output(handle);
    return 0;
}

int CR3TelnetSession::handle_message(long from_id, unsigned int type, long)
{
    if (type != STREAM_SENDER_EXCEPTION) return 0;
    std::lock_guard<Fundel::CMutex> input(m_input_mutex);
    std::lock_guard<Fundel::CMutex> output(m_mutex);
    // A sender dropped with an earlier connection may still report; only the current one counts.
    if (m_sender && m_sender->GetID() == from_id) drop_connection();
    return 0;
}

int CR3TelnetSession::handle_close(CNetHandler*)
{
    delete this;
    return 0;
}

}  // namespace Qelvar::Corvane
