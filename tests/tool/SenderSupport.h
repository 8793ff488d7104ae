// A stream sender wired the way an application wires it: an owner handler whose
// handle_output feeds the sender, a receiver that records the sender's notifications,
// and a producer that puts a whole payload, waiting for room whenever the queue says no.
#pragma once

#include <Corvane/StreamSender.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "../core/Inbox.h"

namespace Qelvar::Test {

/// Bytes that differ at every offset of a long run, so a reordered or lost piece shows.
inline std::string Pattern(std::size_t len, unsigned int seed)
{
    std::string data(len, '\0');
    unsigned int x = seed * 2654435761u + 1;
    for (char& c : data) {
        x = x * 1103515245u + 12345u;
        c = static_cast<char>(x >> 24);
    }
    return data;
}

/// A slow reader: `expect` bytes into `got`, 4 KiB per step with a pause between steps,
/// each step waiting up to `wait` (the stream's Recv_n unit); gives up after 30 s.
template <class Stream>
void ReadSlowly(Stream& stream, int wait, std::size_t expect, std::string& got)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    char buf[4096];
    while (got.size() < expect && std::chrono::steady_clock::now() < end) {
        const int n = stream.Recv_n(buf, sizeof buf, wait);
        if (n < 0) return;
        got.append(buf, static_cast<std::size_t>(n));
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

class SenderRig {
    Signal m_owner_closed;  // before the owner, which reports to it

public:
    SenderRig() : sender(Corvane::CStreamSender::Create())
    {
        owner.on_output = [this](int fd) { return hold_output.load() ? 0 : sender->handle_output(fd); };
    }
    /// The owner goes first (with its registration), so that nothing calls the sender
    /// once it is closed.
    ~SenderRig()
    {
        if (m_sock) owner.RemoveSock(*m_sock);
        owner.Close();
        m_owner_closed.WaitFor(1);
        receiver.Close();
        if (sender) sender->Close();
    }

    /// Attaches `sock` under the owner and asks for code 2.
    bool Attach(Corvane::CSock& sock)
    {
        m_sock = &sock;
        return sender && sender->Attach(&owner, &sock) == 0 && sender->WaitException(receiver.GetID()) == 0;
    }

    int Count(unsigned int type) { return inbox.Count(type); }
    bool WaitCount(unsigned int type, int count) { return inbox.WaitCount(type, count); }

    /// Puts all of `data` in pieces of `piece(i)` bytes for the i-th piece. A refused
    /// piece waits for code 4 (half the queue free) and is put again. False when the
    /// socket failed or no room came within 10 s.
    bool PushAll(const std::string& data, const std::function<unsigned int(int)>& piece)
    {
        std::size_t off = 0;
        for (int i = 0; off < data.size(); ++i) {
            const auto len = static_cast<unsigned int>(std::min<std::size_t>(piece(i), data.size() - off));
            while (sender->Put(data.data() + off, len) != 0) {
                if (Count(Corvane::STREAM_SENDER_EXCEPTION) > 0) return false;
                const int seen = Count(Corvane::STREAM_SENDER_BUFFER_FREE);
                const unsigned int want = std::max(len, sender->GetCapacity() * 32768u / 2);
                if (sender->WaitBufferSize(receiver.GetID(), want) != 0) return false;
                if (!WaitCount(Corvane::STREAM_SENDER_BUFFER_FREE, seen + 1)) return false;
            }
            off += len;
        }
        return true;
    }

    /// While set, the owner keeps writability from the sender: the queue only grows.
    std::atomic<bool> hold_output{false};
    Corvane::CStreamSender* sender;
    Probe owner{0, &m_owner_closed};
    Inbox inbox;  // the sender's notifications
    Probe& receiver = inbox.probe;

private:
    Corvane::CSock* m_sock = nullptr;
};

}  // namespace Qelvar::Test
