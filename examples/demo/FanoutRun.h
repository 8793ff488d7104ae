// The demo's fan-out run: a generated stream goes from one CMediaBuffer to several
// receivers over loopback TCP. One receiver reads slowly, falls behind, loses whole
// frames to aging and resumes at key frames; the others get every frame.
#pragma once

#include <Corvane/Corvane.h>
#include <Corvane/MediaBuffer.h>
#include <Corvane/MediaPacket.h>
#include <Corvane/MediaStreamSender.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Fanout {

using namespace Qelvar::Corvane;
using Clock = std::chrono::steady_clock;

constexpr int kReceivers = 4;  // the last one is the slow one
constexpr int kSlow = kReceivers - 1;
constexpr int kFrames = 51;  // key frames at 0, 25 and 50: the stream ends on one
constexpr int kKeyEvery = 25;
constexpr int kFps = 50;
constexpr int kPacketBytes = 1400;
constexpr int kSlowChunk = 2048;  // the slow receiver reads this much every kSlowPauseMs
constexpr int kSlowPauseMs = 10;
constexpr std::uint32_t kMagic = 0x4E414652;
constexpr std::size_t kHeader = 16;  // magic, frame number, level, body size

inline int level_of(int frame) { return frame % kKeyEvery == 0 ? 1 : frame % 2 ? 10 : 5; }
inline std::uint32_t body_size(int frame)
{
    const int level = level_of(frame);
    return static_cast<std::uint32_t>((level == 1 ? 30000 : level == 5 ? 12000 : 6000) + frame * 37);
}
inline char body_byte(int frame, std::uint32_t i)
{
    return static_cast<char>((static_cast<std::uint32_t>(frame) * 131u + i * 7u + (i >> 8)) & 0xFFu);
}

/// One reference, handed to the buffer. Its bytes are freed when the reference goes, so
/// a use after Release reads freed memory (caught by the sanitizers, or as wrong bytes).
class CDemoPacket : public CMediaPacket {
public:
    CDemoPacket(const char* bytes, std::size_t len) : m_bytes(bytes, bytes + len) {}
    void Release() override
    {
        m_releases.fetch_add(1);
        if (m_refs.fetch_sub(1) == 1) std::vector<char>().swap(m_bytes);
    }
    char* GetBuffer() override { return m_bytes.data(); }
    int Releases() const { return m_releases.load(); }

private:
    std::vector<char> m_bytes;
    std::atomic<int> m_refs{1};
    std::atomic<int> m_releases{0};
};

/// Parses frames out of a receiver's byte stream and checks every byte of them.
class CFrameReader {
public:
    void Feed(const char* data, std::size_t len)
    {
        if (!error.empty()) return;
        m_pending.append(data, len);
        std::size_t at = 0;
        while (error.empty() && m_pending.size() - at >= kHeader) {
            std::uint32_t h[4];
            std::memcpy(h, m_pending.data() + at, kHeader);
            const int frame = static_cast<int>(h[1]);
            if (h[0] != kMagic || frame < 0 || frame >= kFrames || static_cast<int>(h[2]) != level_of(frame) ||
                h[3] != body_size(frame)) {
                error = "a torn or unknown frame header after " + std::to_string(frames.size()) + " frames";
                break;
            }
            if (m_pending.size() - at < kHeader + h[3]) break;
            const char* body = m_pending.data() + at + kHeader;
            std::uint32_t i = 0;
            while (i < h[3] && body[i] == body_byte(frame, i)) ++i;
            if (i < h[3]) {
                error = "frame " + std::to_string(frame) + " differs at body byte " + std::to_string(i);
                break;
            }
            frames.push_back(frame);
            at += kHeader + h[3];
        }
        m_pending.erase(0, at);
    }
    std::size_t Leftover() const { return m_pending.size(); }

    std::vector<int> frames;  // in arrival order
    std::string error;

private:
    std::string m_pending;
};

/// What one receiver got.
struct SReceiverReport {
    int frames = 0, gaps = 0, skipped = 0, gaps_at_key = 0;
    bool first_key = false, in_order = true, whole = true, got_last = false;
};

struct SResult {
    int frames = 0, packets = 0, fps = kFps, slow_chunk = kSlowChunk, slow_pause_ms = kSlowPauseMs;
    std::uint64_t bytes = 0, aged_frames = 0, peak_buffered = 0;
    double put_seconds = 0;
    std::array<SReceiverReport, kReceivers> receivers{};
    int released_once = 0, exceptions = 0;
    std::vector<std::string> failures;
    bool ok() const { return failures.empty(); }
};

/// Counts the senders' failure notices; deletes itself when released.
class CWatcher : public CNetHandler {
public:
    struct SState {
        std::atomic<int> exceptions{0};
        std::atomic<bool> released{false};
    };
    explicit CWatcher(std::shared_ptr<SState> state) : m_state(std::move(state)) {}
    int handle_message(long, unsigned int type, long) override
    {
        if (type == MEDIA_SENDER_EXCEPTION) m_state->exceptions.fetch_add(1);
        return 0;
    }
    int handle_close(CNetHandler*) override
    {
        std::shared_ptr<SState> state = m_state;
        delete this;
        state->released = true;
        return 0;
    }

private:
    std::shared_ptr<SState> m_state;
};

inline void check_receiver(SResult& r, int index, const CFrameReader& reader)
{
    SReceiverReport& rep = r.receivers[static_cast<std::size_t>(index)];
    const std::string who = index == kSlow ? "slow receiver" : "receiver " + std::to_string(index);
    auto fail = [&](const std::string& what) { r.failures.push_back(who + " " + what); };
    const std::vector<int>& f = reader.frames;
    rep.frames = static_cast<int>(f.size());
    rep.first_key = !f.empty() && level_of(f.front()) == 1;
    rep.whole = reader.error.empty() && reader.Leftover() == 0;
    rep.got_last = !f.empty() && f.back() == kFrames - 1;
    for (std::size_t i = 1; i < f.size(); ++i) {
        if (f[i] <= f[i - 1]) rep.in_order = false;
        if (f[i] <= f[i - 1] + 1) continue;
        ++rep.gaps;
        rep.skipped += f[i] - f[i - 1] - 1;
        if (level_of(f[i]) == 1) ++rep.gaps_at_key;
    }
    if (f.empty()) fail("got no frame");
    if (!f.empty() && !rep.first_key) fail("began at frame " + std::to_string(f.front()) + ", not a key frame");
    if (!reader.error.empty()) fail("saw " + reader.error);
    if (reader.Leftover() != 0) fail("ended inside a frame (" + std::to_string(reader.Leftover()) + " bytes)");
    if (!rep.in_order) fail("got frames out of order or twice");
    const int bad_gaps = rep.gaps - rep.gaps_at_key;
    if (bad_gaps != 0) fail("had " + std::to_string(bad_gaps) + " gaps not ending at a key frame");
    if (!rep.got_last) fail("missed the closing key frame");
    if (index != kSlow && rep.frames != kFrames) fail("got " + std::to_string(rep.frames) + " frames");
    if (index == kSlow && rep.skipped == 0) fail("never fell behind");
}

/// Streams kFrames frames at kFps to kReceivers loopback receivers and checks what each
/// one got.
inline SResult Run()
{
    SResult r;
    CSockAcceptor acceptor;
    acceptor.SetBlockOpt(true);
    CSockAddrIPv4 bound, local("127.0.0.1", 0);
    std::array<CSockStream, kReceivers> clients, servers;
    bool connected = acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)) == 0 && acceptor.GetLocalAddr(&bound) == 0;
    for (int i = 0; i < kReceivers && connected; ++i) {
        CSockStream& c = clients[static_cast<std::size_t>(i)];
        CSockStream& s = servers[static_cast<std::size_t>(i)];
        c.SetBlockOpt(true);
        s.SetBlockOpt(false);
        // Small socket buffers on the slow connection (the receiving end's set before the
        // connect) keep its backlog in the media buffer, where it ages.
        const bool slow = i == kSlow;
        connected = slow ? c.OpenEx(&local) == 0 && c.SetSockRecvBuf(4096) == 0 && c.ConnectEx(bound) == 0
                         : c.Connect(bound, nullptr) == 0;
        connected = connected && acceptor.Accept(s, nullptr) == 0 && (!slow || s.SetSockSendBuf(8192) == 0);
    }
    acceptor.Close();
    if (!connected) {
        r.failures.push_back("no loopback connections");
        return r;
    }

    auto watch = std::make_shared<CWatcher::SState>();
    auto* watcher = new CWatcher(watch);
    auto buffer = std::make_unique<CMediaBuffer>();
    std::array<CMediaStreamSender*, kReceivers> senders{};
    for (int i = 0; i < kReceivers; ++i) {
        CMediaStreamSender* s = CMediaStreamSender::Create();
        senders[static_cast<std::size_t>(i)] = s;
        if (!s || s->Attach(&servers[static_cast<std::size_t>(i)]) != 0) {
            r.failures.push_back("sender " + std::to_string(i) + " could not be made");
            continue;
        }
        s->WaitException(watcher->GetID());
        buffer->AddSender(s);
    }
    buffer->EnableAutoSend(20);  // the slow receiver progresses between frames too

    std::array<CFrameReader, kReceivers> readers;
    std::vector<std::thread> threads;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (int i = 0; i < kReceivers; ++i) {
        threads.emplace_back([&, i] {
            CSockStream& c = clients[static_cast<std::size_t>(i)];
            std::vector<char> buf(i == kSlow ? kSlowChunk : 65536);
            while (Clock::now() < deadline) {
                const int n = c.Recv_n(buf.data(), static_cast<unsigned int>(buf.size()), 100000);
                if (n < 0) break;  // the sender's side closed: everything was read
                readers[static_cast<std::size_t>(i)].Feed(buf.data(), static_cast<std::size_t>(n));
                if (i == kSlow) std::this_thread::sleep_for(std::chrono::milliseconds(kSlowPauseMs));
            }
        });
    }

    std::vector<std::unique_ptr<CDemoPacket>> packets;
    const auto start = Clock::now();
    for (int f = 0; f < kFrames; ++f) {
        const std::uint32_t size = body_size(f);
        std::string bytes(kHeader + size, '\0');
        const std::uint32_t header[4] = {kMagic, static_cast<std::uint32_t>(f),
                                         static_cast<std::uint32_t>(level_of(f)), size};
        std::memcpy(bytes.data(), header, kHeader);
        for (std::uint32_t i = 0; i < size; ++i) bytes[kHeader + i] = body_byte(f, i);
        for (std::size_t at = 0; at < bytes.size(); at += kPacketBytes) {
            const std::size_t len = std::min<std::size_t>(kPacketBytes, bytes.size() - at);
            packets.push_back(std::make_unique<CDemoPacket>(bytes.data() + at, len));
            const int mark = at + len == bytes.size() ? 1 : 0;
            if (buffer->Put(packets.back().get(), static_cast<int>(len), mark, MediaLevel(level_of(f), 0)) != 0) {
                r.failures.push_back("Put refused a packet of frame " + std::to_string(f));
            }
        }
        r.bytes += bytes.size();
        r.peak_buffered = std::max(r.peak_buffered, buffer->GetStats().buffered);
        std::this_thread::sleep_until(start + std::chrono::microseconds(1000000LL * (f + 1) / kFps));
    }
    r.put_seconds = std::chrono::duration<double>(Clock::now() - start).count();
    r.frames = kFrames;
    r.packets = static_cast<int>(packets.size());

    // Every sender has written or skipped everything once the slowest lags by nothing;
    // with the producer quiet, only auto-send can get it there.
    SMediaBufferStats stats = buffer->GetStats();
    for (int i = 0; i < 150 && stats.max_lag != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        stats = buffer->GetStats();
    }
    if (stats.max_lag != 0) {
        r.failures.push_back("3 s after the last frame the slowest sender still lagged " +
                             std::to_string(stats.max_lag) + " bytes: auto-send did not drive it on");
    }
    r.aged_frames = stats.aged_frames;

    buffer->DisableAutoSend();
    for (CMediaStreamSender* s : senders) {
        if (s) buffer->DelSender(s);
    }
    for (CSockStream& s : servers) s.Close();  // the receivers read to the end, then see the close
    for (std::thread& t : threads) t.join();
    for (CMediaStreamSender* s : senders) {
        if (s) s->Close();
    }
    buffer.reset();
    int never = 0, twice = 0;
    for (const auto& p : packets) {
        const int n = p->Releases();
        r.released_once += n == 1 ? 1 : 0;
        never += n == 0 ? 1 : 0;
        twice += n > 1 ? 1 : 0;
    }
    if (never || twice) {
        r.failures.push_back(std::to_string(never) + " packets never released, " + std::to_string(twice) +
                             " released more than once");
    }

    r.exceptions = watch->exceptions.load();
    if (r.exceptions != 0) r.failures.push_back(std::to_string(r.exceptions) + " sender failure notices");
    watcher->Close();
    for (int i = 0; i < 200 && !watch->released.load(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!watch->released.load()) r.failures.push_back("the watcher was not released");
    for (int i = 0; i < kReceivers; ++i) check_receiver(r, i, readers[static_cast<std::size_t>(i)]);
    return r;
}

}  // namespace Fanout
