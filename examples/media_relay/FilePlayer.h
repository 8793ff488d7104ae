// Plays a recorded Annex-B file into the relay's media buffer at the pace of its
// pictures, as if a live producer sent it. The file is read through a CNFile, so the
// disk is never touched on a reactor or receiver thread, and a passive
// CMediaStreamReceiver paces the pictures: each call hands one picture to the buffer and
// returns its media time, and the receiver thread calls again once real time has caught
// up with it (sooner during a fast start, faster or slower at another rate).
#pragma once

#include <Corvane/MediaStreamReceiver.h>
#include <Corvane/NFile.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "AnnexB.h"

namespace Relay {

class CFilePlayer : public CMediaStreamReceiver {
public:
    /// A raw stream carries no time stamps: its pictures are `fps` a second apart.
    CFilePlayer(CMediaBuffer& buffer, SRelayStats& stats, double fps)
        : m_stats(stats), m_cutter(buffer, stats), m_picture_us(1000000.0 / fps)
    {
        SetReceiveMode(RECEIVER_PASSIVE_INPUT);
    }

    /// Opens `path` and starts playing; `fast_start_ms` of the file go out at once, and
    /// `rate` scales the pace (see StartReceive). 0, or -1 when the file cannot be read.
    int Start(const char* path, long long fast_start_ms, float rate)
    {
        m_file = CNFile::Open(GetID(), path, "rb");
        if (!m_file) return -1;
        m_started = std::chrono::steady_clock::now();
        return StartReceive(fast_start_ms * 1000, rate);
    }

    /// True once the whole file went into the buffer (or reading it failed).
    bool Ended() const { return m_ended.load(); }

    /// Stops playing: the receiver thread releases the player at its next tick.
    void Stop() { Close(); }

    long long handle_passive_input() override
    {
        if (m_ended.load()) return 0;
        const std::uint64_t before = m_cutter.AccessUnits();
        // Bounded: a picture larger than this goes on at the next tick.
        for (int reads = 0; reads < 256 && m_cutter.AccessUnits() == before; ++reads) {
            bool eof = false;
            const int n = m_file->Read(m_chunk, sizeof m_chunk, eof);
            if (n > 0) m_cutter.Feed(m_chunk, static_cast<std::size_t>(n));
            if (eof || n < 0) {
                finish(n < 0);
                break;
            }
            if (n == 0) break;  // on its way from the file threads: the next tick reads it
        }
        const std::uint64_t units = m_cutter.AccessUnits();
        if (units == before) return 0;
        // Media time of the newest picture put, from 1 µs on (0 means nothing).
        return 1 + static_cast<long long>(static_cast<double>(units - 1) * m_picture_us);
    }

    /// Messages of the file: 7 says data is ready, which the next tick reads anyway.
    int handle_message(long, unsigned int type, long) override
    {
        if (type == 8) std::fprintf(stderr, "media_relay: reading the file failed\n");
        return 0;
    }

    int handle_close(CNetHandler*) override
    {
        if (m_file) m_file->Close();
        delete this;
        return 0;
    }

private:
    void finish(bool failed)
    {
        m_cutter.End();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - m_started;
        std::printf("media_relay: played %llu pictures in %.2f s%s\n",
                    static_cast<unsigned long long>(m_cutter.AccessUnits()), took.count(),
                    failed ? " (read error)" : "");
        std::fflush(stdout);
        m_stats.producers_ended.fetch_add(1);
        m_ended.store(true);
    }

    SRelayStats& m_stats;
    CAccessUnitCutter m_cutter;
    const double m_picture_us;
    CNFile* m_file = nullptr;
    std::chrono::steady_clock::time_point m_started;
    std::atomic<bool> m_ended{false};
    char m_chunk[4096];
};

}  // namespace Relay
