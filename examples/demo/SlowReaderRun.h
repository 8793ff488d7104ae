// The demo's stream-sender run: text goes through a CStreamSender to a reader that
// takes it slowly, so the queue fills, refuses, drains and tells its owner so.
#pragma once

#include <Corvane/Corvane.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

namespace SlowReader {

using namespace Qelvar::Corvane;

/// Owns the sending socket and its queue. The reactor reports the socket writable to
/// this handler, which hands the event to the sender; the sender's notifications come
/// back here as messages.
class CLineWriter : public CNetHandler {
public:
    CLineWriter() : m_sender(CStreamSender::Create()) {}

    /// Takes the connected socket and asks for every notification the sender gives.
    bool Start(CSockStream& accepted)
    {
        m_stream = accepted;  // shares the descriptor; `accepted` gives it up below
        accepted.Detach();
        m_stream.SetBlockOpt(false);
        m_stream.SetSockSendBuf(4096);  // small, so the queue is what absorbs the text
        if (!m_sender || m_sender->Attach(this, &m_stream) != 0) return false;
        return m_sender->WaitException(GetID()) == 0;
    }

    /// Queues `text` whole, waiting for room when the queue refuses it. False when the
    /// socket failed or no room came within 10 s.
    bool Write(const std::string& text)
    {
        const auto len = static_cast<unsigned int>(text.size());
        while (m_sender->Put(text.data(), len) != 0) {
            if (failed()) return false;
            std::unique_lock<std::mutex> lock(m_mutex);
            m_room = false;
            m_sender->WaitBufferSize(GetID(), len);
            if (!m_cv.wait_for(lock, std::chrono::seconds(10), [&] { return m_room || m_failed; })) return false;
        }
        return true;
    }

    /// Waits until everything went out.
    bool Finish()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_sender->WaitSendFinish(GetID());
        return m_cv.wait_for(lock, std::chrono::seconds(10), [&] { return m_finished || m_failed; }) && m_finished;
    }

    void Stop()
    {
        RemoveSock(m_stream);
        m_sender->Detach();
        m_sender->Close();
        m_stream.Close();
        Close();
    }

    unsigned int PeakQueued() { return m_sender->GetPeakDataLen(); }
    unsigned int Capacity() { return m_sender->GetCapacity() * 32768u; }
    int Notified(unsigned int code)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return code == STREAM_SENDER_BUFFER_FREE ? m_code4 : code == STREAM_SENDER_FINISHED ? m_code9 : m_code2;
    }

    int handle_output(int handle) override { return m_sender->handle_output(handle); }

    int handle_message(long, unsigned int type, long) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (type == STREAM_SENDER_BUFFER_FREE) {
            ++m_code4;
            m_room = true;
        } else if (type == STREAM_SENDER_FINISHED) {
            ++m_code9;
            m_finished = true;
        } else if (type == STREAM_SENDER_EXCEPTION) {
            ++m_code2;
            m_failed = true;
        }
        m_cv.notify_all();
        return 0;
    }

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

private:
    bool failed()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_failed;
    }

    CStreamSender* m_sender;
    CSockStream m_stream;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_room = false, m_finished = false, m_failed = false;
    int m_code2 = 0, m_code4 = 0, m_code9 = 0;
};

/// Sends `report` `copies` times through a CStreamSender to a reader that takes 2 KiB
/// every 2 ms and checks every byte. Prints one line; false when anything failed.
inline bool Run(const std::string& report, int copies)
{
    CSockAcceptor acceptor;
    CSockStream reader, accepted;
    acceptor.SetBlockOpt(true);
    reader.SetBlockOpt(true);
    accepted.SetBlockOpt(true);
    CSockAddrIPv4 bound;
    if (acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)) != 0 || acceptor.GetLocalAddr(&bound) != 0 ||
        reader.Connect(bound, nullptr) != 0 || acceptor.Accept(accepted, nullptr) != 0) {
        std::printf("  stream sender: no loopback connection\n");
        return false;
    }
    reader.SetSockRecvBuf(4096);
    auto* writer = new CLineWriter;
    if (!writer->Start(accepted)) {
        writer->Stop();
        return false;
    }

    std::string expected;
    for (int i = 0; i < copies; ++i) expected += report;
    std::atomic<bool> same{true};
    std::thread slow([&] {
        std::string got;
        char buf[2048];
        while (got.size() < expected.size()) {
            const int n = reader.Recv_n(buf, sizeof buf, 5000000);
            if (n <= 0) break;
            got.append(buf, static_cast<std::size_t>(n));
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        same = got == expected;
    });

    bool ok = true;
    for (int i = 0; i < copies && ok; ++i) ok = writer->Write(report);
    ok = ok && writer->Finish();
    slow.join();
    ok = ok && same.load();
    std::printf("  stream sender: %d copies of this report (%zu bytes) to a reader taking 2 KiB every 2 ms, %s; "
                "queue high-water mark %u of %u bytes; notifications: %d x 4 (room), %d x 9 (sent), %d x 2 (failed)\n",
                copies, expected.size(), same.load() ? "every byte in order" : "bytes LOST OR REORDERED",
                writer->PeakQueued(), writer->Capacity(), writer->Notified(STREAM_SENDER_BUFFER_FREE),
                writer->Notified(STREAM_SENDER_FINISHED), writer->Notified(STREAM_SENDER_EXCEPTION));
    writer->Stop();
    return ok;
}

}  // namespace SlowReader
