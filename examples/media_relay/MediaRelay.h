// A live H.264 relay on the Corvane reactor, in two handlers around one CMediaBuffer:
//   CRelayInput   reads the producer's Annex-B byte stream (one TCP or reliable-UDP
//                 connection at a time, or UDP datagrams) and puts it into the buffer, a
//                 frame per picture.
//   CRelayOutput  accepts receivers over TCP and over reliable UDP (live mode); each gets
//                 a CMediaStreamSender on its socket, which starts it at a key frame and
//                 drops whole frames when it falls behind.
// Both delete themselves in handle_close once the framework releases them.
#pragma once

#include <Corvane/Corvane.h>
#include <Corvane/MediaBuffer.h>
#include <Corvane/MediaStreamSender.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <type_traits>
#include <vector>

#include "AnnexB.h"
#include "Recorder.h"

namespace Relay {

using namespace Qelvar::Corvane;

class CRelayInput : public CNetHandler {
public:
    enum class EKind { Tcp, Udp, Srt };

    CRelayInput(CMediaBuffer& buffer, SRelayStats& stats) : m_stats(stats), m_cutter(buffer, stats), m_read(64 * 1024) {}

    /// Also writes the input to `recorder` (before Start; it must outlive this input).
    void Record(CRecorder* recorder) { m_recorder = recorder; }

    /// Listens for producers (TCP, reliable UDP) or receives datagrams (UDP) on `local`.
    /// `srt_latency_ms` is the reliable-UDP latency budget (negative: the transport's). 0
    /// or -1.
    int Start(const CSockAddr& local, EKind kind, int srt_latency_ms)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (kind == EKind::Udp) return m_dgram.Open(&local) == 0 ? RegisterSock(m_dgram, MASK_READ, 0) : -1;
        if (kind == EKind::Srt) {
            if (srt_latency_ms >= 0 && m_srt_acceptor.SetLatency(srt_latency_ms) != 0) return -1;
            return m_srt_acceptor.Open(local) == 0 ? RegisterSock(m_srt_acceptor, MASK_READ, 0) : -1;
        }
        return m_acceptor.Open(local, false) == 0 ? RegisterSock(m_acceptor, MASK_READ, 0) : -1;
    }

    void Stop()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_producer.IsValid()) end_producer(m_producer);
            if (m_srt_producer.IsValid()) end_producer(m_srt_producer);
            close_socket(m_acceptor);
            close_socket(m_srt_acceptor);
            close_socket(m_dgram);
        }
        Close();
    }

    int handle_input(int handle) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_acceptor.IsValid() && handle == m_acceptor.GetHandle()) {
            accept_producers();
        } else if (m_producer.IsValid() && handle == m_producer.GetHandle()) {
            read(m_producer);
        } else if (m_dgram.IsValid() && handle == m_dgram.GetHandle()) {
            read(m_dgram);
        } else if (m_srt_acceptor.IsValid() && handle == m_srt_acceptor.GetHandle()) {
            accept_srt_producers();
        } else if (m_srt_producer.IsValid() && handle == m_srt_producer.GetHandle()) {
            read(m_srt_producer);
        }
        return 0;
    }

    /// The reliable-UDP transport reports a producer that closed or broke this way,
    /// possibly with messages still to read.
    int handle_exception(int handle) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_srt_producer.IsValid() || handle != m_srt_producer.GetHandle()) return 0;
        for (int rounds = 0; rounds < 1000 && read(m_srt_producer); ++rounds) {
        }
        if (m_srt_producer.IsValid()) end_producer(m_srt_producer);
        return 0;
    }

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

private:
    void accept_producers()
    {
        CSockStream accepted;
        while (m_acceptor.Accept(accepted, nullptr) == 0) {
            // Two producers would interleave two streams: the first keeps the input.
            if (m_producer.IsValid()) {
                accepted.Close();
                continue;
            }
            m_producer.Attach(accepted.Detach());
            if (RegisterSock(m_producer, MASK_READ, 0) != 0) end_producer(m_producer);
        }
    }

    void accept_srt_producers()
    {
        for (;;) {
            CMirtStream extra;
            if (m_srt_acceptor.Accept(m_srt_producer.IsValid() ? extra : m_srt_producer, nullptr) != 0) return;
            if (extra.IsValid()) {
                extra.Close();
            } else if (RegisterSock(m_srt_producer, MASK_READ, 0) != 0) {
                end_producer(m_srt_producer);
            }
        }
    }

    // True when it stopped with more perhaps still readable.
    template <class TSock>
    bool read(TSock& sock)
    {
        // Bounded, so one busy producer cannot hold a reactor thread; the socket stays
        // readable and comes back.
        for (int reads = 0; reads < 64; ++reads) {
            int n = 0;
            if constexpr (std::is_same_v<TSock, CSockDgram>) {
                n = sock.Recv(m_read.data(), static_cast<unsigned int>(m_read.size()), nullptr);
                if (n < 0) return false;  // a refusal reported on the socket; datagrams go on
            } else {
                n = sock.Recv(m_read.data(), static_cast<unsigned int>(m_read.size()));
                if (n < 0) {
                    end_producer(sock);
                    return false;
                }
            }
            if (n == 0) {
                // Reliable UDP hands out each message at its own time, so a drained read
                // says nothing about where a picture ends: there, the next one ends it.
                if constexpr (!std::is_same_v<TSock, CMirtStream>) m_cutter.Drained();
                return false;
            }
            m_cutter.Feed(m_read.data(), static_cast<std::size_t>(n));
            if (m_recorder) m_recorder->Write(m_read.data(), static_cast<std::size_t>(n));
        }
        return true;
    }

    void end_producer(CSock& producer)
    {
        m_cutter.End();
        close_socket(producer);
        m_stats.producers_ended.fetch_add(1);
    }

    void close_socket(CSock& sock)
    {
        if (!sock.IsValid()) return;
        RemoveSock(sock);
        sock.Close();
    }

    SRelayStats& m_stats;
    std::mutex m_mutex;  // the sockets and the cutter, whichever socket called
    CAccessUnitCutter m_cutter;
    std::vector<char> m_read;
    CSockAcceptor m_acceptor;
    CSockStream m_producer;
    CMirtAcceptor m_srt_acceptor;
    CMirtStream m_srt_producer;
    CSockDgram m_dgram;
    CRecorder* m_recorder = nullptr;
};

class CRelayOutput : public CNetHandler {
public:
    CRelayOutput(CMediaBuffer& buffer, SRelayStats& stats) : m_buffer(buffer), m_stats(stats) {}

    /// Listens for receivers on `local`. 0 or -1.
    int Start(const CSockAddr& local)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_acceptor.Open(local, false) == 0 ? RegisterSock(m_acceptor, MASK_READ, 0) : -1;
    }

    /// Also listens for reliable-UDP receivers (live mode) on `local`, with a latency
    /// budget of `latency_ms` (negative: the transport's). 0 or -1.
    int StartSrt(const CSockAddr& local, int latency_ms)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (latency_ms >= 0 && m_srt_acceptor.SetLatency(latency_ms) != 0) return -1;
        return m_srt_acceptor.Open(local) == 0 ? RegisterSock(m_srt_acceptor, MASK_READ, 0) : -1;
    }

    /// Detaches and closes every receiver and stops accepting.
    void Stop()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            while (!m_receivers.empty()) drop(m_receivers.size() - 1);
            for (CSock* acceptor : {static_cast<CSock*>(&m_acceptor), static_cast<CSock*>(&m_srt_acceptor)}) {
                if (!acceptor->IsValid()) continue;
                RemoveSock(*acceptor);
                acceptor->Close();
            }
        }
        Close();
    }

    int handle_input(int handle) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_acceptor.IsValid() && handle == m_acceptor.GetHandle()) {
            CSockStream accepted;
            while (m_acceptor.Accept(accepted, nullptr) == 0) add(accepted);
            return 0;
        }
        if (m_srt_acceptor.IsValid() && handle == m_srt_acceptor.GetHandle()) {
            for (;;) {
                auto receiver = std::make_unique<SReceiver>();
                if (m_srt_acceptor.Accept(receiver->srt, nullptr) != 0) return 0;
                receiver->sock = &receiver->srt;
                start(std::move(receiver));
            }
        }
        // Receivers have nothing to say: reading only tells that they left. What a chatty
        // one sends is dropped, a read at a time (a buffer fit for a live message).
        const std::size_t i = find(handle);
        if (i == m_receivers.size()) return 0;
        char discard[4096];
        SReceiver& receiver = *m_receivers[i];
        const int n = receiver.sock == &receiver.srt ? receiver.srt.Recv(discard, sizeof discard)
                                                     : receiver.tcp.Recv(discard, sizeof discard);
        if (n < 0) drop(i);
        return 0;
    }

    /// The reliable-UDP transport reports a receiver that left this way.
    int handle_exception(int handle) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::size_t i = find(handle);
        if (i < m_receivers.size()) drop(i);
        return 0;
    }

    /// A sender's socket failed (it names itself as `from_id`).
    int handle_message(long from_id, unsigned int type, long) override
    {
        if (type != MEDIA_SENDER_EXCEPTION) return 0;
        std::lock_guard<std::mutex> lock(m_mutex);
        for (std::size_t i = 0; i < m_receivers.size(); ++i) {
            if (m_receivers[i]->sender->GetID() == from_id) {
                drop(i);
                break;
            }
        }
        return 0;
    }

    int handle_close(CNetHandler*) override
    {
        delete this;
        return 0;
    }

private:
    // The sender keeps a pointer to the stream: each receiver stays where it was made.
    // One of the two streams is in use, the one `sock` points to.
    struct SReceiver {
        CSockStream tcp;
        CMirtStream srt;
        CSock* sock = nullptr;
        CMediaStreamSender* sender = nullptr;
    };

    void add(CSockStream& accepted)
    {
        auto receiver = std::make_unique<SReceiver>();
        receiver->tcp.Attach(accepted.Detach());
        receiver->tcp.SetSockNoDelay(true);
        // Left alone, the kernel grows the send buffer of a receiver that falls behind to
        // megabytes, and the lag hides there, seconds of it, where no frame can be dropped.
        // Kept small, the lag stays in the media buffer, which drops whole frames.
        receiver->tcp.SetSockSendBuf(kSendBufferBytes);
        receiver->sock = &receiver->tcp;
        start(std::move(receiver));
    }

    // The same fan-out for both transports: a sender on the stream, fed by the buffer.
    void start(std::unique_ptr<SReceiver> receiver)
    {
        receiver->sender = CMediaStreamSender::Create();
        if (!receiver->sender || receiver->sender->Attach(receiver->sock) != 0 ||
            RegisterSock(*receiver->sock, MASK_READ, 0) != 0) {
            if (receiver->sender) receiver->sender->Close();
            receiver->sock->Close();
            return;
        }
        receiver->sender->WaitException(GetID());
        SRelayStats& stats = m_stats;
        receiver->sender->AttachSendProc([&stats](CMediaPacket*, int, int frame_bytes) {
            stats.bytes_out.fetch_add(static_cast<std::uint64_t>(frame_bytes), std::memory_order_relaxed);
        });
        m_buffer.AddSender(receiver->sender);
        m_receivers.push_back(std::move(receiver));
        m_stats.receivers.store(static_cast<int>(m_receivers.size()));
    }

    void drop(std::size_t i)
    {
        SReceiver& receiver = *m_receivers[i];
        // Once DelSender returns the buffer no longer writes to the socket.
        m_buffer.DelSender(receiver.sender);
        receiver.sender->Close();
        RemoveSock(*receiver.sock);
        receiver.sock->Close();
        m_receivers.erase(m_receivers.begin() + static_cast<std::ptrdiff_t>(i));
        m_stats.receivers.store(static_cast<int>(m_receivers.size()));
    }

    // The receiver on `handle`, or m_receivers.size().
    std::size_t find(int handle) const
    {
        std::size_t i = 0;
        while (i < m_receivers.size() && m_receivers[i]->sock->GetHandle() != handle) ++i;
        return i;
    }

    static constexpr unsigned int kSendBufferBytes = 64 * 1024;

    CMediaBuffer& m_buffer;
    SRelayStats& m_stats;
    std::mutex m_mutex;  // the acceptor and the receivers
    CSockAcceptor m_acceptor;
    CMirtAcceptor m_srt_acceptor;
    std::vector<std::unique_ptr<SReceiver>> m_receivers;
};

}  // namespace Relay
