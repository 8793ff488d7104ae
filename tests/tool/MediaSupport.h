// A generated media stream for the media buffer tests: packets that count their
// releases, frames whose bytes tell their number and whether they arrived whole, and a
// parser for what a receiver got.
#pragma once

#include <Corvane/MediaBuffer.h>
#include <Corvane/MediaPacket.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "SenderSupport.h"

namespace Qelvar::Test {

using Corvane::CMediaBuffer;
using Corvane::CMediaPacket;
using Corvane::MediaLevel;

inline std::atomic<int> g_live{0};      // packets not yet released
inline std::atomic<int> g_overfree{0};  // Release calls beyond the one each packet is owed

class Packet : public CMediaPacket {
public:
    explicit Packet(std::string bytes) : m_bytes(std::move(bytes)) { ++g_live; }
    void Release() override
    {
        if (m_released.exchange(true)) {
            ++g_overfree;
            return;
        }
        --g_live;
    }
    char* GetBuffer() override { return m_bytes.data(); }

private:
    std::string m_bytes;
    std::atomic<bool> m_released{false};
};

// Packets are kept alive until the end of the test, so a second Release is counted
// instead of touching freed memory.
inline std::vector<std::unique_ptr<Packet>> g_packets;

// Frame n: a 12-byte header (n, size, level) then a pattern of its own, so a receiver
// can tell which frames it got and whether each one is whole.
inline std::string FrameBytes(unsigned int n, unsigned int size, int level)
{
    std::string f = Pattern(size, n + 1000);
    std::memcpy(f.data(), &n, 4);
    std::memcpy(f.data() + 4, &size, 4);
    std::memcpy(f.data() + 8, &level, 4);
    return f;
}

// Puts frame n in `packets` pieces, the mark on the last.
inline void PutFrame(CMediaBuffer& buf, unsigned int n, unsigned int size, int level, int channel = 0, int packets = 3)
{
    const std::string f = FrameBytes(n, size, level);
    const std::size_t piece = size / static_cast<unsigned int>(packets);
    for (int i = 0; i < packets; ++i) {
        const std::size_t off = piece * static_cast<std::size_t>(i);
        const std::size_t len = i + 1 == packets ? size - off : piece;
        g_packets.push_back(std::make_unique<Packet>(f.substr(off, len)));
        buf.Put(g_packets.back().get(), static_cast<int>(len), i + 1 == packets ? 1 : 0, MediaLevel(level, channel));
    }
}

// Splits a received stream into frame numbers; a frame that is not whole and exact (or
// data that is not a frame) ends the parse with torn set.
struct Parsed {
    std::vector<unsigned int> frames;
    std::vector<int> levels;
    bool torn = false;
    std::string rest;  // bytes that are not frames (other data)
};

inline Parsed Parse(const std::string& s, const std::string& marker = "")
{
    Parsed p;
    std::size_t off = 0;
    while (off < s.size()) {
        if (!marker.empty() && s.compare(off, marker.size(), marker) == 0) {
            p.rest += marker;
            off += marker.size();
            continue;
        }
        unsigned int n = 0, size = 0;
        int level = 0;
        if (s.size() - off < 12) return p.torn = true, p;
        std::memcpy(&n, s.data() + off, 4);
        std::memcpy(&size, s.data() + off + 4, 4);
        std::memcpy(&level, s.data() + off + 8, 4);
        if (size < 12 || s.size() - off < size || s.compare(off, size, FrameBytes(n, size, level)) != 0) {
            return p.torn = true, p;
        }
        p.frames.push_back(n);
        p.levels.push_back(level);
        off += size;
    }
    return p;
}

}  // namespace Qelvar::Test
